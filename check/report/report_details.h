#pragma once

#include "../base/result.h"

#include <cstddef>
#include <string>

/// What differs in each part, for people: the first difference, then a line for each listed run. At most so
/// many lines, of which each part has its first before any part has more. Copies that differ alike are one
/// part. verbose: each copy is a part of its own, and so are parts whose verdict is "ignored". Nothing when
/// no run is listed.
std::string details_of(const CheckResult& result, std::size_t most_lines, bool verbose);
