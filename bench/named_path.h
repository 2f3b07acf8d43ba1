#pragma once

#include "common/bch/paths.h"

#include <cstdio>
#include <optional>
#include <string>

// The BCH paths by their names, for programs that run with one of the caller's choice.

inline std::optional<BchPath> path_named(const std::string& name) {
    for (const BchPath& path : bch_paths())
        if (path.name == name)
            return path;
    return std::nullopt;
}

// Ends a usage text with the names.
inline void print_path_names() {
    std::fprintf(stderr, "PATH is one of:");
    for (const BchPath& path : bch_paths())
        std::fprintf(stderr, " %s", std::string(path.name).c_str());
    std::fprintf(stderr, "\n");
}
