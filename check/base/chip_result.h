#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What was found out about the units and erase blocks of a chip's dump. Blocks count from 0, in the dump.

/// Bits of a unit that the parity of SLC NAND corrects.
constexpr uint32_t kCorrectableFlips = 16;

/// Units by the number of their flipped bits.
struct UnitCounts {
    uint64_t units = 0;  ///< all that were looked at
    /// flips[n]: units with n flipped bits that were told from what is right, clean ones for n = 0.
    std::array<uint64_t, kCorrectableFlips + 1> flips{};
    uint64_t beyond = 0;   ///< with more flipped bits: not correctable, or other data
    uint64_t foreign = 0;  ///< of beyond: they are, or can be corrected to, valid data of something else
    uint64_t erased = 0;   ///< units of 0xFF, but for flips; they are in flips as well where that is right
    uint64_t erased_right = 0;  ///< of erased: those that are in flips
    uint64_t erased_flips = 0;  ///< of the flipped bits: those of erased_right
    uint64_t cleared = 0;       ///< bits that are 0 and should be 1, of the units in flips
    uint64_t set = 0;           ///< bits that are 1 and should be 0, of the units in flips

    uint64_t flipped_bits() const { return cleared + set; }
    /// Most flips of a unit in flips.
    uint32_t worst() const {
        uint32_t most = kCorrectableFlips;
        while (most != 0 && flips[most] == 0)
            --most;
        return most;
    }
    void add(const UnitCounts& other) {
        units += other.units;
        for (std::size_t n = 0; n < flips.size(); ++n)
            flips[n] += other.flips[n];
        beyond += other.beyond;
        foreign += other.foreign;
        erased += other.erased;
        erased_right += other.erased_right;
        erased_flips += other.erased_flips;
        cleared += other.cleared;
        set += other.set;
    }
};

/// An erase block of the dump with flipped bits or units that are beyond.
struct BlockCounts {
    uint64_t block = 0;
    uint64_t flipped_bits = 0;
    uint32_t worst = 0;   ///< most flips of a unit that has at most kCorrectableFlips
    uint64_t beyond = 0;  ///< units
};

/// Blocks that are kept for reports. More are counted and not listed.
constexpr std::size_t kMostListedBlocks = 16384;

/// An erase block that the programmer passed over.
struct SkippedBlock {
    enum class Reason {
        kContent,  ///< what it holds does not belong here, and the next block does
        kListed,   ///< --bad-blocks names it
        kMark,     ///< the mark in its spare area, where that is in the dump
    };
    uint64_t block = 0;
    Reason reason = Reason::kContent;
};

/// Where the erase blocks of a file of the conversion lie in a dump.
struct Placement {
    std::string file;              ///< such as "rootfs.img"
    bool placed = false;           ///< false: it was found nowhere; a file of no bytes needs no block
    std::vector<uint64_t> blocks;  ///< block i of the file is this block of the dump
    std::vector<SkippedBlock> skipped;
    std::vector<uint64_t>
        also_at;  ///< other blocks where a file that begins the same way lies; the first few
};
