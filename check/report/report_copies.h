#pragma once

#include "../base/result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What a part is a copy of: "parameter" and 3 for "parameter, copy 3". Valid as long as the part.
struct CopyName {
    std::string_view thing;
    uint64_t number = 0;
};

/// Nothing for a part that is written once.
std::optional<CopyName> copy_name(const PartResult& part);

/// "copy 3", "copies 2 and 4", "copies 1 to 8". The numbers are in order.
std::string copies_text(const std::vector<uint64_t>& numbers);

/// Parts that differ as one: copies of one thing in which the same is wrong, as far as it is listed.
using Alike = std::vector<const PartResult*>;

/// The parts in groups, in the order of the first of each.
std::vector<Alike> grouped_copies(const std::vector<const PartResult*>& parts);
