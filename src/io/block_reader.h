#pragma once

#include "byte_buffer.h"

#include <cstdint>

/// Reads pieces of an open file at given offsets through one large buffer, so that pages cost no system call
/// each and a piece that starts where the last one ended is free of any seek.
class BlockReader {
public:
    /// Reads from the file descriptor from now on; the caller keeps it open and closes it. Forgets all
    /// buffered bytes.
    void attach(int descriptor);

    /// Copies up to size bytes at the byte offset to out and sets got to their count. Fewer than size means
    /// that the file ends there. False when the file could not be read (errno tells why); nothing in out is
    /// then meant.
    bool read(uint64_t offset, uint64_t size, uint8_t* out, uint64_t& got);

    /// Shows size bytes (up to kLargestView) at the byte offset where they lie in the reader's block, which
    /// stays as it is until the next call, and sets held to all bytes that lie there from the offset on; they
    /// are not to be changed. Null, with held 0, when the file ends before or cannot be read.
    uint8_t* view(uint64_t offset, uint64_t size, uint64_t& held);

    static constexpr uint64_t kLargestView = 128 * 1024;

private:
    bool load_block(uint64_t position);
    bool read_directly(uint64_t offset, uint64_t size, uint8_t* out, uint64_t& got) const;

    int m_descriptor = -1;
    ByteBuffer m_block;
    uint64_t m_block_offset = 0;
    uint64_t m_block_size = 0;  // bytes of m_block that came from the file
};
