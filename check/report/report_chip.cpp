#include "report_chip.h"

#include "../base/places.h"
#include "../base/words.h"
#include "flip_lines.h"

#include <algorithm>
#include <string_view>

namespace {

// Blocks that are named in a line without --verbose.
constexpr std::size_t kMostNamedBlocks = 20;

struct ReasonWords {
    SkippedBlock::Reason reason;
    std::string_view words;
};

constexpr ReasonWords kReasons[] = {
    {SkippedBlock::Reason::kContent, "by content"},
    {SkippedBlock::Reason::kListed, "by --bad-blocks"},
    {SkippedBlock::Reason::kMark, "by their marks"},
};

/// Bytes of a file that go into an erase block. Files of SPI NAND have no spare areas.
uint64_t block_of_file(const Geometry& geometry) {
    return geometry.spare_areas ? geometry.block : geometry.block / geometry.page * geometry.page_data;
}

}  // namespace

std::vector<std::string> chip_numbers(const PartResult& part, const Geometry& geometry) {
    return {part.found_at ? std::to_string(*part.found_at) : "-",
            std::to_string(divided_up(part.bytes, block_of_file(geometry))),
            part.skipped.empty() ? "-" : std::to_string(part.skipped.size()),
            std::to_string(part.units.flipped_bits()), std::to_string(part.units.worst())};
}

std::string skipped_line(const PartResult& part, const Geometry& geometry, bool verbose) {
    if (part.skipped.empty())
        return "";
    std::size_t left = verbose ? SIZE_MAX : kMostNamedBlocks;
    std::vector<std::string> groups;
    for (const auto& [reason, words] : kReasons) {
        std::string group;
        for (const SkippedBlock& skipped : part.skipped) {
            if (skipped.reason != reason || left == 0)
                continue;
            --left;
            group += std::to_string(skipped.block) + " ";
        }
        if (group.empty())
            continue;
        group.append("(").append(words);
        if (reason == SkippedBlock::Reason::kContent && geometry.spare_areas)
            group += "; marker bytes say nothing in this page format";
        groups.push_back(group + ")");
    }
    std::string line = "  skipped: " + joined(groups, ", ");
    if (part.skipped.size() > kMostNamedBlocks && !verbose)
        line += " and " + std::to_string(part.skipped.size() - kMostNamedBlocks) + " more";
    return line;
}

std::string held_instead(const DifferenceRun& run) {
    switch (run.holds) {
    case DifferenceRun::Holds::kErased:
        return ": it is erased";
    case DifferenceRun::Holds::kOtherData:
        return ": it holds other valid data";
    case DifferenceRun::Holds::kRuined:
    case DifferenceRun::Holds::kNotKnown:
        break;
    }
    return "";
}

std::string chip_lines(const CheckResult& result) {
    std::string text;
    if (!result.blocks_of_chip)
        return text;
    const std::string erased = "erased blocks: " + std::to_string(result.blocks_of_chip->erased);
    if (result.chip && result.chip->units != 0) {
        add_line(text, flips_per_unit(*result.chip));
        add_line(text, directions(*result.chip) + "   " + erased);
    } else {
        add_line(text, erased);
    }
    return text;
}
