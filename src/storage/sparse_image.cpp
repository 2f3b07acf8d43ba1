#include "storage_impl.h"

#include "../io/block_reader.h"
#include "../io/retry.h"
#include "console.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <unistd.h>

namespace {

// Chunks may expand to more than the header tells. The excess is dropped after the expansion, so only this
// much of it is expanded at all: a chunk of 2^32 blocks in a small partition must not fill the disk.
constexpr uint64_t kLargestExcess = 64 * 1024 * 1024;

uint64_t saturating_sum(uint64_t a, uint64_t b) {
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

/// The expansion pass: walks the chunks and appends what they stand for to the temporary file, page by page.
class SparseExpander {
public:
    /// Reads size bytes of the sparse image at a position.
    using Source = std::function<bool(uint64_t position, uint32_t size, uint8_t* out)>;

    SparseExpander(const sparse_header_t& header, Source source, OutputFile& target, ByteBuffer& page,
                   uint8_t fill_byte, uint64_t output_size, Progress& progress)
        : m_source(std::move(source)), m_target(target), m_page(page), m_fill_byte(fill_byte),
          m_chunks(header.total_chunks), m_block_size(header.blk_sz), m_expanded_size(expanded_size(header)),
          m_limit(saturating_sum(std::max(m_expanded_size, output_size), kLargestExcess)),
          m_progress(progress) {}

    /// 0, or the code of what could not be read, after its line.
    int expand();

    /// Bytes that the chunks expanded to.
    uint64_t written() const { return m_written; }

private:
    int expand_chunk(const chunk_header_t& chunk);
    int expand_raw(const chunk_header_t& chunk);
    int expand_fill(const chunk_header_t& chunk);
    void expand_pattern(uint64_t length);
    bool takes(uint64_t piece) const;
    void append(const uint8_t* bytes, uint64_t piece);
    void read_raw_in_place(uint64_t left, uint64_t& run, uint8_t*& bytes);

    Source m_source;
    OutputFile& m_target;
    ByteBuffer& m_page;
    const uint8_t m_fill_byte;
    const uint32_t m_chunks;
    const uint64_t m_block_size;
    const uint64_t m_expanded_size;
    const uint64_t m_limit;  // nothing is appended beyond
    Progress& m_progress;
    uint64_t m_position = sizeof(sparse_header_t);  // of the next chunk header
    uint64_t m_written = 0;
};

int SparseExpander::expand() {
    for (uint32_t i = 0; i < m_chunks; ++i) {
        chunk_header_t chunk;
        if (!m_source(m_position, sizeof(chunk), reinterpret_cast<uint8_t*>(&chunk))) {
            print_line("failed to get sparse chunk");
            return kChunkHeaderUnreadable;
        }
        m_position += sizeof(chunk);
        if (const int result = expand_chunk(chunk); result != kDone)
            return result;
    }
    return kDone;
}

int SparseExpander::expand_chunk(const chunk_header_t& chunk) {
    switch (chunk.chunk_type) {
    case kRawChunk:
        return expand_raw(chunk);
    case kFillChunk:
        return expand_fill(chunk);
    case kDontCareChunk:
        std::memset(m_page.data(), m_fill_byte, m_page.size());
        expand_pattern(chunk.chunk_sz * m_block_size);
        return kDone;
    case kCrcChunk:
        m_position += kChunkValueSize;  // not verified
        return kDone;
    default:
        // The data of an unknown chunk is not skipped: it is read as the next chunk header. Kept, because
        // images were released that expand this way.
        return kDone;
    }
}

int SparseExpander::expand_raw(const chunk_header_t& chunk) {
    uint64_t left = chunk.total_sz > sizeof(chunk) ? chunk.total_sz - sizeof(chunk) : 0;
    while (left != 0) {
        uint64_t run = std::min(left, m_page.size());
        uint8_t* bytes = m_page.data();
        read_raw_in_place(left, run, bytes);
        if (bytes == m_page.data() && !m_source(m_position, static_cast<uint32_t>(run), bytes)) {
            print_line("failed to get raw chunk data");
            return kRawDataUnreadable;
        }
        for (uint64_t done = 0; done < run; done += std::min(run - done, m_page.size()))
            append(bytes + done, std::min(run - done, m_page.size()));
        m_position += run;
        left -= run;
    }
    return kDone;
}

/// Reads many pages of raw data at once to where the temporary file gathers its bytes and sets run and bytes
/// to them; leaves both as they are where that is not worth it or not possible.
void SparseExpander::read_raw_in_place(uint64_t left, uint64_t& run, uint8_t*& bytes) {
    const std::span<uint8_t> room = m_target.buffer().room();
    const uint64_t size = std::min<uint64_t>(left, room.size()) / m_page.size() * m_page.size();
    if (size < BlockReader::kBlockSize || !takes(size) ||
        !m_source(m_position, static_cast<uint32_t>(size), room.data()))
        return;
    run = size;
    bytes = room.data();
}

int SparseExpander::expand_fill(const chunk_header_t& chunk) {
    uint8_t value[kChunkValueSize];
    if (!m_source(m_position, sizeof(value), value)) {
        print_line("failed to get fill chunk data");
        return kFillValueUnreadable;
    }
    m_position += sizeof(value);
    for (uint64_t i = 0; i + sizeof(value) <= m_page.size(); i += sizeof(value))
        std::memcpy(m_page.data() + i, value, sizeof(value));
    expand_pattern(chunk.chunk_sz * m_block_size);
    return kDone;
}

/// Appends length bytes of the pattern that fills the page. A last piece that is no multiple of four ends in
/// fill bytes: only whole fill values are stored.
void SparseExpander::expand_pattern(uint64_t length) {
    const uint64_t page_size = m_page.size();
    while (length >= page_size && takes(page_size)) {
        uint64_t pieces = 1;
        if (m_target.buffer().has_failed()) {
            // Nothing more reaches the file: on from one progress line to the next.
            const uint64_t steps = m_progress.steps_until_change(m_written, m_expanded_size);
            pieces = std::clamp<uint64_t>((steps + page_size - 1) / page_size, 1,
                                          std::min(length, m_limit - m_written) / page_size);
            m_written += (pieces - 1) * page_size;
        }
        append(m_page.data(), page_size);
        length -= pieces * page_size;
    }
    if (length == 0 || length >= page_size)
        return;  // done, or beyond the limit
    std::memset(m_page.data() + length / kChunkValueSize * kChunkValueSize, m_fill_byte,
                length % kChunkValueSize);
    append(m_page.data(), length);
}

/// Whether that many more bytes are still expanded: up to the limit, and in a run that is lost no further
/// behind the announced size than any small partition lets it go.
bool SparseExpander::takes(uint64_t piece) const {
    const uint64_t end = saturating_sum(m_written, piece);
    return end <= m_limit &&
           !(m_target.buffer().has_failed() && end > saturating_sum(m_expanded_size, kLargestExcess));
}

/// Appends the next piece, unless they go beyond the limit.
void SparseExpander::append(const uint8_t* bytes, uint64_t piece) {
    if (!takes(piece))
        return;
    m_target.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(piece));
    m_written += piece;
    m_progress.show(m_written, m_expanded_size);
}

}  // namespace

