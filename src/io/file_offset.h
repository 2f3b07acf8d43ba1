#pragma once

#include <cstdint>
#include <limits>
#include <sys/types.h>

/// The largest file offset that the system accepts, in bytes. No file is longer.
constexpr auto kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
static_assert(sizeof(off_t) == 8, "firmware files and images are larger than 4 GiB");
