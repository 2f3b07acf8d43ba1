#pragma once

#include "../firmware/listing.h"
#include "../judge/second_opinion.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A loader stage in a boot block.
struct BootStage {
    std::string name;       ///< "FlashData" or "FlashBoot"
    uint64_t position = 0;  ///< of its first byte in the data of the boot block
    uint64_t bytes = 0;
    bool scrambled = false;
    std::string note{};  ///< what is to be said of its length
};

/// Both stages as the header of the boot block at the start of read says. The header counts sectors. The
/// entries of the firmware's boot container tell how long the stages are in bytes; where they do not fit the
/// header, the stage has whole sectors. Nothing when the header is not one of this build's key.
std::optional<std::vector<BootStage>> find_boot_stages(const ReadPart& read,
                                                       const std::vector<ListedLoaderEntry>& entries);

/// Restores bytes of a scrambled stage, which start at a sector of it.
void descramble_stage(uint8_t* bytes, uint64_t count);
