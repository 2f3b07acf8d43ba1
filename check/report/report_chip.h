#pragma once

#include "../base/result.h"

#include <string>
#include <vector>

/// What the report for people says of the dump of a chip.

/// Cells of a file's row: found at, blocks, skipped, flips and worst unit.
std::vector<std::string> chip_numbers(const PartResult& part, const Geometry& geometry);

/// The blocks that were skipped for a file, and why. Empty when there are none. verbose: all of them.
std::string skipped_line(const PartResult& part, const Geometry& geometry, bool verbose);

/// What a unit holds in place of what is expected: ", erased". Empty when that is not known.
std::string held_instead(const DifferenceRun& run);

/// Lines of all units and blocks of the dump. Empty when the target is something else.
std::string chip_lines(const CheckResult& result);
