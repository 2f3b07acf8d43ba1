#include "block_reader.h"

#include "file_offset.h"
#include "retry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

// Blocks start at page boundaries of the file: the kernel copies such bytes faster.
constexpr uint64_t kAlignment = 4096;

}  // namespace

void BlockReader::attach(int descriptor) {
    m_descriptor = descriptor;
    m_block_offset = 0;
    m_block_size = 0;
}

std::optional<uint64_t> BlockReader::read(uint64_t offset, uint64_t size, uint8_t* out) {
    if (size >= kBlockSize)
        return read_directly(offset, size, out);
    uint64_t got = 0;
    while (got < size) {
        const uint64_t position = offset + got;
        if (position < m_block_offset || position >= m_block_offset + m_block_size) {
            if (!load_block(position))
                return std::nullopt;
            if (position >= m_block_offset + m_block_size)
                return got;
        }
        const uint64_t piece = std::min(size - got, m_block_offset + m_block_size - position);
        std::memcpy(out + got, m_block.data() + (position - m_block_offset), piece);
        got += piece;
    }
    return got;
}

bool BlockReader::load_block(uint64_t position) {
    m_block_size = 0;
    if (m_block.size() < kBlockSize && !m_block.reset(kBlockSize)) {
        errno = ENOMEM;
        return false;
    }
    m_block_offset = position - position % kAlignment;
    const std::optional<uint64_t> got = read_directly(m_block_offset, kBlockSize, m_block.data());
    m_block_size = got.value_or(0);
    return got.has_value();
}

std::optional<uint64_t> BlockReader::read_directly(uint64_t offset, uint64_t size, uint8_t* out) const {
    uint64_t got = 0;
    if (offset > kLargestOffset || size > kLargestOffset - offset)
        return got;  // the kernel refuses such a request; no file is that long
    while (got < size) {
        const ssize_t count = retry_interrupted(
            [&] { return ::pread(m_descriptor, out + got, size - got, static_cast<off_t>(offset + got)); });
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return got;
        got += static_cast<uint64_t>(count);
    }
    return got;
}
