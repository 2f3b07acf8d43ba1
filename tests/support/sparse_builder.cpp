#include "sparse_builder.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace test_support {

namespace {

Bytes word(uint32_t value) {
    Bytes bytes;
    put32(bytes, value);
    return bytes;
}

bool lies_inside(const Bytes& bytes, uint64_t offset, uint64_t size) {
    return offset <= bytes.size() && size <= bytes.size() - offset;
}

// One pass over a sparse image's chunks, at most a page at a time: the page size matters for a raw chunk that
// ends too early (whole pieces before it are kept) and for a fill whose length is no multiple of four.
class Expander {
public:
    Expander(const Bytes& source, std::size_t page_size, uint8_t fill_byte)
        : m_source(source), m_page_size(page_size), m_fill_byte(fill_byte) {}

    SparseExpansion run() {
        if (!lies_inside(m_source, 0, sparse_field::kHeaderBytes)) {
            m_result.status = -1;
            return std::move(m_result);
        }
        m_block_size = get32(m_source, sparse_field::kBlockSize);
        m_result.declared_size = m_block_size * get32(m_source, sparse_field::kTotalBlocks);
        const uint32_t chunks = get32(m_source, sparse_field::kTotalChunks);
        for (uint32_t i = 0; i < chunks && m_result.status == 0; ++i)
            if (!lies_inside(m_source, m_position, sparse_field::kChunkHeaderBytes))
                m_result.status = -4;
            else
                expand_chunk();
        return std::move(m_result);
    }

private:
    void expand_chunk() {
        const auto header = static_cast<std::size_t>(m_position);
        const uint64_t length = m_block_size * get32(m_source, header + sparse_field::kChunkBlocks);
        m_position += sparse_field::kChunkHeaderBytes;
        switch (get16(m_source, header + sparse_field::kChunkType)) {
        case SparseChunk::kRawType:
            copy_raw(get32(m_source, header + sparse_field::kChunkTotalSize));
            break;
        case SparseChunk::kFillType:
            repeat_value(length);
            break;
        case SparseChunk::kDontCareType:
            m_result.image.resize(static_cast<std::size_t>(m_result.image.size() + length), m_fill_byte);
            for (uint64_t left = length; left > 0; left -= m_result.pieces.back())
                m_result.pieces.push_back(std::min<uint64_t>(left, m_page_size));
            break;
        case SparseChunk::kCrcType:
            m_position += sizeof(uint32_t);
            break;
        default:
            break;  // only the header is skipped: what follows is taken for the next header
        }
    }

    void copy_raw(uint32_t total_size) {
        const uint64_t end = m_position + std::max<uint64_t>(total_size, sparse_field::kChunkHeaderBytes) -
                             sparse_field::kChunkHeaderBytes;
        while (m_position < end) {
            const uint64_t piece = std::min<uint64_t>(end - m_position, m_page_size);
            if (!lies_inside(m_source, m_position, piece)) {
                m_result.status = -5;
                return;
            }
            put_bytes(m_result.image, slice(m_source, m_position, piece));
            m_result.pieces.push_back(piece);
            m_position += piece;
        }
    }

    void repeat_value(uint64_t length) {
        if (!lies_inside(m_source, m_position, sizeof(uint32_t))) {
            m_result.status = -6;
            return;
        }
        const Bytes value = slice(m_source, m_position, sizeof(uint32_t));
        m_position += sizeof(uint32_t);
        for (uint64_t left = length; left > 0;) {
            const uint64_t piece = std::min<uint64_t>(left, m_page_size);
            const uint64_t whole_values = piece / value.size() * value.size();
            for (uint64_t i = 0; i < piece; ++i)
                m_result.image.push_back(i < whole_values ? value[i % value.size()] : m_fill_byte);
            m_result.pieces.push_back(piece);
            left -= piece;
        }
    }

    const Bytes& m_source;
    const std::size_t m_page_size;
    const uint8_t m_fill_byte;
    uint64_t m_block_size = 0;
    uint64_t m_position = sparse_field::kHeaderBytes;
    SparseExpansion m_result{};
};

SparseExpansion expanded_or_throw(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte) {
    SparseExpansion expansion = expand_sparse(bytes, page_size, fill_byte);
    if (expansion.status != 0)
        throw std::runtime_error("sparse image does not expand, status " + std::to_string(expansion.status));
    return expansion;
}

}  // namespace

SparseChunk SparseChunk::raw(Bytes data, uint32_t block_size) {
    const auto blocks = static_cast<uint32_t>(round_up(data.size(), block_size) / block_size);
    return {.blocks = blocks, .data = std::move(data)};
}

SparseChunk SparseChunk::fill(uint32_t value, uint32_t blocks) {
    return {.type = kFillType, .blocks = blocks, .data = word(value)};
}

SparseChunk SparseChunk::dont_care(uint32_t blocks) {
    return {.type = kDontCareType, .blocks = blocks};
}

SparseChunk SparseChunk::crc(uint32_t value) {
    return {.type = kCrcType, .data = word(value)};
}

SparseChunk SparseChunk::unknown(uint16_t type, Bytes data, uint32_t blocks) {
    return {.type = type, .blocks = blocks, .data = std::move(data)};
}

Bytes SparseImage::build() const {
    uint32_t block_sum = 0;
    for (const SparseChunk& chunk : chunks)
        block_sum += chunk.blocks;
    Bytes bytes;
    put32(bytes, magic);
    put16(bytes, major_version);
    put16(bytes, minor_version);
    put16(bytes, file_header_size);
    put16(bytes, chunk_header_size);
    put32(bytes, block_size);
    put32(bytes, total_blocks.value_or(block_sum));
    put32(bytes, total_chunks.value_or(static_cast<uint32_t>(chunks.size())));
    put32(bytes, image_checksum);
    for (const SparseChunk& chunk : chunks) {
        const std::size_t real_size = sparse_field::kChunkHeaderBytes + chunk.data.size();
        put16(bytes, chunk.type);
        put16(bytes, chunk.reserved);
        put32(bytes, chunk.blocks);
        put32(bytes, chunk.total_size.value_or(static_cast<uint32_t>(real_size)));
        put_bytes(bytes, chunk.data);
    }
    return bytes;
}

std::vector<std::size_t> SparseImage::chunk_offsets() const {
    std::vector<std::size_t> offsets;
    std::size_t cursor = sparse_field::kHeaderBytes;
    for (const SparseChunk& chunk : chunks) {
        offsets.push_back(cursor);
        cursor += sparse_field::kChunkHeaderBytes + chunk.data.size();
    }
    return offsets;
}

SparseExpansion expand_sparse(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte) {
    return Expander(bytes, page_size, fill_byte).run();
}

Bytes expand(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte) {
    Bytes image = expanded_or_throw(bytes, page_size, fill_byte).image;
    image.resize(static_cast<std::size_t>(round_up(image.size(), page_size)), fill_byte);
    return image;
}

Bytes expected_sparse_partition(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte,
                                std::optional<uint32_t> part_sectors) {
    SparseExpansion expansion = expanded_or_throw(bytes, page_size, fill_byte);
    const uint64_t wanted = part_sectors ? uint64_t{*part_sectors} * kSectorSize : expansion.declared_size;
    if (round_up(wanted, page_size) < expansion.declared_size)
        throw std::runtime_error("partition is too small for the sparse image");
    expansion.image.resize(static_cast<std::size_t>(round_up(wanted, page_size)), fill_byte);
    return std::move(expansion.image);
}

}  // namespace test_support
