#pragma once

#include "check/base/result.h"
#include "common/bch.h"
#include "support/bytes.h"

#include <filesystem>
#include <string>

/// Makes dumps of SLC NAND for tests: pages of patterned data, erased ones, garbage, and flipped bits.
class DumpMaker {
public:
    using Bytes = test_support::Bytes;

    explicit DumpMaker(uint32_t page_kb = 2, uint32_t spare = 64, uint64_t pages_of_block = 64)
        : m_units(page_kb), m_tail(spare - 32 * page_kb), m_pages_of_block(pages_of_block) {
        if (MaxBitsNum != 16)
            bch_init(16);
    }

    uint64_t page() const { return m_units * kUnit + m_tail; }
    uint64_t block() const { return m_pages_of_block * page(); }

    /// Adds whole erase blocks of a file.
    void add_file(uint64_t blocks, uint32_t step = 4) { add_pages(blocks * m_pages_of_block, step); }
    void add_pages(uint64_t pages, uint32_t step = 4, uint32_t first_index = 0) {
        for (uint64_t i = 0; i < pages; ++i)
            add_page(static_cast<uint32_t>(first_index + i * step));
    }
    void add_page(uint32_t index) {
        for (uint64_t unit = 0; unit < m_units; ++unit) {
            Bytes bytes = test_support::patterned(1024, m_seed++ % 97);
            test_support::put32(bytes, unit == 0 ? index : 0xFFFFFFFF);
            bytes.resize(kUnit);
            bch_encode(bytes.data(), bytes.data());
            test_support::put_bytes(m_bytes, bytes);
        }
        m_bytes.resize(m_bytes.size() + m_tail, 0xFF);
    }
    void add_erased(uint64_t blocks) { m_bytes.resize(m_bytes.size() + blocks * block(), 0xFF); }
    void add_bytes(const Bytes& bytes) { test_support::put_bytes(m_bytes, bytes); }

    uint64_t unit_at(uint64_t block_number, uint64_t page_number, uint64_t unit) const {
        return block_number * block() + page_number * page() + unit * kUnit;
    }
    /// Inverts count bits of a unit, which are 131 bits apart.
    void flip(uint64_t block_number, uint64_t page_number, uint64_t unit, uint32_t count,
              uint32_t first_bit = 5) {
        for (uint32_t i = 0; i < count; ++i) {
            const auto bit = static_cast<uint32_t>((first_bit + i * 131) % (8 * kUnit));
            m_bytes.at(unit_at(block_number, page_number, unit) + bit / 8) ^=
                static_cast<uint8_t>(1U << bit % 8);
        }
    }

    Bytes& bytes() { return m_bytes; }
    void write(const std::filesystem::path& path) const { test_support::write_file(path, m_bytes); }

private:
    const uint64_t m_units;
    const uint64_t m_tail;
    const uint64_t m_pages_of_block;
    uint32_t m_seed = 0;
    Bytes m_bytes;
};
