#pragma once

#include "options.h"
#include "result.h"

#include <cstdint>
#include <functional>

/// Told while the check runs: bytes of the output that were dealt with so far, and their expected number
/// (0: unknown).
using CheckProgress = std::function<void(uint64_t done, uint64_t total)>;

/// Runs the conversion into a comparison with the target and says what came of it. The options have no error.
CheckResult run_check(const CheckOptions& options, const CheckProgress& progress);
