#pragma once

#include "common/bch/paths.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace test_support {

// The paths of the BCH encoder that this processor has, fastest first.
inline std::vector<BchPath> available_bch_paths() {
    std::vector<BchPath> available;
    std::ranges::copy_if(bch_paths(), std::back_inserter(available),
                         [](const BchPath& path) { return path.available(); });
    return available;
}

}  // namespace test_support