bool CStorage::is_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    sparse_header_t header;
    if (!read_item_data(*m_update_image_ptr, entry, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header))) {
        print_line("failed to get sparse info");
        return false;
    }
    return header.magic == kSparseMagic;
}

uint64_t CStorage::get_sparse_size(STRUCT_QZIMAGE_ITEM& entry) {
    sparse_header_t header;
    if (!read_item_data(*m_update_image_ptr, entry, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header))) {
        print_line("failed to get sparse info");
        return std::numeric_limits<uint64_t>::max();
    }
    return uint32_t{header.blk_sz * header.total_blks};  // a 32-bit product, as its callers know it
}

int CStorage::write_sparse_image(STRUCT_QZIMAGE_ITEM& entry) {
    const std::string name = item_name(entry);
    print_line("writing " + name + "...");
    sparse_header_t header;
    if (!read_item_data(*m_update_image_ptr, entry, 0, sizeof(header), reinterpret_cast<uint8_t*>(&header))) {
        print_line("failed to get sparse header");
        return kSparseHeaderUnreadable;
    }
    uint32_t pages = 0;
    if (!count_partition_pages(entry, page_count(expanded_size(header), m_page_size), pages)) {
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
    const auto source = [&](uint64_t position, uint32_t size, uint8_t* out) {
        return read_item_data(*m_update_image_ptr, entry, position, size, out);
    };
    SparseExpander expander(header, source, expanded, page, m_fill_byte, uint64_t{pages} * m_page_size,
                            progress);
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
