#pragma once

#include "../base/chip_result.h"
#include "../base/result.h"
#include "list_index_runs.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the parity of a dump says, without a firmware. The reports are written from it and from nothing else.

/// A unit's place in the dump. All count from 0.
struct UnitPlace {
    uint64_t block = 0;  ///< erase block
    uint64_t page = 0;   ///< of the block
    uint64_t unit = 0;   ///< of the page
};

/// Units that the parity does not correct: their places are kept up to this number.
constexpr std::size_t kMostListedUnits = 10;

/// A block with units that the parity does not correct.
struct LostUnits {
    UnitPlace first;
    uint64_t lost = 0;
    uint64_t units = 0;  ///< of the block
};

/// Blocks with such units are kept up to this number.
constexpr std::size_t kMostLostBlocks = 10;

struct EccResult {
    ConversionSummary conversion;
    Geometry geometry;        ///< as the command line gives it
    std::string target_kind;  ///< "dump", "device" or "stream"; empty: it was not opened
    std::string target_path;
    bool past_the_cache = false;  ///< a device that was read from the medium and not from the page cache
    uint32_t max_flips = 0;       ///< of a unit that counts as right

    bool judged = false;  ///< false: the units were not counted, for the error or for the geometry
    UnitCounts units;
    uint64_t pages = 0;          ///< whole pages of the dump that were read
    uint64_t blocks = 0;         ///< erase blocks in which they lie
    uint64_t pages_of_last = 0;  ///< pages of the last one, when it is not whole; else 0
    uint64_t erased_blocks = 0;  ///< whole blocks with nothing but erased units
    uint64_t passed_blocks = 0;  ///< known to be bad, and not judged
    uint64_t tail_bytes = 0;     ///< bytes after the units of a page that are not 0xFF
    uint64_t tail_pages = 0;     ///< pages with such bytes
    std::optional<UnitPlace>
        worst;  ///< the first of the correctable units with the most flips; none: no flips
    std::vector<UnitPlace> beyond;  ///< the first units that are not correctable
    std::vector<LostUnits> lost;    ///< the first blocks with such units
    uint64_t lost_blocks = 0;       ///< all blocks with such units
    ListIndexes indexes;
    std::vector<BlockCounts> flipped_blocks;  ///< in their order, up to kMostListedBlocks
    uint64_t flipped_blocks_found = 0;

    std::vector<Diagnosis> diagnoses;  ///< of a wrong geometry; its first text says what is wrong
    std::vector<std::string> warnings;
    std::optional<std::string> error;  ///< why there is no answer
    Verdict verdict = Verdict::kSame;  ///< same, differs or trouble

    Status status() const { return status_of(verdict); }
    /// Correctable units with more than max_flips flips.
    uint64_t over_limit() const {
        uint64_t over = 0;
        for (std::size_t n = std::size_t{max_flips} + 1; n < units.flips.size(); ++n)
            over += units.flips[n];
        return over;
    }
};
