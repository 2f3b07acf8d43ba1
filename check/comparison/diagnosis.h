#pragma once

#include "../base/result.h"
#include "comparison.h"

#include "../../src/options/conversion_options.h"

#include <vector>

/// Sizes by which places in the output of a conversion are counted.
Geometry geometry_of(const ConversionOptions& options);

/// Another set of options that may have been used, and what to say then.
struct Candidate {
    ConversionOptions options;
    Diagnosis diagnosis;
};

/// Other sizes and switches than the given ones, the likely ones first.
std::vector<Candidate> candidates_for(const ConversionOptions& given);

/// True when places that are spread over the target all hold the same byte, and that is 0 or 0xFF.
bool is_blank(Target& target);

/// Adds to the notes of copies that differ which other copy is good, and the diagnosis "copy-good".
void name_good_copies(CheckResult& result);

/// Looks for one reason for what differs, and adds what it finds to result.diagnoses. Runs the conversion
/// with other options; each such run ends as soon as it explains no more than the first one.
void diagnose(const ConversionOptions& options, const ComparisonPlan& plan, CheckResult& result);
