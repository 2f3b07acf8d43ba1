#pragma once

#include "../base/progress.h"
#include "../options/options.h"
#include "manifest.h"

/// The manifest of what the conversion would give, or of the files of the target when one is named. The
/// options have no error. Nothing is written.
Manifest run_manifest(const CheckOptions& options, const CheckProgress& progress);
