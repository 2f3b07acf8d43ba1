#pragma once

#include "base/progress.h"
#include "base/result.h"
#include "options/options.h"

/// Runs the conversion into a comparison with the target and says what came of it. The options have no error.
CheckResult run_check(const CheckOptions& options, const CheckProgress& progress);
