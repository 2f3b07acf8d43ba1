#pragma once

#include "../io/output_file.h"
#include "console.h"
#include "page_source.h"
#include "sparse_format.h"

#include <cstdint>
#include <span>

/// Expands the chunks of a sparse image into a file.
class SparseExpander {
public:
    /// output_size is what has room in the partition, in bytes. Chunks may expand to more than that and than
    /// the header says. This excess is not used, so only 64 MiB of it are written: a chunk of 2^32 blocks
    /// must not fill the disk. page is memory to work in.
    SparseExpander(const sparse_header_t& header, ReadImage read, uint64_t output_size,
                   std::span<uint8_t> page, uint8_t fill_byte, OutputFile& target, Progress& progress);

    /// 0, or kChunkHeaderUnreadable, kRawDataUnreadable or kFillValueUnreadable after a line.
    int expand();

    /// Bytes that the chunks expanded to, with at most 64 MiB of excess.
    uint64_t written() const { return m_written; }

private:
    int expand_chunk(const chunk_header_t& chunk);
    int expand_raw(const chunk_header_t& chunk);
    int expand_fill(const chunk_header_t& chunk);
    void expand_pattern(uint64_t length);
    std::span<uint8_t> read_raw(uint64_t count);
    uint64_t limit() const;
    void append(std::span<const uint8_t> bytes);
    void advance(uint64_t length);

    ReadImage m_read;
    OutputFile& m_target;
    Progress& m_progress;
    const std::span<uint8_t> m_page;
    const uint8_t m_fill_byte;
    const uint32_t m_chunks;
    const uint64_t m_block_size;
    const uint64_t m_expanded_size;  // by the header
    const uint64_t m_output_size;
    bool m_by_pages = false;                        // since several pages could not be read at once
    uint64_t m_position = sizeof(sparse_header_t);  // of the next byte that is read
    uint64_t m_written = 0;
};
