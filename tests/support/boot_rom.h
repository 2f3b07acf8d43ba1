#pragma once

// Finds and unpacks a boot block as the boot ROM does: header sector 0 is descrambled and must carry the tag,
// the two boot stages follow after the four header sectors, as many sectors as the header says.

#include "bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

inline constexpr uint32_t kBootBlockTag = 0x0FF0AA55;
inline constexpr std::size_t kBootHeaderSectors = 4;

struct BootBlock {
    bool found = false;  // the tag is there and both stages lie inside the image
    std::vector<std::string> errors{};

    // Header sector 0, descrambled.
    uint32_t tag = 0;
    uint32_t rc4_flag = 0;           // non-zero: the stages are scrambled
    uint16_t boot_code1_offset = 0;  // sectors from the start of the boot block
    uint16_t boot_code2_offset = 0;
    uint16_t boot_data_size = 0;  // sectors of the first stage
    uint16_t boot_code_size = 0;  // sectors of both stages
    uint16_t crc = 0;
    bool reserved_zero = false;  // all reserved bytes of sectors 0 and 1, and the descrambled sectors 2 and 3

    // Header sector 1, which is stored plain.
    uint16_t reserved_blocks = 0;
    uint16_t disk0_size = 0;
    std::string chip_tag{};

    // The stages, descrambled when the flag says so; whole sectors. Only the stage's own bytes were
    // scrambled, so with scrambling on the padding reads as keystream: compare the first bytes.
    Bytes stage1{};
    Bytes stage2{};
    // The same sectors as stored.
    Bytes stored_stage1{};
    Bytes stored_stage2{};
};

// Looks for a boot block at `sector` of the image.
BootBlock read_boot_block(const Bytes& image, uint64_t sector);

}  // namespace test_support
