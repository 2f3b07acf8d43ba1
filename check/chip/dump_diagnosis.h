#pragma once

#include "../../src/options/conversion_options.h"
#include "../base/result.h"
#include "../options/options.h"
#include "dump_comparison.h"

/// Looks for reasons for what differs in the dump of a chip, and adds what it finds to result.diagnoses.
/// Looks at the first pages of the files alone, and with other options at those of the boot block.
void diagnose_dump(const ConversionOptions& options, const ChipOptions& chip, Target& target,
                   const DumpComparison& comparison, CheckResult& result);
