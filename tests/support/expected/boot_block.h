#pragma once

// The boot block, put together from its format alone.

#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <cstdint>

namespace test_support {

// A loader entry takes whole units of 2 KB.
inline uint16_t stage_sectors(const Bytes& stage) {
    return static_cast<uint16_t>(round_up(stage.size(), 2048) / kSectorSize);
}

inline Bytes header_sector0(uint32_t rc4_flag, uint16_t flash_data_sectors, uint16_t flash_boot_sectors) {
    Bytes sector;
    put32(sector, 0x0FF0AA55);
    put32(sector, 0);
    put32(sector, rc4_flag);
    put16(sector, 4);
    put16(sector, 4);
    sector.resize(506, 0);
    put16(sector, flash_data_sectors);
    put16(sector, static_cast<uint16_t>(flash_data_sectors + flash_boot_sectors));
    put16(sector, 0);
    return sector;
}

inline Bytes header_sector1() {
    return zero_padded({12, 0, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 'Q', 'Z', '2', '8'}, kSectorSize);
}

// Header and both stages, without the zeros after them.
inline Bytes boot_block(const Bytes& flash_data, const Bytes& flash_boot, bool scrambled) {
    const auto stored = [scrambled](const Bytes& stage) {
        return zero_padded(scrambled ? rc4_scrambled_by_sector(stage) : stage,
                           stage_sectors(stage) * kSectorSize);
    };
    const Bytes first =
        header_sector0(scrambled ? 1 : 0, stage_sectors(flash_data), stage_sectors(flash_boot));
    const Bytes empty = rc4_scrambled(Bytes(kSectorSize, 0));
    return rc4_scrambled(first) + header_sector1() + empty + empty + stored(flash_data) + stored(flash_boot);
}

// Of a container whose first two loader entries are "FlashData" and "FlashBoot".
inline Bytes boot_block(const BootContainer& boot) {
    return boot_block(boot.loader.entries.at(0).data, boot.loader.entries.at(1).data, boot.rc4_flag != 0);
}

inline Bytes boot_block(const Firmware& firmware) {
    return boot_block(firmware.boot);
}

}  // namespace test_support
