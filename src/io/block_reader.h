#pragma once

#include "byte_buffer.h"

#include <cstdint>
#include <optional>

/// Reads pieces of an open file at given offsets through one large block, so that small pieces cost no system
/// call each. Pieces of at least kBlockSize are read straight to where they are wanted.
class BlockReader {
public:
    /// Large enough that a system call is a small part of its cost, small enough that the bytes are still in
    /// the second-level cache when they are taken out.
    static constexpr uint64_t kBlockSize = 256 * 1024;

    /// Reads from the file descriptor from now on; the caller keeps it open and closes it. Forgets all
    /// buffered bytes.
    void attach(int descriptor);

    /// Copies up to size bytes at the byte offset to out and returns their count. Fewer than size means that
    /// the file ends there. Nothing when the file could not be read (errno tells why); out is then
    /// unspecified.
    std::optional<uint64_t> read(uint64_t offset, uint64_t size, uint8_t* out);

private:
    bool load_block(uint64_t position);
    std::optional<uint64_t> read_directly(uint64_t offset, uint64_t size, uint8_t* out) const;

    int m_descriptor = -1;
    ByteBuffer m_block;
    uint64_t m_block_offset = 0;
    uint64_t m_block_size = 0;  // bytes of m_block that came from the file
};
