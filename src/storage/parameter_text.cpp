#include "parameter_text.h"

#include "../common/hexadecimal.h"
#include "../common/lower_case.h"
#include "../common/text_pieces.h"
#include "storage_units.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

constexpr char kPartitionListKeyword[] = "mtdparts";
constexpr char kUuidKeyword[] = "uuid:";
constexpr std::size_t kUuidDigits = 32;

std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return std::string(text.substr(first, text.find_last_not_of(' ') - first + 1));
}

bool scan_sectors(const std::string& text, uint32_t& value) {
    unsigned scanned = 0;
    if (std::sscanf(text.c_str(), "0x%x", &scanned) != 1)
        return false;
    value = scanned;
    return true;
}

}  // namespace

bool parse_partition_list(const char* text, PARAM_ITEM_VECTOR& items) {
    std::string_view rest(text != nullptr ? text : "");
    bool found = false;
    std::string_view line;
    while (next_line(rest, line)) {
        const std::size_t keyword = line.find(kPartitionListKeyword);
        if (keyword == std::string::npos)
            continue;
        found = true;
        const std::size_t colon = line.find(':', keyword);
        if (colon == std::string::npos)
            continue;

        std::string_view list = line.substr(colon + 1);
        std::string_view piece;
        while (next_piece(list, ',', piece)) {
            STRUCT_PARAM_ITEM item;
            if (parse_partition(std::string(piece), item.szItemName, item.uiItemOffset, item.uiItemSize))
                items.push_back(std::move(item));
        }
        break;
    }
    return found;
}

bool parse_partition(const std::string& info, std::string& name, uint32_t& offset, uint32_t& size) {
    const std::size_t at = info.find('@');
    if (at == std::string::npos)
        return false;
    const std::string size_text = trimmed(info.substr(0, at));
    if (size_text.find('-') != std::string::npos)
        size = kGrowingPartition;
    else if (!scan_sectors(size_text, size))
        return false;

    const std::size_t open = info.find('(', at);
    if (open == std::string::npos || !scan_sectors(trimmed(info.substr(at + 1, open - at - 1)), offset))
        return false;

    const std::size_t close = info.find(')', open);
    if (close == std::string::npos)
        return false;
    name = trimmed(info.substr(open + 1, close - open - 1));
    return true;
}

bool parse_uuid_lines(const char* text, UUID_ITEM_VECTOR& items) {
    items.clear();
    std::string_view rest(text != nullptr ? text : "");
    std::string_view line;
    while (next_line(rest, line)) {
        const std::size_t keyword = line.find(kUuidKeyword);
        if (keyword == std::string::npos)
            continue;
        const std::string info(line.substr(keyword + std::strlen(kUuidKeyword)));
        STRUCT_UUID_ITEM item;
        std::string digits;
        if (!parse_uuid_line(info, item.szUUidName, digits))
            continue;
        uuid_from_digits(digits, item.szUUid);
        items.push_back(std::move(item));
    }
    return !items.empty();
}

bool parse_uuid_line(const std::string& info, std::string& name, std::string& digits) {
    const std::size_t equals = info.find('=');
    if (equals == std::string::npos)
        return false;
    name = trimmed(info.substr(0, equals));
    digits = trimmed(info.substr(equals + 1));
    digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
    return digits.size() == kUuidDigits;
}

void uuid_from_digits(const std::string& digits, uint8_t* uuid) {
    std::memset(uuid, 0, 16);
    for (std::size_t i = 0; i < std::min(digits.size(), kUuidDigits); ++i) {
        const int value = std::max(hexadecimal_value(digits[i]), 0);
        uuid[i / 2] = static_cast<uint8_t>(uuid[i / 2] + (i % 2 == 0 ? value << 4 : value));
    }
    // In a GPT the first three groups are little-endian.
    std::reverse(uuid, uuid + 4);
    std::swap(uuid[4], uuid[5]);
    std::swap(uuid[6], uuid[7]);
}

bool declares_gpt(const char* text) {
    std::string_view rest(text);
    std::string_view line;
    while (next_line(rest, line)) {
        const std::string lower = lower_case(std::string(line));
        if (!line.starts_with('#') && lower.find("type") != std::string::npos &&
            lower.find("gpt") != std::string::npos)
            return true;
    }
    return false;
}
