#pragma once

// Android sparse images described chunk by chunk, with every header field open to bending, and a model of the
// flat image that the program has to make of such bytes.

#include "bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace test_support {

inline constexpr uint32_t kSparseMagic = 0xED26FF3AU;

namespace sparse_field {
inline constexpr std::size_t kMagic = 0, kMajorVersion = 4, kMinorVersion = 6, kFileHeaderSize = 8;
inline constexpr std::size_t kChunkHeaderSize = 10, kBlockSize = 12, kTotalBlocks = 16, kTotalChunks = 20;
inline constexpr std::size_t kImageChecksum = 24, kHeaderBytes = 28;
inline constexpr std::size_t kChunkType = 0, kChunkBlocks = 4, kChunkTotalSize = 8, kChunkHeaderBytes = 12;
}  // namespace sparse_field

struct SparseChunk {
    static constexpr uint16_t kRawType = 0xCAC1;
    static constexpr uint16_t kFillType = 0xCAC2;
    static constexpr uint16_t kDontCareType = 0xCAC3;
    static constexpr uint16_t kCrcType = 0xCAC4;

    uint16_t type = kRawType;
    uint16_t reserved = 0;
    uint32_t blocks = 0;
    Bytes data{};                          // what follows the chunk header
    std::optional<uint32_t> total_size{};  // else header plus data

    // A raw chunk; its block count is the data's length in blocks of `block_size`, rounded up.
    static SparseChunk raw(Bytes data, uint32_t block_size = 4096);
    static SparseChunk fill(uint32_t value, uint32_t blocks);
    static SparseChunk dont_care(uint32_t blocks);
    static SparseChunk crc(uint32_t value);
    static SparseChunk unknown(uint16_t type, Bytes data, uint32_t blocks = 0);
};

struct SparseImage {
    uint32_t magic = kSparseMagic;
    uint16_t major_version = 1;
    uint16_t minor_version = 0;
    uint16_t file_header_size = sparse_field::kHeaderBytes;
    uint16_t chunk_header_size = sparse_field::kChunkHeaderBytes;
    uint32_t block_size = 4096;
    std::optional<uint32_t> total_blocks{};  // else the sum over the chunks
    std::optional<uint32_t> total_chunks{};  // else the number of chunks
    uint32_t image_checksum = 0;
    std::vector<SparseChunk> chunks{};

    Bytes build() const;
    // Offset of each chunk's header in what build() gives.
    std::vector<std::size_t> chunk_offsets() const;
};

// What the expansion of a sparse image comes to.
struct SparseExpansion {
    int status = 0;              // 0, or the result the writer gives: -1, -4, -5 or -6
    uint64_t declared_size = 0;  // block size times total blocks
    Bytes image{};  // everything the chunks write, without padding; up to the failure if there was one
    std::vector<uint64_t> pieces{};  // the lengths in which the chunks write it, at most a page each
};

// Block size times total blocks, as the header says.
inline uint64_t declared_size(const Bytes& image) {
    return uint64_t{get32(image, sparse_field::kBlockSize)} * get32(image, sparse_field::kTotalBlocks);
}

// Expands the image that starts at byte 0. Bytes after the image belong to `bytes` too when a test wants to
// see what a chunk that reaches past its end reads.
SparseExpansion expand_sparse(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte = 0);

// The temporary file's contents: the expansion padded to whole pages. std::runtime_error when it fails.
Bytes expand(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte = 0);

// The data pages that reach the page writer for one partition: as many as `part_sectors` asks for, or,
// without it (NAND, or a partition that grows), as many as the declared size needs. std::runtime_error on a
// failure.
Bytes expected_sparse_partition(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte = 0,
                                std::optional<uint32_t> part_sectors = std::nullopt);

}  // namespace test_support
