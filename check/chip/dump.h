#pragma once

#include "../base/target.h"

#include <cstdint>
#include <optional>
#include <vector>

/// How the erase blocks of a chip lie in its dump.
struct DumpFormat {
    uint64_t page = 0;        ///< bytes of a page that are looked at, with the spare area for SLC NAND; not 0
    uint64_t page_spare = 0;  ///< bytes after them that belong to the page and are not looked at
    uint64_t block_pages = 0;  ///< of an erase block; not 0
    uint64_t header = 0;       ///< bytes before erase block 0

    uint64_t page_stride() const { return page + page_spare; }
    uint64_t block_stride() const { return block_pages * page_stride(); }
};

/// Bytes from first up to and without end.
struct ByteRange {
    uint64_t first = 0;
    uint64_t end = 0;
};

/// What a read from a dump gave.
struct DumpBytes {
    uint64_t there = 0;                 ///< fewer than were asked for at the end of the dump
    std::vector<ByteRange> unreadable;  ///< of them, counted from the first one; they are 0 in memory
};

/// The dump of a chip, as erase blocks of pages. Blocks count from 0. The target outlives it.
class Dump {
public:
    Dump(Target& target, const DumpFormat& format) : m_target(target), m_format(format) {}

    const DumpFormat& format() const { return m_format; }
    /// Erase blocks, with one at the end that is not whole.
    uint64_t blocks() const;
    /// Bytes after the last whole erase block.
    uint64_t excess() const { return bytes_after_header() % m_format.block_stride(); }

    /// Offset in the target of a byte of the block's pages, which lie without gaps in the argument.
    uint64_t place_of(uint64_t block, uint64_t byte_of_pages) const;
    /// Reads bytes of the block's pages without the spare areas that are not looked at.
    DumpBytes read(uint64_t block, uint64_t first, uint64_t count, uint8_t* out);
    /// True when the spare area of page 0 or 1 has a bad-block mark in its first byte. Never without spare
    /// areas that are not looked at: there it is not known which bytes are marks.
    bool is_marked(uint64_t block);

private:
    uint64_t bytes_after_header() const;
    void read_run(uint64_t offset, uint64_t count, uint8_t* out, uint64_t done, DumpBytes& bytes);

    Target& m_target;
    DumpFormat m_format;
};
