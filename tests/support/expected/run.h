#pragma once

// A whole conversion without a failure: what it prints after the options and which files it leaves.

#include "support/conversion.h"
#include "support/expected/gpt.h"
#include "support/firmware_builder.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

struct ExpectedRun {
    std::string text{};
    Files files{};
};

// The partitions of a GPT; none: the firmware has a parameter partition.
using GptEntries = std::optional<std::vector<GptEntry>>;

// The firmware's items are taken as they are described: those that say other sizes than their data's, or that
// are 32 places from a sparse one, need expectations of their own.
ExpectedRun expected_run(const Firmware& firmware, const Conversion& conversion,
                         const std::filesystem::path& out, const GptEntries& gpt = std::nullopt);

// For a bare boot container.
ExpectedRun expected_boot_run(const BootContainer& boot, const Conversion& conversion);

// The partitions of the sample firmware with a GPT.
std::vector<GptEntry> sample_gpt();

// Up to "start to write partitions", without a GPT. Nothing can be read where some of the items should be.
std::string opening_lines(int unreadable_items = 0, bool gpt = false);
// "preparing boot at 0x00002100" or "preparing boot saving at /tmp/out/boot.img".
std::string preparing_line(const std::string& name, uint32_t sector);
std::string preparing_line(const std::string& name, const std::filesystem::path& out);

// Sectors of the boot block copies as they are written, and where the second copy lies on eMMC and SPI NOR.
struct BootBlockPlace {
    uint64_t sectors = 0;
    uint64_t second_copy = 0;
};
BootBlockPlace boot_block_place(std::size_t block_bytes, const Conversion& conversion);

}  // namespace test_support
