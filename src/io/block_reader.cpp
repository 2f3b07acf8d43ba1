#include "block_reader.h"

#include "file_offset.h"
#include "retry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

void BlockReader::attach(int descriptor) {
    m_descriptor = descriptor;
    m_block_offset = 0;
    m_block_size = 0;
}

std::optional<uint64_t> BlockReader::read(uint64_t offset, uint64_t size, uint8_t* out) {
    if (size >= kBlockSize)
        return read_directly(offset, size, out);
    uint64_t copied = 0;
    while (copied < size) {
        const uint64_t position = offset + copied;
        if (position < m_block_offset || position >= m_block_offset + m_block_size) {
            if (!load_block(position))
                return std::nullopt;
            if (position >= m_block_offset + m_block_size)
                return copied;
        }
        const uint64_t count = std::min(size - copied, m_block_offset + m_block_size - position);
        std::memcpy(out + copied, m_block.data() + (position - m_block_offset),
                    static_cast<std::size_t>(count));
        copied += count;
    }
    return copied;
}

bool BlockReader::load_block(uint64_t position) {
    m_block_size = 0;
    if (m_block.size() < kBlockSize && !m_block.reset(kBlockSize)) {
        errno = ENOMEM;
        return false;
    }
    m_block_offset = position - position % ByteBuffer::kAlignment;
    const std::optional<uint64_t> count = read_directly(m_block_offset, kBlockSize, m_block.data());
    m_block_size = count.value_or(0);
    return count.has_value();
}

std::optional<uint64_t> BlockReader::read_directly(uint64_t offset, uint64_t size, uint8_t* out) const {
    if (offset > kLargestOffset || size > kLargestOffset - offset)
        return 0;  // the kernel refuses such a request; no file is that long
    uint64_t total = 0;
    while (total < size) {
        const ssize_t count = retry_interrupted([&] {
            return ::pread(m_descriptor, out + total, static_cast<std::size_t>(size - total),
                           static_cast<off_t>(offset + total));
        });
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        total += static_cast<uint64_t>(count);
    }
    return total;
}
