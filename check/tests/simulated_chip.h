#pragma once

// Chips of the simulator with random faults, on which a checker that sees a dump and its firmware can say
// exactly what was done to them.

#include "chip_bench.h"
#include "support/chip_simulator.h"

#include <string>
#include <vector>

namespace check_test {

/// A conversion, and the chip that its files are written to.
struct ChipModel {
    std::string name;  ///< of letters, digits and underscores
    Conversion conversion;
    uint32_t dump_spare = 0;  ///< of SPI NAND: bytes of the spare area in the dump
    bool gpt = false;
};

/// SLC NAND with pages of 1, 2 and 4 KB, with both options for its pages, and SPI NAND.
const std::vector<ChipModel>& chip_models();

/// A firmware with a stretch of zeros in one of its items.
Firmware firmware_of(const ChipModel& model);

test_support::ChipGeometry geometry_of(const ChipModel& model);

struct RandomChip {
    SimulatedChip chip;
    std::string layout;           ///< windows of the files: lines for --layout
    uint64_t most_skipped = 0;    ///< of a file
    bool can_be_searched = true;  ///< the first block of each file holds what its file has
};

/// The files lie in windows of their own, in any order. All follows from the seed.
///
/// What no checker can know is not done to the chip:
/// - A failed block does not hold all that was to be written to it: it would be as good as the next one.
/// - A block that holds something else, or has lost units, does not follow a bad block: either one could
///   be the block of the file.
/// - Where a block of a file is ruined, no other block holds its data.
/// - The second block of a file, and a bad one before it, do not hold the first one: either could be the
/// start.
/// - SPI NAND: a block that is fill or the same as another one is not ruined, and a bad block before it
///   holds random bytes. After a block that failed with its own data in it comes no other bad one. Blocks of
///   SLC NAND have list indexes and are never the same.
RandomChip random_chip(const ChipModel& model, const Files& files, uint64_t seed);

}  // namespace check_test
