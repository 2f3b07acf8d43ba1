#include "../io/block_reader.h"
#include "../io/retry.h"
#include "console.h"
#include "page_source.h"
#include "sparse_expander.h"
#include "storage_impl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
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

/// Passes an expanded image to write_page as it expands.
class PagesOfExpansion : public OutputReceiver {
public:
    /// limit: pages that are passed at most. has_failed: nothing more reaches the output.
    PagesOfExpansion(CStorage& storage, uint32_t page_size, uint32_t limit, std::function<bool()> has_failed)
        : m_storage(storage), m_page(page_size), m_limit(limit), m_has_failed(std::move(has_failed)) {}

    explicit operator bool() const { return static_cast<bool>(m_page); }
    /// Every page was passed, so nothing of the expansion is missing.
    bool is_full() const { return m_passed == m_limit; }

    int open(const std::string& /*path*/, OpenMode /*mode*/, uint64_t& size) override {
        size = 0;
        return 0;
    }
    int bytes(uint64_t /*offset*/, const uint8_t* bytes, uint64_t count) override {
        while (count != 0 && !is_full()) {
            const uint64_t part = std::min(count, m_page.size() - m_gathered);
            std::memcpy(m_page.data() + m_gathered, bytes, static_cast<std::size_t>(part));
            m_gathered += part;
            bytes += part;
            count -= part;
            if (m_gathered == m_page.size()) {
                if (!m_storage.write_page(m_page.data(), static_cast<uint32_t>(m_page.size())))
                    return EIO;  // the following pages would be refused too
                m_gathered = 0;
                ++m_passed;
            }
        }
        // Nothing takes what follows the last page, so the expansion need not make it: it can be terabytes.
        return m_has_failed() || is_full() ? EIO : 0;
    }
    int zeros(uint64_t /*offset*/, uint64_t /*count*/) override { return EINVAL; }
    uint64_t zeros_from() const override { return kNoZeros; }
    int end(uint64_t /*size*/) override { return 0; }
    int close() override { return 0; }

private:
    CStorage& m_storage;
    ByteBuffer m_page;
    const uint32_t m_limit;
    std::function<bool()> m_has_failed;
    uint64_t m_gathered = 0;
    uint32_t m_passed = 0;
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

    if (!m_writes_files)
        return pass_sparse_pages(entry, *header, *pages);

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

/// Writes the expanded image and padding up to that many pages, without a temporary file.
int CStorage::pass_sparse_pages(STRUCT_QZIMAGE_ITEM& entry, const sparse_header_t& header, uint32_t pages) {
    ByteBuffer page(m_page_size);
    PagesOfExpansion receiver(*this, m_page_size, pages, [this] { return m_fout.buffer().has_failed(); });
    if (!page || !receiver)
        return kNoSparseMemory;
    OutputFile expanded;
    expanded.buffer().send_to(receiver);
    expanded.open(item_name(entry));
    if (!expanded.is_open())
        return kNoSparseMemory;

    Progress progress("writing " + item_name(entry) + "...");
    const auto read = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return read_item_data(*m_update_image_ptr, entry, position, size, out);
    };
    SparseExpander expander(header, read, uint64_t{pages} * m_page_size, {page.data(), m_page_size},
                            m_fill_byte, expanded, progress);
    if (const int result = expander.expand(); result != kDone) {
        expanded.give_up(ECANCELED);  // the run ends, so nothing needs what is still gathered
        return result;
    }
    const uint64_t excess = expander.written() % m_page_size;
    expanded.write_fill(m_fill_byte, 1, excess != 0 ? m_page_size - excess : 0);
    expanded.close();

    // After the last page the expander counts what it failed to append as not written.
    const uint32_t passed =
        receiver.is_full() ? pages : std::min(page_count(expander.written(), m_page_size), pages);
    write_partition_rest(page.data(), passed, pages, progress);
    m_image_fill_page_num = pages;
    return kDone;
}
