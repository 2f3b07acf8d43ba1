#include "../io/block_reader.h"
#include "../io/retry.h"
#include "console.h"
#include "page_source.h"
#include "sparse_expander.h"
#include "storage_impl.h"

#include <algorithm>
#include <cerrno>
#include <ios>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

/// Nothing, after the line, when the header cannot be read.
std::optional<sparse_header_t> read_header(CQZImage& image, const STRUCT_QZIMAGE_ITEM& item,
                                           const char* failure) {
    sparse_header_t header;
    if (read_item_data(image, item, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header)))
        return header;
    print_line(failure);
    return std::nullopt;
}

/// unsparse_tmp.bin: the expanded image is written to it and then read back.
class TemporaryFile {
public:
    /// failure takes the first error of writing and reading.
    TemporaryFile(std::string path, WriteFailure& failure) : m_path(std::move(path)), m_file(&failure) {
        m_file.file().keep_zero_bytes();
    }

    OutputFile& file() { return m_file; }

    /// False, with errno set, when it cannot be created.
    bool open() {
        m_file.open(m_path, std::ios_base::in | std::ios_base::out | std::ios_base::trunc);
        return m_file.is_open();
    }

    /// Fills the last page of the written bytes and prepares for reading.
    void finish(uint64_t written, uint32_t page_size, uint8_t fill_byte) {
        const uint64_t excess = written % page_size;
        m_file.write_fill(fill_byte, 1, excess != 0 ? page_size - excess : 0);
        m_file.flush();
        m_reader.attach(m_file.file().descriptor());
    }

    /// Reads size bytes and frees the space of those before them. False when they cannot all be read.
    bool read(uint64_t position, uint64_t size, uint8_t* out) {
        m_file.file().release_before(position);
        const std::optional<uint64_t> count = m_reader.read(position, size, out);
        if (count == size)
            return true;
        m_file.give_up(count ? EIO : errno);
        return false;
    }

    void remove() {
        m_file.close();
        retry_interrupted([&] { return ::unlink(m_path.c_str()); });
    }

private:
    std::string m_path;
    OutputFile m_file;
    BlockReader m_reader;
};

}  // namespace

bool CStorage::is_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    const auto header = read_header(*m_update_image_ptr, entry, "failed to get sparse info");
    return header && header->magic == kSparseMagic;
}

uint64_t CStorage::get_sparse_size(STRUCT_QZIMAGE_ITEM& entry) {
    const auto header = read_header(*m_update_image_ptr, entry, "failed to get sparse info");
    if (!header)
        return UINT64_MAX;
    return uint32_t{header->blk_sz * header->total_blks};  // kept: a 32-bit product
}

int CStorage::write_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string name = item_name(entry);
    print_line("writing " + name + "...");
    const auto header = read_header(*m_update_image_ptr, entry, "failed to get sparse header");
    if (!header)
        return kSparseHeaderUnreadable;
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
        expanded.give_up(EIO);  // its pages could not be written

    const auto read_back = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return temporary.read(position, size, out);
    };
    PageSource source(read_back, UINT64_MAX, m_page_size, m_fill_byte);
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
        return result;  // the temporary file stays, with what was expanded
    temporary.finish(expander.written(), m_page_size, m_fill_byte);

    print_line("");
    progress.set_prefix("writing " + name + "...");
    const uint32_t expanded_pages = std::min(page_count(expander.written(), m_page_size), *pages);
    // Padding replaces what cannot be read back: the run ends in failure anyway.
    const uint32_t copied =
        expanded.buffer().has_failed() ? 0 : write_pages(source, expanded_pages, *pages, &progress);
    write_partition_rest(source.page(), copied, *pages, progress);

    m_image_fill_page_num = *pages;
    redraw_line("writing " + name + "...OK");
    temporary.remove();
    return kDone;
}
