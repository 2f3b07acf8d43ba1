#pragma once

#include "../base/result.h"

#include "../../src/options/conversion_options.h"

/// The options of a conversion as the reports repeat them.
ConversionSummary summary_of(const ConversionOptions& options);
