#include "chip_options.h"

#include "../base/chip_result.h"
#include "../base/strict_number.h"

#include <algorithm>

namespace {

using Wrong = std::optional<std::string>;

// Of --bad-blocks. A chip has at most a few hundred.
constexpr std::size_t kMostBadBlocks = 65536;

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

Wrong take_number(const std::string& option, std::string_view value, uint64_t most, uint64_t& number) {
    const std::optional<uint64_t> read = strict_number(value);
    if (!read)
        return option + " is not a number: " + quoted(value);
    if (*read > most)
        return option + " is at most " + std::to_string(most) + ", not " + std::string(value);
    number = *read;
    return std::nullopt;
}

}  // namespace

std::optional<std::string> ChipOptionReader::take(int code, std::string_view value) {
    uint64_t number = 0;
    Wrong wrong;
    switch (code) {
    case kAt:
        return take_place(value);
    case kLayout:
        m_options.layout_file = value;
        return value.empty() ? Wrong("--layout= names no file") : std::nullopt;
    case kBadBlocks:
        return take_blocks(value);
    case kMaxBadBlocks:
        wrong = take_number("--max-bad-blocks", value, UINT32_MAX, number);
        m_options.max_bad_blocks = number;
        return wrong;
    case kMaxFlips:
        wrong = take_number("--max-flips", value, kCorrectableFlips, number);
        m_options.max_flips = static_cast<uint32_t>(number);
        return wrong;
    case kWarnFlips:
        wrong = take_number("--warn-flips", value, kCorrectableFlips, number);
        m_warn_flips = static_cast<uint32_t>(number);
        return wrong;
    case kDumpSpare:
        return take_number("--dump-spare", value, UINT32_MAX, m_options.dump_spare);
    default:
        return take_number("--skip", value, INT64_MAX, m_options.skip);
    }
}

std::optional<std::string> ChipOptionReader::take_place(std::string_view value) {
    const std::size_t sign = value.rfind('=');  // a name may hold one
    if (sign == value.npos || sign == 0)
        return "--at takes NAME=BLOCK, not " + quoted(value);
    const std::string name(value.substr(0, sign));
    for (const PlaceOption& place : m_options.at)
        if (place.name == name)
            return quoted(name) + " is in --at twice";
    uint64_t block = 0;
    if (const Wrong wrong = take_number("--at=" + name, value.substr(sign + 1), UINT32_MAX, block))
        return wrong;
    m_options.at.push_back({name, block});
    return std::nullopt;
}

std::optional<std::string> ChipOptionReader::take_blocks(std::string_view value) {
    for (;;) {
        const std::size_t end = std::min(value.find(','), value.size());
        uint64_t block = 0;
        if (const Wrong wrong = take_number("--bad-blocks", value.substr(0, end), UINT32_MAX, block))
            return wrong;
        if (m_options.bad_blocks.size() == kMostBadBlocks)
            return "--bad-blocks has more than " + std::to_string(kMostBadBlocks) + " blocks";
        m_options.bad_blocks.push_back(block);
        if (end == value.size())
            return std::nullopt;
        value.remove_prefix(end + 1);
    }
}

std::optional<std::string> ChipOptionReader::finish() {
    std::vector<uint64_t>& blocks = m_options.bad_blocks;
    std::sort(blocks.begin(), blocks.end());
    blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
    m_options.warn_flips = m_warn_flips.value_or(m_options.max_flips * 3 / 4);
    if (m_options.warn_flips > m_options.max_flips)
        return "--warn-flips is more than --max-flips";
    return std::nullopt;
}
