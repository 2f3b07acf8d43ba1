#include "sparse_expander.h"

#include "results.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr uint64_t kLargestExcess = 64 * 1024 * 1024;

uint64_t saturating_sum(uint64_t a, uint64_t b) {
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

}  // namespace

SparseExpander::SparseExpander(const sparse_header_t& header, ReadImage read, uint64_t output_size,
                               std::span<uint8_t> page, uint8_t fill_byte, OutputFile& target,
                               Progress& progress)
    : m_read(std::move(read)), m_target(target), m_progress(progress), m_page(page), m_fill_byte(fill_byte),
      m_chunks(header.total_chunks), m_block_size(header.blk_sz), m_expanded_size(expanded_size(header)),
      m_output_size(output_size) {}

int SparseExpander::expand() {
    for (uint32_t i = 0; i < m_chunks; ++i) {
        chunk_header_t chunk;
        if (!m_read(m_position, sizeof(chunk), reinterpret_cast<uint8_t*>(&chunk))) {
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
        m_position += kChunkValueSize;  // the checksum is not verified
        return kDone;
    default:
        return kDone;  // kept: its data is not skipped, so it is read as the next chunk header
    }
}

int SparseExpander::expand_raw(const chunk_header_t& chunk) {
    uint64_t missing = chunk.total_sz > sizeof(chunk) ? chunk.total_sz - sizeof(chunk) : 0;
    while (missing != 0) {
        const std::span<uint8_t> bytes = read_raw(missing);
        if (bytes.empty()) {
            print_line("failed to get raw chunk data");
            return kRawDataUnreadable;
        }
        append(bytes);
        m_position += bytes.size();
        missing -= bytes.size();
    }
    return kDone;
}

/// Reads raw data, at most count bytes (not 0): several pages at once to where the file gathers its bytes, or
/// one page. Empty when the page cannot be read.
std::span<uint8_t> SparseExpander::read_raw(uint64_t count) {
    const std::span<uint8_t> room = m_target.buffer().room();
    const uint64_t whole_pages = std::min<uint64_t>(count, room.size()) / m_page.size() * m_page.size();
    if (!m_by_pages && whole_pages != 0) {
        if (m_read(m_position, static_cast<uint32_t>(whole_pages), room.data()))
            return room.first(static_cast<std::size_t>(whole_pages));
        m_by_pages = true;  // the pages before the one that cannot be read are still appended
    }
    const uint64_t size = std::min<uint64_t>(count, m_page.size());
    if (!m_read(m_position, static_cast<uint32_t>(size), m_page.data()))
        return {};
    return m_page.first(static_cast<std::size_t>(size));
}

int SparseExpander::expand_fill(const chunk_header_t& chunk) {
    uint8_t value[kChunkValueSize];
    if (!m_read(m_position, sizeof(value), value)) {
        print_line("failed to get fill chunk data");
        return kFillValueUnreadable;
    }
    m_position += sizeof(value);
    for (uint64_t i = 0; i + sizeof(value) <= m_page.size(); i += sizeof(value))
        std::memcpy(m_page.data() + i, value, sizeof(value));
    expand_pattern(chunk.chunk_sz * m_block_size);
    return kDone;
}

/// Appends length bytes of the pattern that fills the page. Kept: only whole fill values are written, and
/// fill bytes for the last 1 to 3 bytes.
void SparseExpander::expand_pattern(uint64_t length) {
    const uint64_t page_size = m_page.size();
    for (; length >= page_size && !m_target.buffer().has_failed() && m_written < limit(); length -= page_size)
        append(m_page);
    if (m_target.buffer().has_failed() || m_written >= limit()) {
        advance(length);
        return;
    }
    std::memset(m_page.data() + length / kChunkValueSize * kChunkValueSize, m_fill_byte,
                length % kChunkValueSize);
    append(m_page.first(static_cast<std::size_t>(length)));
}

/// Bytes that are written at most. After a failure of the file the size of the output does not count.
uint64_t SparseExpander::limit() const {
    const uint64_t output_size = m_target.buffer().has_failed() ? 0 : m_output_size;
    return saturating_sum(std::max(m_expanded_size, output_size), kLargestExcess);
}

/// Appends the bytes, up to the limit.
void SparseExpander::append(std::span<const uint8_t> bytes) {
    const uint64_t room = limit() - std::min(m_written, limit());
    const uint64_t size = std::min<uint64_t>(bytes.size(), room);
    m_target.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(size));
    advance(size);
}

/// Counts length bytes, up to the limit, as written and shows progress for each page.
void SparseExpander::advance(uint64_t length) {
    const uint64_t end = std::max(m_written, std::min(saturating_sum(m_written, length), limit()));
    m_progress.show_steps(m_written, end, m_page.size(), m_expanded_size);
    m_written = end;
}
