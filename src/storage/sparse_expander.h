#pragma once

#include "../io/output_file.h"
#include "console.h"
#include "sparse_format.h"

#include <cstdint>
#include <functional>
#include <span>

/// Walks the chunks of a sparse image and appends what they stand for to a file, in pieces of a page.
class SparseExpander {
public:
    /// Reads size bytes of the sparse image from position on. False when they cannot be read.
    using Read = std::function<bool(uint64_t position, uint32_t size, uint8_t* out)>;

    /// output_size: bytes that the expanded image may take where it is going to be. Chunks may expand to more
    /// than that and than the header announces. The excess is dropped in the end, so it is appended up to 64
    /// MiB only: a chunk of 2^32 blocks in a small partition must not fill the disk.
    /// page is memory to work in.
    SparseExpander(const sparse_header_t& header, Read read, uint64_t output_size, std::span<uint8_t> page,
                   uint8_t fill_byte, OutputFile& target, Progress& progress);

    /// 0, or kChunkHeaderUnreadable, kRawDataUnreadable or kFillValueUnreadable after a line.
    int expand();

    /// Bytes that the chunks expanded to, up to the limit.
    uint64_t written() const { return m_written; }

private:
    int expand_chunk(const chunk_header_t& chunk);
    int expand_raw(const chunk_header_t& chunk);
    int expand_fill(const chunk_header_t& chunk);
    void expand_pattern(uint64_t length);
    std::span<uint8_t> read_raw(uint64_t left);
    uint64_t limit() const;
    void append(std::span<const uint8_t> bytes);
    void advance(uint64_t length);

    Read m_read;
    OutputFile& m_target;
    Progress& m_progress;
    const std::span<uint8_t> m_page;
    const uint8_t m_fill_byte;
    const uint32_t m_chunks;
    const uint64_t m_block_size;
    const uint64_t m_expanded_size;  // as the header announces it
    const uint64_t m_output_size;
    bool m_by_pages = false;                        // since a large piece could not be read
    uint64_t m_position = sizeof(sparse_header_t);  // of the next chunk header or its data
    uint64_t m_written = 0;
};
