#pragma once

#include "../base/chip_result.h"
#include "../base/progress.h"
#include "../base/result.h"
#include "../base/target.h"
#include "../options/options.h"

#include <optional>
#include <string>
#include <vector>

/// Compares the files of a NAND conversion with the dump of a chip. The target is open. result holds what is
/// known of the options, the firmware and the target; it comes back complete.
CheckResult run_dump_check(const CheckOptions& options, Target& target, CheckResult result,
                           const CheckProgress& progress);

/// Finds where the files of a NAND conversion lie in the dump of a chip. Returns why that is not known.
std::optional<std::string> find_placements(const CheckOptions& options, Target& dump,
                                           std::vector<Placement>& placements);
