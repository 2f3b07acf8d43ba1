#pragma once

#include "../base/progress.h"
#include "../options/options.h"
#include "ecc_result.h"

/// Judges the dump of an SLC NAND chip by its parity alone: flipped bits, erased pages, list indexes. No
/// firmware is needed. Where the geometry is wrong it ends early and says what the dump looks like. The
/// options have no error.
EccResult run_ecc(const CheckOptions& options, const CheckProgress& progress);
