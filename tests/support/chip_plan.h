#pragma once

// Which block of a chip gets what: the files go to their windows block by block, and bad blocks are passed
// over.

#include "chip_dice.h"
#include "chip_truth.h"

#include <map>
#include <vector>

namespace test_support {

// A block that is bad from the start. Its mark is a byte 0x00 after the data bytes of its first page, if the
// dump has that byte.
struct FactoryBad {
    enum class Fill { random, zeros, erased };

    uint64_t block = 0;
    Fill fill = Fill::random;  // what else it holds
};

// A block that fails when it is programmed. The same data goes to the next good block. If nothing is to be
// programmed to it, it does not fail.
struct ProgramFailure {
    enum class Remnant {
        nothing,      // it is erased
        old_data,     // random bytes
        first_pages,  // of its own data, `count` pages; the rest is erased
        other_block,  // another block of the same file, which has at least two
        ruined_units  // its own data, `count` units of it with 17 to 64 flips
    };

    uint64_t block = 0;
    Remnant remnant = Remnant::old_data;
    uint32_t count = 1;   // at least 1, and at most what the block has of the file
    bool marked = false;  // the programmer wrote the mark of a bad block
};

// What is wrong with a chip. All of it follows from the seed.
struct ChipFaults {
    uint64_t seed = 1;
    std::vector<FactoryBad> factory_bad{};
    double factory_bad_rate = 0;  // of the other blocks; random bytes in them
    std::vector<ProgramFailure> failures{};
    double failure_rate = 0;  // of the other blocks that are programmed; any remnant
    // For each bit of the pages that were written. The spare area of SPI NAND does not age.
    double bit_error_rate = 0;
    double share_of_sets = 0.5;        // of flips from 0 to 1, where as many bits are 0 as 1
    double erased_bit_error_rate = 0;  // for each bit of the pages that nobody wrote, in blocks that are good
};

// What a block of the chip is for.
struct BlockRole {
    enum class Kind { used, factory_bad, failed };

    Kind kind = Kind::used;
    std::size_t file = 0;      // used, failed: index of the file,
    uint64_t file_block = 0;   // and which of its blocks
    FactoryBad factory_bad{};  // factory_bad
    ProgramFailure failure{};  // failed
};

struct ChipPlan {
    // By block of the dump. Blocks that are not in here are free.
    std::map<uint64_t, BlockRole> roles{};
    // Everything but what has to be counted.
    ChipTruth truth{};
};

// Blocks of the file, the last one perhaps not full.
uint64_t blocks_of(const ChipFile& file, const ChipGeometry& geometry);

// Pages that the file has in its block.
uint32_t pages_in_block(const ChipFile& file, const ChipGeometry& geometry, uint64_t file_block);

// ChipError when something does not fit.
ChipPlan plan_chip(const ChipGeometry& geometry, const std::vector<ChipFile>& files,
                   const ChipFaults& faults);

}  // namespace test_support
