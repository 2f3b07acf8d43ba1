#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The parameter record: a head, the parameter text and a checksum. Head and checksum are not interpreted.
constexpr uint32_t kParameterHeadSize = 8;
constexpr uint32_t kParameterChecksumSize = 4;

/// One partition of the parameter text.
struct STRUCT_PARAM_ITEM {
    std::string szItemName;     ///< with its flags after a colon ("userdata:grow")
    uint32_t uiItemOffset = 0;  ///< start in sectors
    uint32_t uiItemSize = 0;    ///< in sectors; kGrowingPartition: up to the end of the storage
};
using PARAM_ITEM_VECTOR = std::vector<STRUCT_PARAM_ITEM>;

/// The GUID of a partition, if the parameter text gives one.
struct STRUCT_UUID_ITEM {
    std::string szUUidName;
    uint8_t szUUid[16] = {};  ///< in the byte order of a GPT
};
using UUID_ITEM_VECTOR = std::vector<STRUCT_UUID_ITEM>;

/// Appends the partitions of the "mtdparts" list in the text, without those that are malformed. False when no
/// line has the keyword. A null text counts as an empty one.
bool parse_partition_list(const char* text, PARAM_ITEM_VECTOR& items);

/// Splits "size@offset(name)", in sectors. False, with the results unspecified, when it is malformed.
bool parse_partition(const std::string& info, std::string& name, uint32_t& offset, uint32_t& size);

/// Replaces items by the GUIDs of all "uuid:" lines in the text. False when there are none.
bool parse_uuid_lines(const char* text, UUID_ITEM_VECTOR& items);

/// Splits "name=uuid" and removes the dashes from the UUID. False unless 32 characters of it remain.
bool parse_uuid_line(const std::string& info, std::string& name, std::string& digits);

/// Converts 32 hexadecimal digits to the 16 bytes of a GPT GUID. Any other character counts as 0.
void uuid_from_digits(const std::string& digits, uint8_t* uuid);

/// True when a line contains "TYPE" and "GPT", in any case, and does not start with "#".
bool declares_gpt(const char* text);
