#pragma once

#include "../base/chip_result.h"
#include "../base/progress.h"
#include "../options/options.h"
#include "extraction_result.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Finds where the files of the conversion lie in the dump of a chip. Returns why that is not known, or
/// nothing.
using FindPlacements = std::function<std::optional<std::string>(const CheckOptions& options, Target& dump,
                                                                std::vector<Placement>& placements)>;

/// Writes the data that a target holds to files of options.chip.extract_directory. Progress is told in bytes
/// of data. The options have no error.
///
/// With a firmware: a file for each item with data, for the parameter record or the GPT, and for both loader
/// stages. Bytes that cannot be corrected are written as they are and listed. Without a firmware: all data
/// of a dump of NAND pages, as one file.
ExtractionResult run_extraction(const CheckOptions& options, const CheckProgress& progress);

/// The same, with another way to find the files in a dump.
ExtractionResult run_extraction(const CheckOptions& options, const CheckProgress& progress,
                                const FindPlacements& find_placements);
