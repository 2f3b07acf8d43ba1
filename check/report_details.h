#pragma once

#include "result.h"

#include <cstddef>
#include <string>

/// What differs in each part, for people: the first difference, then a line for each listed run. At most so
/// many lines, of which each part has its first before any part has more. ignored_too: also of parts whose
/// verdict is "ignored". Nothing when no run is listed.
std::string details_of(const CheckResult& result, std::size_t most_lines, bool ignored_too);
