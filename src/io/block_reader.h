#pragma once

#include "byte_buffer.h"

#include <cstdint>
#include <optional>

/// Reads an open file at given offsets through one large block, so that a small read costs no system call of
/// its own. A read of at least kBlockSize bytes does not use the block.
class BlockReader {
public:
    /// In bytes. Large enough that the system call is a small part of the cost of a block, small enough that
    /// its bytes are still in the second-level cache when they are copied.
    static constexpr uint64_t kBlockSize = 128 * 1024;

    /// Reads from this file descriptor from now on, with an empty block. The caller keeps it open.
    void attach(int descriptor);

    /// Copies up to size bytes at the byte offset to out and returns their number, which is less than size
    /// only where the file ends. Nothing, with errno set and out unspecified, when the file cannot be read.
    std::optional<uint64_t> read(uint64_t offset, uint64_t size, uint8_t* out);

private:
    bool load_block(uint64_t position);
    std::optional<uint64_t> read_directly(uint64_t offset, uint64_t size, uint8_t* out) const;

    int m_descriptor = -1;
    ByteBuffer m_block;
    uint64_t m_block_offset = 0;
    uint64_t m_block_size = 0;  // bytes in m_block that are those of the file
};
