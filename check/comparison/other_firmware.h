#pragma once

#include "../base/result.h"
#include "comparison.h"

#include "../../src/options/conversion_options.h"

/// True when most items differ in most of their pages that hold data: those that are not all 0 or all 0xFF.
/// Padding is alike in all firmware. Runs the conversion again, unless the result tells that most items do
/// not differ at all.
bool is_other_firmware(const ConversionOptions& options, const ComparisonPlan& plan,
                       const CheckResult& result);
