#include "../io/block_reader.h"
#include "../io/retry.h"
#include "console.h"
#include "page_source.h"
#include "sparse_expander.h"
#include "storage_impl.h"

#include <algorithm>
#include <cerrno>
#include <ios>
#include <limits>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

std::optional<sparse_header_t> read_header(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item) {
    sparse_header_t header;
    if (!read_item_data(image, item, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header)))
        return std::nullopt;
    return header;
}

/// unsparse_tmp.bin: takes the expanded image and gives it back.
class TemporaryFile {
public:
    /// failure takes the first error of both ways.
    TemporaryFile(std::string path, WriteFailure& failure)
        : m_path(std::move(path)), m_failure(failure), m_file(&failure) {
        m_file.file().keep_zero_bytes();
    }

    OutputFile& file() { return m_file; }

    /// False, with errno set, when it cannot be made.
    bool open() {
        m_file.open(m_path, std::ios_base::in | std::ios_base::out | std::ios_base::trunc);
        return m_file.is_open();
    }

    /// Fills the file up to whole pages and makes it ready to be read.
    void finish(uint64_t written, uint32_t page_size, uint8_t fill_byte) {
        m_file.write_fill(fill_byte, 1, uint64_t{page_count(written, page_size)} * page_size - written);
        m_file.flush();
        m_reader.attach(m_file.file().descriptor());
    }

    /// Reads size bytes back; those before them are not read again. False when they are not all there.
    bool read(uint64_t position, uint64_t size, uint8_t* out) {
        m_file.file().release_before(position);
        const std::optional<uint64_t> got = m_reader.read(position, size, out);
        if (got == size)
            return true;
        m_failure.note(m_path, got ? EIO : errno);
        return false;
    }

    void remove() {
        m_file.close();
        retry_interrupted([&] { return ::unlink(m_path.c_str()); });
    }

private:
    std::string m_path;
    WriteFailure& m_failure;
    OutputFile m_file;
    BlockReader m_reader;
};

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
    const std::optional<uint32_t> pages =
        partition_pages(entry, page_count(expanded_size(*header), m_page_size));
    if (!pages) {
        print_line("partition size is too small");
        return kSparseImageTooLarge;
    }

    const std::string path = path_in_output("unsparse_tmp.bin");
    TemporaryFile temporary(path, m_write_failure);
    OutputFile& expanded = temporary.file();
    expanded.file().protect(m_update_image_ptr->GetIdentity());
    expanded.file().protect(m_fout.file().identity());
    if (!temporary.open()) {
        print_line("failed to create " + path + error_suffix(errno));
        return kNoTemporaryFile;
    }
    if (m_fout.buffer().has_failed())
        expanded.give_up(EIO);  // the pages have nowhere to go

    const auto read_back = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return temporary.read(position, size, out);
    };
    PageSource source(read_back, std::numeric_limits<uint64_t>::max(), m_page_size, m_fill_byte);
    if (!source)
        return kNoSparseMemory;

    print_line("extracting " + name + "...");
    Progress progress("extracting... " + name + "...");
    const auto read = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return read_item_data(*m_update_image_ptr, entry, position, size, out);
    };
    SparseExpander expander(*header, read, uint64_t{*pages} * m_page_size, {source.page(), m_page_size},
                            m_fill_byte, expanded, progress);
    if (const int result = expander.expand(); result != kDone)
        return result;  // the temporary file stays: it shows how far the expansion came
    temporary.finish(expander.written(), m_page_size, m_fill_byte);

    print_line("");
    progress.set_prefix("writing " + name + "...");
    const uint32_t expanded_pages = std::min(page_count(expander.written(), m_page_size), *pages);
    // What cannot be read back is filled: the run ends in failure anyway.
    const uint32_t copied =
        expanded.buffer().has_failed() ? 0 : write_pages(source, expanded_pages, *pages, &progress);
    write_partition_rest(source.page(), copied, *pages, progress);

    m_image_fill_page_num = *pages;
    redraw_line("writing " + name + "...OK");
    temporary.remove();
    return kDone;
}
