#pragma once

// Finds and unpacks a boot block as the boot ROM does: header sector 0 is descrambled and must carry the tag,
// the two boot stages follow after the four header sectors, as many sectors as the header says.

#include "bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

struct BootBlock {
    bool found = false;  // the tag is there and both stages lie inside the image
    std::vector<std::string> errors{};

    // Header sector 0, descrambled.
    uint32_t rc4_flag = 0;        // non-zero: the stages are scrambled
    uint16_t boot_data_size = 0;  // sectors of the first stage
    uint16_t boot_code_size = 0;  // sectors of both stages
    bool reserved_zero = false;  // all reserved bytes of sectors 0 and 1, and the descrambled sectors 2 and 3

    std::string chip_tag{};  // in header sector 1, which is stored plain

    // The stages, descrambled when the flag says so; whole sectors. Only the stage's own bytes were
    // scrambled, so with scrambling on the padding reads as keystream: compare the first bytes.
    Bytes stage1{};
    Bytes stage2{};
};

// Looks for a boot block at `sector` of the image.
BootBlock read_boot_block(const Bytes& image, uint64_t sector);

}  // namespace test_support
