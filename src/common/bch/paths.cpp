#include "paths.h"

#include <algorithm>
#include <cassert>

// The paths, fastest first. Each is defined in the source of its name.
#if defined(__x86_64__)
#define BCH_PATHS kBchCarryLess512, kBchCarryLess256, kBchCarryLess128, kBchPortable
#elif defined(__aarch64__) && defined(__linux__)
#define BCH_PATHS kBchCarryLessArm128, kBchPortable
#else
#define BCH_PATHS kBchPortable
#endif

extern const BchPath BCH_PATHS;

namespace {

BchPath selected_path = kBchPortable;

}  // namespace

std::span<const BchPath> bch_paths() {
    static const BchPath paths[] = {BCH_PATHS};
    return paths;
}

const BchPath& bch_fastest_path(std::span<const BchPath> paths) {
    const auto fastest =
        std::find_if(paths.begin(), paths.end(), [](const BchPath& path) { return path.available(); });
    assert(fastest != paths.end());
    return *fastest;
}

void bch_select_path(const BchPath& path) {
    assert(path.available());
    selected_path = path;
}

const BchPath& bch_selected_path() {
    return selected_path;
}
