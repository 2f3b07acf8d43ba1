#include "sparse_builder.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace test_support {

namespace {

bool lies_inside(const Bytes& bytes, uint64_t offset, uint64_t size) {
    return offset <= bytes.size() && size <= bytes.size() - offset;
}

// One pass over a sparse image's chunks, at most a page at a time: the page size matters for a raw chunk that
// ends too early (whole pieces before it are kept) and for a fill whose length is no multiple of four.
class Expander {
public:
    Expander(const Bytes& source, std::size_t page_size, uint8_t fill_byte)
        : source_(source), page_size_(page_size), fill_byte_(fill_byte) {}

    SparseExpansion run() {
        if (!lies_inside(source_, 0, sparse_field::header_bytes)) {
            result_.status = -1;
            return std::move(result_);
        }
        block_size_ = get32(source_, sparse_field::block_size);
        result_.declared_size = block_size_ * get32(source_, sparse_field::total_blocks);
        const uint32_t chunks = get32(source_, sparse_field::total_chunks);
        for (uint32_t i = 0; i < chunks && result_.status == 0; ++i)
            if (!lies_inside(source_, position_, sparse_field::chunk_header_bytes))
                result_.status = -4;
            else
                expand_chunk();
        return std::move(result_);
    }

private:
    void expand_chunk() {
        const auto header = static_cast<std::size_t>(position_);
        const uint64_t length = block_size_ * get32(source_, header + sparse_field::chunk_blocks);
        position_ += sparse_field::chunk_header_bytes;
        switch (get16(source_, header + sparse_field::chunk_type)) {
        case SparseChunk::raw_type:
            copy_raw(get32(source_, header + sparse_field::chunk_total_size));
            break;
        case SparseChunk::fill_type:
            repeat_value(length);
            break;
        case SparseChunk::dont_care_type:
            result_.image.resize(static_cast<std::size_t>(result_.image.size() + length), fill_byte_);
            for (uint64_t left = length; left > 0; left -= result_.pieces.back())
                result_.pieces.push_back(std::min<uint64_t>(left, page_size_));
            break;
        case SparseChunk::crc_type:
            position_ += sizeof(uint32_t);
            break;
        default:
            break;  // only the header is skipped: what follows is taken for the next header
        }
    }

    void copy_raw(uint32_t total_size) {
        uint64_t left = total_size > sparse_field::chunk_header_bytes
                            ? total_size - uint64_t{sparse_field::chunk_header_bytes}
                            : 0;
        while (left > 0) {
            const uint64_t piece = std::min<uint64_t>(left, page_size_);
            if (!lies_inside(source_, position_, piece)) {
                result_.status = -5;
                return;
            }
            const auto from = source_.begin() + static_cast<std::ptrdiff_t>(position_);
            result_.image.insert(result_.image.end(), from, from + static_cast<std::ptrdiff_t>(piece));
            result_.pieces.push_back(piece);
            position_ += piece;
            left -= piece;
        }
    }

    void repeat_value(uint64_t length) {
        if (!lies_inside(source_, position_, sizeof(uint32_t))) {
            result_.status = -6;
            return;
        }
        const Bytes value = slice(source_, static_cast<std::size_t>(position_), sizeof(uint32_t));
        position_ += sizeof(uint32_t);
        for (uint64_t left = length; left > 0;) {
            const uint64_t piece = std::min<uint64_t>(left, page_size_);
            const uint64_t whole_values = piece / value.size() * value.size();
            for (uint64_t i = 0; i < piece; ++i)
                result_.image.push_back(i < whole_values ? value[i % value.size()] : fill_byte_);
            result_.pieces.push_back(piece);
            left -= piece;
        }
    }

    const Bytes& source_;
    const std::size_t page_size_;
    const uint8_t fill_byte_;
    uint64_t block_size_ = 0;
    uint64_t position_ = sparse_field::header_bytes;
    SparseExpansion result_{};
};

SparseExpansion expanded_or_throw(const Bytes& bytes, std::size_t page_size, uint8_t fill_byte) {
    SparseExpansion expansion = expand_sparse(bytes, page_size, fill_byte);
    if (expansion.status != 0)
        throw std::runtime_error("sparse image does not expand, status " + std::to_string(expansion.status));
    return expansion;
}

}  // namespace

SparseChunk SparseChunk::raw(Bytes data, uint32_t block_size) {
    SparseChunk chunk;
    chunk.blocks = static_cast<uint32_t>(round_up(data.size(), block_size) / block_size);
    chunk.data = std::move(data);
    return chunk;
}

SparseChunk SparseChunk::fill(uint32_t value, uint32_t blocks) {
    SparseChunk chunk;
    chunk.type = fill_type;
    chunk.blocks = blocks;
    put32(chunk.data, value);
    return chunk;
}

SparseChunk SparseChunk::dont_care(uint32_t blocks) {
    SparseChunk chunk;
    chunk.type = dont_care_type;
    chunk.blocks = blocks;
    return chunk;
}

SparseChunk SparseChunk::crc(uint32_t value) {
    SparseChunk chunk;
    chunk.type = crc_type;
    put32(chunk.data, value);
    return chunk;
}

SparseChunk SparseChunk::unknown(uint16_t type, Bytes data, uint32_t blocks) {
    SparseChunk chunk;
    chunk.type = type;
    chunk.blocks = blocks;
    chunk.data = std::move(data);
    return chunk;
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
        const std::size_t real_size = sparse_field::chunk_header_bytes + chunk.data.size();
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
    std::size_t cursor = sparse_field::header_bytes;
    for (const SparseChunk& chunk : chunks) {
        offsets.push_back(cursor);
        cursor += sparse_field::chunk_header_bytes + chunk.data.size();
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
    const uint64_t wanted = part_sectors ? uint64_t{*part_sectors} * sector_size : expansion.declared_size;
    if (round_up(wanted, page_size) < expansion.declared_size)
        throw std::runtime_error("partition is too small for the sparse image");
    expansion.image.resize(static_cast<std::size_t>(round_up(wanted, page_size)), fill_byte);
    return std::move(expansion.image);
}

}  // namespace test_support
