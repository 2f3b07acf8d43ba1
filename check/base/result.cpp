#include "result.h"

#include <algorithm>

std::optional<std::string> not_compared(const CheckResult& result) {
    const auto part = std::find_if(result.parts.begin(), result.parts.end(), [](const PartResult& each) {
        return each.verdict == Verdict::kSame && !each.is_compared();
    });
    if (part == result.parts.end())
        return std::nullopt;
    return (part->file.empty() ? part->name : part->file) + " was not compared to its end";
}
