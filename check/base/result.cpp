#include "result.h"

#include <algorithm>

namespace {

/// Something of the part was held against the target. A file of no bytes in a directory has its length.
bool was_looked_at(const PartResult& part, const Geometry& geometry) {
    const bool file = !geometry.whole_image && !geometry.chip;
    return part.verdict != Verdict::kIgnored && (part.compared != 0 || file);
}

bool has_rest(const CheckResult& result) {
    const std::optional<ChipBlocks>& blocks = result.blocks_of_chip;
    return result.rest.bytes != 0 || (blocks && blocks->erased + blocks->other != 0);
}

}  // namespace

std::optional<std::string> not_compared(const CheckResult& result, bool rest_matters) {
    const auto part = std::find_if(result.parts.begin(), result.parts.end(), [](const PartResult& each) {
        return each.verdict == Verdict::kSame && !each.is_compared();
    });
    if (part != result.parts.end())
        return (part->file.empty() ? part->name : part->file) + " was not compared to its end";
    const bool some = std::any_of(result.parts.begin(), result.parts.end(), [&](const PartResult& each) {
        return was_looked_at(each, result.geometry);
    });
    if (!some && !(rest_matters && has_rest(result)))
        return "nothing is left to compare";
    return std::nullopt;
}
