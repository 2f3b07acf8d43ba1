#pragma once

#include "comparison.h"
#include "result.h"

#include "../src/options/conversion_options.h"

/// Sizes by which places in the output of a conversion are counted.
Geometry geometry_of(const ConversionOptions& options);

/// Adds to the notes of copies that differ which other copy is good, and the diagnosis "copy-good".
void name_good_copies(CheckResult& result);

/// Looks for one reason for what differs, and adds what it finds to result.diagnoses. Runs the conversion
/// with other options; each such run ends as soon as it explains no more than the first one.
void diagnose(const ConversionOptions& options, const ComparisonPlan& plan, CheckResult& result);
