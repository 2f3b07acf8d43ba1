#pragma once

// The encoder's paths by name, fastest last.

#include "common/bch.h"

#include <array>
#include <string_view>

struct NamedBchPath {
    std::string_view name;
    BchPath path;
};

inline constexpr std::array<NamedBchPath, 5> bch_paths{{{"portable", BchPath::portable},
                                                        {"wide_rows", BchPath::wide_rows},
                                                        {"carry_less", BchPath::carry_less},
                                                        {"carry_less_256", BchPath::carry_less_256},
                                                        {"carry_less_512", BchPath::carry_less_512}}};
