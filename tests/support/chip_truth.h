#pragma once

// What is in the dump of a simulated chip, known from the files and from what was done to them. The counts
// have the names that a checker of dumps uses for them.

#include "chip_geometry.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

// Flipped bits that a unit of SLC NAND can have and still be corrected.
inline constexpr uint32_t kCorrectableUnitFlips = 16;

// Units by the number of bits that differ from what the file has.
struct UnitTruth {
    uint64_t units = 0;
    std::array<uint64_t, kCorrectableUnitFlips + 1> flips{};
    uint64_t beyond = 0;   // with more flipped bits
    uint64_t foreign = 0;  // of beyond: valid data of something else, by the textbook decoder
    // At most 16 bits of the unit are 0. Of those in beyond, none is foreign.
    uint64_t erased = 0;
    uint64_t cleared = 0;  // bits that are 0 and should be 1, of the units in flips
    uint64_t set = 0;      // bits that are 1 and should be 0, of the units in flips

    uint64_t flipped_bits() const { return cleared + set; }
    // Most flips of a unit in flips.
    uint32_t worst() const;
    void add(const UnitTruth& other);
    bool operator==(const UnitTruth&) const = default;
};

// A used block that has flipped bits or units that are beyond.
struct BlockTruth {
    uint64_t block = 0;
    uint64_t flipped_bits = 0;  // of units with at most 16
    uint32_t worst = 0;         // most flips of such a unit
    uint64_t beyond = 0;        // units

    bool operator==(const BlockTruth&) const = default;
};

// A block that the programmer passed over.
struct SkipTruth {
    enum class Reason {
        factory,  // bad from the start
        failed,   // while it was programmed
    };
    uint64_t block = 0;
    Reason reason = Reason::factory;

    bool operator==(const SkipTruth&) const = default;
};

enum class UnitClass {
    ruined,   // nothing that can be corrected
    foreign,  // other valid data, or what can be corrected to it
    erased,   // where data should be
};

// A unit that is beyond.
struct LostUnit {
    uint64_t block = 0;
    uint32_t page = 0;
    uint32_t unit = 0;
    uint32_t flips = 0;  // bits that differ from what the file has
    UnitClass what = UnitClass::ruined;

    bool operator==(const LostUnit&) const = default;
};

struct FileTruth {
    std::string file;
    BlockWindow window{};   // without a given one: from the first block that was free to the last used one
    uint64_t found_at = 0;  // the first block that is used
    std::vector<uint64_t> blocks{};           // block i of the file is this block of the dump
    std::vector<SkipTruth> skipped_before{};  // passed over before the first used block
    std::vector<SkipTruth> skipped{};         // between the first and the last used block
    UnitTruth units{};
    uint64_t flips_outside_units = 0;  // bits that differ in the bytes after the units of the file's pages

    // True when every bit of the file can be had from the dump.
    bool can_be_read(ChipKind kind) const;
};

struct ChipTruth {
    std::vector<FileTruth> files{};       // in the order in which they were placed
    UnitTruth units{};                    // of all files
    std::vector<BlockTruth> blocks{};     // used ones with flips, ascending
    std::vector<LostUnit> lost{};         // ascending
    std::vector<uint64_t> factory_bad{};  // of the whole chip, ascending
    std::vector<uint64_t> failed{};       // blocks that failed while they were programmed, ascending
    uint64_t erased_blocks = 0;           // of the whole chip: at most 16 bits of each unit are 0
    // SLC: all units of the chip, as the parity alone shows them. beyond: not correctable; erased: corrected,
    // it is 0xFF; nothing is foreign.
    UnitTruth by_parity{};
};

// Takes down what a block holds.
class ChipWitness {
public:
    ChipWitness(const ChipGeometry& geometry, ChipTruth& truth) : m_geometry(geometry), m_truth(truth) {}

    // A block of the file: its first pages are the file's. Both spans have the bytes of a block of the dump.
    void take_used(std::size_t file, uint64_t block, uint32_t pages, std::span<const uint8_t> expected,
                   std::span<const uint8_t> actual);
    // Any block, also a used one. programmed: what it held before it aged. valid: its units are valid.
    void take_any(std::span<const uint8_t> programmed, bool valid, std::span<const uint8_t> actual);

private:
    using Span = std::span<const uint8_t>;

    Span unit_of(Span block, uint32_t page, uint32_t unit) const;
    void take_unit(FileTruth& file, BlockTruth& seen, LostUnit place, Span expected, Span actual);
    void take_parity(Span programmed, bool valid, Span actual);

    const ChipGeometry& m_geometry;
    ChipTruth& m_truth;
};

}  // namespace test_support
