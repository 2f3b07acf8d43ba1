#include "../io/block_reader.h"
#include "../io/retry.h"
#include "console.h"
#include "sparse_expander.h"
#include "storage_impl.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

std::optional<sparse_header_t> read_header(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item) {
    sparse_header_t header;
    if (!read_item_data(image, item, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header)))
        return std::nullopt;
    return header;
}

}  // namespace

bool CStorage::is_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::optional<sparse_header_t> header = read_header(*m_update_image_ptr, entry);
    if (!header)
        print_line("failed to get sparse info");
    return header && header->magic == kSparseMagic;
}

uint64_t CStorage::get_sparse_size(STRUCT_QZIMAGE_ITEM& entry) {
    const std::optional<sparse_header_t> header = read_header(*m_update_image_ptr, entry);
    if (!header) {
        print_line("failed to get sparse info");
        return std::numeric_limits<uint64_t>::max();
    }
    return uint32_t{header->blk_sz * header->total_blks};  // kept: a 32-bit product
}

int CStorage::write_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string name = item_name(entry);
    print_line("writing " + name + "...");
    const std::optional<sparse_header_t> header = read_header(*m_update_image_ptr, entry);
    if (!header) {
        print_line("failed to get sparse header");
        return kSparseHeaderUnreadable;
    }
    uint32_t pages = 0;
    if (!count_partition_pages(entry, page_count(expanded_size(*header), m_page_size), pages)) {
        print_line("partition size is too small");
        return kSparseImageTooLarge;
    }

    const std::string path = path_in_output("unsparse_tmp.bin");
    OutputFile expanded(&m_write_failure);
    expanded.file().protect(m_update_image_ptr->GetIdentity());
    expanded.file().protect(m_fout.file().identity());
    expanded.file().keep_zero_bytes();
    expanded.open(path,
                  std::ios_base::in | std::ios_base::out | std::ios_base::binary | std::ios_base::trunc);
    if (!expanded.is_open()) {
        print_line("failed to create " + path + error_suffix(errno));
        return kNoTemporaryFile;
    }
    if (m_fout.buffer().has_failed())
        expanded.give_up(EIO);  // the pages have nowhere to go
    ByteBuffer page(m_page_size);
    if (!page)
        return kNoSparseMemory;

    print_line("extracting " + name + "...");
    Progress progress("extracting... " + name + "...");
    const auto read = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return read_item_data(*m_update_image_ptr, entry, position, size, out);
    };
    SparseExpander expander(*header, read, uint64_t{pages} * m_page_size, {page.data(), m_page_size},
                            m_fill_byte, expanded, progress);
    if (const int result = expander.expand(); result != kDone)
        return result;  // the temporary file stays: it shows how far the expansion came

    const uint32_t expanded_pages = page_count(expander.written(), m_page_size);
    const uint64_t excess = expander.written() % m_page_size;
    expanded.write_fill(m_fill_byte, 1, excess != 0 ? m_page_size - excess : 0);
    expanded.flush();
    print_line("");
    progress.set_prefix("writing " + name + "...");
    copy_expanded_pages(expanded, path, std::min(expanded_pages, pages), pages, page, progress);

    m_image_fill_page_num = pages;
    redraw_line("writing " + name + "...OK");
    expanded.close();
    retry_interrupted([&] { return ::unlink(path.c_str()); });
    return kDone;
}

void CStorage::copy_expanded_pages(OutputFile& expanded, const std::string& path, uint32_t data_pages,
                                   uint32_t pages, ByteBuffer& page, Progress& progress) {
    BlockReader reader;
    reader.attach(expanded.file().descriptor());
    uint32_t done = 0;
    while (done < data_pages && !expanded.buffer().has_failed() && !m_fout.buffer().has_failed()) {
        uint8_t* first = nullptr;
        uint32_t run = std::min(room_for_pages(first), data_pages - done);
        if (uint64_t{run} * m_page_size < BlockReader::kBlockSize) {
            run = 1;
            first = page.data();
        }
        const uint64_t size = uint64_t{run} * m_page_size;
        const std::optional<uint64_t> got = reader.read(uint64_t{done} * m_page_size, size, first);
        if (got != size) {
            m_write_failure.note(path, got ? EIO : errno);
            break;
        }
        write_pages(first, run, done, pages, progress);
        expanded.file().release_before(uint64_t{done} * m_page_size);
    }
    // What could not be taken from the temporary file is filled: the run ends in failure anyway.
    write_partition_rest(page.data(), done, pages, progress);
}
