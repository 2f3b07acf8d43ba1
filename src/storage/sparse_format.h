#pragma once

#include <cstdint>

/// The Android sparse format. The sizes of header and chunk headers are fixed.

constexpr uint32_t kSparseMagic = 0xED26FF3A;
constexpr uint16_t kRawChunk = 0xCAC1;
constexpr uint16_t kFillChunk = 0xCAC2;
constexpr uint16_t kDontCareChunk = 0xCAC3;
constexpr uint16_t kCrcChunk = 0xCAC4;
constexpr uint32_t kChunkValueSize = 4;  ///< bytes of a fill value or a CRC-32

#pragma pack(push, 1)

struct sparse_header_t {
    uint32_t magic;  ///< kSparseMagic
    uint16_t major_version;
    uint16_t minor_version;
    uint16_t file_hdr_sz;   ///< ignored
    uint16_t chunk_hdr_sz;  ///< ignored
    uint32_t blk_sz;        ///< in bytes
    uint32_t total_blks;    ///< of the expanded image
    uint32_t total_chunks;
    uint32_t image_checksum;
};
static_assert(sizeof(sparse_header_t) == 28);

struct chunk_header_t {
    uint16_t chunk_type;  ///< kRawChunk and so on
    uint16_t reserved1;
    uint32_t chunk_sz;  ///< length in blocks, for a fill or a don't care chunk
    uint32_t total_sz;  ///< bytes of header and data, for a raw chunk
};
static_assert(sizeof(chunk_header_t) == 12);

#pragma pack(pop)

/// Bytes of the expanded image.
constexpr uint64_t expanded_size(const sparse_header_t& header) {
    return uint64_t{header.blk_sz} * header.total_blks;
}
