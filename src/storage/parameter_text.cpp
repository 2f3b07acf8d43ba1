#include "../common/text_pieces.h"
#include "storage_impl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

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

uint8_t hexadecimal_value(char digit) {
    if (digit >= '0' && digit <= '9')
        return static_cast<uint8_t>(digit - '0');
    if (digit >= 'a' && digit <= 'f')
        return static_cast<uint8_t>(digit - 'a' + 10);
    if (digit >= 'A' && digit <= 'F')
        return static_cast<uint8_t>(digit - 'A' + 10);
    return 0;
}

}  // namespace

bool CStorage::parse_parameter(const char* pParameter, PARAM_ITEM_VECTOR& vecItem) {
    std::string_view text(pParameter != nullptr ? pParameter : "");
    bool found = false;
    std::string_view line;
    while (next_line(text, line)) {
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
            std::string info(piece);
            STRUCT_PARAM_ITEM item;
            if (parse_partition_info(info, item.szItemName, item.uiItemOffset, item.uiItemSize))
                vecItem.push_back(std::move(item));
        }
        break;
    }
    return found;
}

bool CStorage::parse_partition_info(std::string& strPartInfo, std::string& strName, uint32_t& uiOffset,
                                    uint32_t& uiLen) {
    const std::size_t at = strPartInfo.find('@');
    if (at == std::string::npos)
        return false;
    const std::string size = trimmed(strPartInfo.substr(0, at));
    if (size.find('-') != std::string::npos)
        uiLen = kGrowingPartition;
    else if (!scan_sectors(size, uiLen))
        return false;

    const std::size_t open = strPartInfo.find('(', at);
    if (open == std::string::npos ||
        !scan_sectors(trimmed(strPartInfo.substr(at + 1, open - at - 1)), uiOffset))
        return false;

    const std::size_t close = strPartInfo.find(')', open);
    if (close == std::string::npos)
        return false;
    strName = trimmed(strPartInfo.substr(open + 1, close - open - 1));
    return true;
}

bool CStorage::get_uuid_from_parameter(const char* pParameter, UUID_ITEM_VECTOR& vecItem) {
    vecItem.clear();
    std::string_view text(pParameter != nullptr ? pParameter : "");
    std::string_view line;
    while (next_line(text, line)) {
        const std::size_t keyword = line.find(kUuidKeyword);
        if (keyword == std::string::npos)
            continue;
        std::string info(line.substr(keyword + std::strlen(kUuidKeyword)));
        STRUCT_UUID_ITEM item;
        std::string uuid;
        if (!parse_uuid(info, item.szUUidName, uuid))
            continue;
        string_to_uuid(uuid, item.szUUid);
        vecItem.push_back(std::move(item));
    }
    return !vecItem.empty();
}

bool CStorage::parse_uuid(std::string& strUuidInfo, std::string& strName, std::string& strUUid) {
    const std::size_t equals = strUuidInfo.find('=');
    if (equals == std::string::npos)
        return false;
    strName = trimmed(strUuidInfo.substr(0, equals));
    strUUid = trimmed(strUuidInfo.substr(equals + 1));
    strUUid.erase(std::remove(strUUid.begin(), strUUid.end(), '-'), strUUid.end());
    return strUUid.size() == kUuidDigits;
}

void CStorage::string_to_uuid(std::string strUUid, uint8_t* uuid) {
    std::memset(uuid, 0, 16);
    const std::size_t digits = std::min(strUUid.size(), kUuidDigits);
    for (std::size_t i = 0; i < digits; ++i) {
        const uint8_t value = hexadecimal_value(strUUid[i]);
        uuid[i / 2] = static_cast<uint8_t>(uuid[i / 2] + (i % 2 == 0 ? value << 4 : value));
    }
    // A GPT keeps the first three groups little-endian.
    std::reverse(uuid, uuid + 4);
    std::swap(uuid[4], uuid[5]);
    std::swap(uuid[6], uuid[7]);
}
