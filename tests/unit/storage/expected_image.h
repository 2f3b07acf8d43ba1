#pragma once

// What the output has to hold, put together from the formats alone.

#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace storage_test {

using test_support::Bytes;

// The bytes with zeros behind them, `size` in all.
inline Bytes zero_padded(Bytes bytes, uint64_t size) {
    bytes.resize(static_cast<std::size_t>(size), 0);
    return bytes;
}

// A loader entry takes whole units of 2 KB.
inline uint16_t stage_sectors(const Bytes& stage) {
    return static_cast<uint16_t>(test_support::round_up(stage.size(), 2048) / 512);
}

inline Bytes header_sector0(uint32_t rc4_flag, uint16_t flash_data_sectors, uint16_t flash_boot_sectors) {
    Bytes sector;
    test_support::put32(sector, 0x0FF0AA55);
    test_support::put32(sector, 0);
    test_support::put32(sector, rc4_flag);
    test_support::put16(sector, 4);
    test_support::put16(sector, 4);
    sector.resize(506, 0);
    test_support::put16(sector, flash_data_sectors);
    test_support::put16(sector, static_cast<uint16_t>(flash_data_sectors + flash_boot_sectors));
    test_support::put16(sector, 0);
    return sector;
}

inline Bytes header_sector1() {
    Bytes sector{12, 0, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 'Q', 'Z', '2', '8'};
    return zero_padded(sector, 512);
}

// A boot block without the zeros behind the second stage: header and both stages.
inline Bytes boot_block(const Bytes& flash_data, const Bytes& flash_boot, bool scrambled) {
    using test_support::put_bytes;
    const auto stored = [scrambled](const Bytes& stage) {
        return zero_padded(scrambled ? test_support::rc4_scrambled_by_sector(stage) : stage,
                           stage_sectors(stage) * 512U);
    };
    Bytes block = test_support::rc4_scrambled(
        header_sector0(scrambled ? 1 : 0, stage_sectors(flash_data), stage_sectors(flash_boot)));
    put_bytes(block, header_sector1());
    put_bytes(block, test_support::rc4_scrambled(Bytes(512, 0)));
    put_bytes(block, test_support::rc4_scrambled(Bytes(512, 0)));
    put_bytes(block, stored(flash_data));
    put_bytes(block, stored(flash_boot));
    return block;
}

// The boot block of a firmware whose first two loader entries are "FlashData" and "FlashBoot".
inline Bytes boot_block(const test_support::Firmware& firmware) {
    const auto& entries = firmware.boot.loader.entries;
    return boot_block(entries.at(0).data, entries.at(1).data, firmware.boot.rc4_flag != 0);
}

// An output file as it grows.
class ExpectedImage {
public:
    // Zeros up to the byte offset, then the bytes; what lay there before is overwritten.
    void place(uint64_t offset, const Bytes& bytes) {
        m_bytes.resize(std::max(m_bytes.size(), static_cast<std::size_t>(offset) + bytes.size()), 0);
        test_support::put_bytes_at(m_bytes, static_cast<std::size_t>(offset), bytes);
    }

    // Whole pages of zeros until no byte is missing to a whole block.
    void align(uint64_t block_size, uint64_t page_size) {
        const uint64_t missing = test_support::round_up(m_bytes.size(), block_size) - m_bytes.size();
        m_bytes.resize(m_bytes.size() + static_cast<std::size_t>(test_support::round_up(missing, page_size)),
                       0);
    }

    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes{};
};

}  // namespace storage_test
