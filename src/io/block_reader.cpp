#include "block_reader.h"

#include "retry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <unistd.h>

namespace {

// Large enough that a system call is a small part of its cost, small enough that the bytes are still in the
// second-level cache when the pages are taken out.
constexpr uint64_t kBlockSize = 256 * 1024;

// Blocks start at page boundaries of the file: the kernel copies such bytes faster.
constexpr uint64_t kAlignment = 4096;

constexpr auto kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
static_assert(sizeof(off_t) == 8, "firmware files are larger than 4 GiB");

}  // namespace

void BlockReader::attach(int descriptor) {
    m_descriptor = descriptor;
    m_block_offset = 0;
    m_block_size = 0;
}

bool BlockReader::read(uint64_t offset, uint64_t size, uint8_t* out, uint64_t& got) {
    got = 0;
    if (size >= kBlockSize)
        return read_directly(offset, size, out, got);
    while (got < size) {
        const uint64_t position = offset + got;
        if (position < m_block_offset || position >= m_block_offset + m_block_size) {
            if (!load_block(position))
                return false;
            if (position >= m_block_offset + m_block_size)
                return true;
        }
        const uint64_t piece = std::min(size - got, m_block_offset + m_block_size - position);
        std::memcpy(out + got, m_block.data() + (position - m_block_offset), piece);
        got += piece;
    }
    return true;
}

uint8_t* BlockReader::view(uint64_t offset, uint64_t size, uint64_t& held) {
    held = 0;
    const auto holds_all = [&] {
        return offset >= m_block_offset && size <= m_block_size &&
               offset - m_block_offset <= m_block_size - size;
    };
    if (!holds_all() && (size > kLargestView || !load_block(offset) || !holds_all()))
        return nullptr;
    held = m_block_size - (offset - m_block_offset);
    return m_block.data() + (offset - m_block_offset);
}

bool BlockReader::load_block(uint64_t position) {
    m_block_size = 0;
    if (!m_block.has(kBlockSize) && !m_block.reset(kBlockSize)) {
        errno = ENOMEM;
        return false;
    }
    m_block_offset = position - position % kAlignment;
    if (read_directly(m_block_offset, kBlockSize, m_block.data(), m_block_size))
        return true;
    m_block_size = 0;
    return false;
}

bool BlockReader::read_directly(uint64_t offset, uint64_t size, uint8_t* out, uint64_t& got) const {
    got = 0;
    if (offset > kLargestOffset || size > kLargestOffset - offset)
        return true;  // the kernel refuses such a request; no file is that long
    while (got < size) {
        const ssize_t count = retry_interrupted(
            [&] { return ::pread(m_descriptor, out + got, size - got, static_cast<off_t>(offset + got)); });
        if (count < 0)
            return false;
        if (count == 0)
            return true;
        got += static_cast<uint64_t>(count);
    }
    return true;
}
