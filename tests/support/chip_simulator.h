#pragma once

// A NAND chip from its first program to its dump: the files of a conversion are written to it, blocks are bad
// or go bad, bits flip. Gives the dump, and the truth about what is in it. The same files, faults and damage
// give the same bytes on every machine.

#include "chip_plan.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace test_support {

// What went wrong with a used block besides single bits.
enum class WriteFault {
    unwritten,         // it is still erased
    over_random,       // it was not erased before: a bit is 1 only if the old bit, a random one, was 1 too
    over_other_block,  // the same over another block of the file, which has at least two
    other_block        // it holds another block of the file, which has at least two
};

// What was done to a block by hand.
struct BlockDamage {
    std::optional<WriteFault> fault{};
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> unit_flips{};  // number of flips, by page and unit
    std::vector<std::pair<uint32_t, uint64_t>> flips{};              // page and bit
};

struct SimulatedChip {
    Bytes dump{};
    ChipTruth truth{};
};

class ChipSimulator {
public:
    // Places the files. ChipError when something does not fit.
    ChipSimulator(const ChipGeometry& geometry, std::vector<ChipFile> files, ChipFaults faults = {});

    // Where the files lie. Nothing is counted before the dump is made.
    const ChipTruth& placement() const { return m_plan.truth; }
    // Pages of the block that its file has; 0 for a block that is not used.
    uint32_t pages_used(uint64_t block) const;

    // ---- damage; blocks and pages are those of the dump. ChipError when they are not there ----

    // Replaces what was written to a used block.
    void spoil(uint64_t block, WriteFault fault);
    // Gives the unit exactly so many flips against what was written, in place of those that its age gave it.
    void flip_in_unit(uint64_t block, uint32_t page, uint32_t unit, uint32_t flips);
    // Flips one bit after all other damage. Bit 8 * n + k is bit k of byte n of the page, with its spare
    // area.
    void flip(uint64_t block, uint32_t page, uint64_t bit);

    // ---- the dump ----

    // Hands the blocks to the receiver one after another. Each has geometry.block() bytes.
    ChipTruth make(const std::function<void(std::span<const uint8_t> block)>& receive) const;
    SimulatedChip make() const;
    // Replaces the file. std::runtime_error when it cannot be written.
    ChipTruth write(const std::filesystem::path& out) const;

private:
    const BlockRole* used_role(uint64_t block) const;
    BlockDamage& damage_at(uint64_t block, uint32_t page);

    ChipGeometry m_geometry;
    std::vector<ChipFile> m_files;
    ChipFaults m_faults;
    ChipPlan m_plan;
    std::map<uint64_t, BlockDamage> m_damage{};
};

}  // namespace test_support
