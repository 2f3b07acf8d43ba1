#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The parameter record: a head, the parameter text, and a checksum after it. Neither is interpreted.
constexpr uint32_t kParameterHeadSize = 8;
constexpr uint32_t kParameterChecksumSize = 4;

/// One partition of the parameter text.
struct STRUCT_PARAM_ITEM {
    std::string szItemName;     ///< with any suffix after a colon ("userdata:grow")
    uint32_t uiItemOffset = 0;  ///< start in sectors
    uint32_t uiItemSize = 0;    ///< in sectors; 0xFFFFFFFF: grows to the end of the storage
};
using PARAM_ITEM_VECTOR = std::vector<STRUCT_PARAM_ITEM>;

/// The fixed GUID that the parameter text gives to a partition.
struct STRUCT_UUID_ITEM {
    std::string szUUidName;
    uint8_t szUUid[16] = {};  ///< in the byte order of a GPT
};
using UUID_ITEM_VECTOR = std::vector<STRUCT_UUID_ITEM>;

/// Appends the partitions of the text's "mtdparts" list; pieces that do not parse are dropped. False when no
/// line has the keyword. A null text counts as an empty one.
bool parse_partition_list(const char* text, PARAM_ITEM_VECTOR& items);

/// Splits "size@offset(name)"; sizes in sectors. False when it is malformed; the results are then
/// meaningless.
bool parse_partition(const std::string& info, std::string& name, uint32_t& offset, uint32_t& size);

/// Replaces items by all "uuid:" lines of the text. False when there is none.
bool parse_uuid_lines(const char* text, UUID_ITEM_VECTOR& items);

/// Splits "name=uuid" and removes the dashes of the UUID. False unless 32 characters remain.
bool parse_uuid_line(const std::string& info, std::string& name, std::string& digits);

/// Turns 32 hexadecimal digits into the 16 bytes of a GPT GUID; another character counts as 0.
void uuid_from_digits(const std::string& digits, uint8_t* uuid);

/// True when a line that is not a comment has the words "TYPE" and "GPT", in any case.
bool declares_gpt(const char* text);
