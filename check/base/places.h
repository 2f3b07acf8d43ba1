#pragma once

#include "result.h"

#include <cstdint>
#include <optional>
#include <vector>

/// Where a byte of a target lies.
struct Place {
    uint64_t block = 0;
    uint64_t page = 0;            ///< in its block
    uint64_t page_of_target = 0;  ///< counted from the start of the target file
    uint64_t byte_of_page = 0;
    std::optional<uint64_t> unit;  ///< SLC NAND, unless the byte comes after the last unit of its page
    uint64_t byte_of_unit = 0;
    uint64_t sector = 0;
    uint64_t byte_of_sector = 0;
};

Place place_of(uint64_t offset, const Geometry& geometry);

/// Most flipped bits of a unit that its parity corrects.
constexpr uint64_t kMostFlips = 16;

/// Whether the parity of SLC NAND corrects the units that a run lies in.
enum class Correction {
    kNotKnown,  ///< no unit, or runs of the unit that are not listed may have more flips
    kCorrectable,
    kNotCorrectable,
};

/// One for each listed run of the part, by the flips of all listed runs of its units. All are kNotKnown when
/// the target has no spare areas.
std::vector<Correction> corrections(const PartResult& part, const Geometry& geometry);

/// Sectors that the listed runs touch, each counted once.
uint64_t differing_sectors(const PartResult& part);

/// The listed run that comes first in the target; null when none is listed.
const DifferenceRun* first_run(const PartResult& part);

/// True when every run that was found is listed.
inline bool all_runs_listed(const PartResult& part) {
    return part.runs.size() >= part.runs_found;
}

/// Quotient rounded up; 0 for a divisor of 0.
constexpr uint64_t divided_up(uint64_t value, uint64_t divisor) {
    return divisor == 0 ? 0 : value / divisor + (value % divisor != 0 ? 1 : 0);
}
