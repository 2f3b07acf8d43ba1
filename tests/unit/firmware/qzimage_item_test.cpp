#include "firmware/item_table.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

using test_support::Bytes;
using test_support::put32_at;

// What the program does not read.
TEST(QZImageRecords, LieWhereTheFormatSays) {
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, machine_model), 8U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, machine_info), 42U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, manufacturer), 72U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, dwFWVer), 132U);
}

STRUCT_QZIMAGE_ITEM item_of(const Bytes& bytes) {
    STRUCT_QZIMAGE_ITEM item{};
    std::memcpy(&item, bytes.data(), sizeof(item));
    return item;
}

TEST(QZImageItem, WidensOffsetAndSizeByTheirMarks) {
    const struct {
        char offset_mark, size_mark;
        uint64_t offset, size;
    } rows[] = {{0, 0, 0x89ABCDEF, 0xFEDCBA98},           {'H', 0, 0xF1F2F3F489ABCDEF, 0xFEDCBA98},
                {0, 'H', 0x89ABCDEF, 0x05060708FEDCBA98}, {'H', 'H', 0xF1F2F3F489ABCDEF, 0x05060708FEDCBA98},
                {'h', 'h', 0x89ABCDEF, 0xFEDCBA98},       {'I', 'I', 0x89ABCDEF, 0xFEDCBA98},
                {'G', 'G', 0x89ABCDEF, 0xFEDCBA98},       {'\xFF', '\xFF', 0x89ABCDEF, 0xFEDCBA98}};
    for (const auto& row : rows) {
        Bytes bytes(112, 0);
        bytes[82] = static_cast<uint8_t>(row.offset_mark);
        put32_at(bytes, 83, 0xF1F2F3F4);
        bytes[87] = static_cast<uint8_t>(row.size_mark);
        put32_at(bytes, 88, 0x05060708);
        put32_at(bytes, 96, 0x89ABCDEF);
        put32_at(bytes, 108, 0xFEDCBA98);
        EXPECT_EQ(item_data_offset(item_of(bytes)), row.offset) << row.offset_mark << row.size_mark;
        EXPECT_EQ(item_data_size(item_of(bytes)), row.size) << row.offset_mark << row.size_mark;
    }
}

TEST(QZImageItem, HasANameThatEndsAtItsNulOrItsField) {
    Bytes bytes(112, 'x');
    EXPECT_EQ(item_name(item_of(bytes)), std::string(32, 'x'));
    bytes[31] = 0;
    EXPECT_EQ(item_name(item_of(bytes)), std::string(31, 'x'));
    test_support::put_text_at(bytes, 0, "parameter", 10);
    EXPECT_EQ(item_name(item_of(bytes)), "parameter");
    bytes[0] = 0;
    EXPECT_EQ(item_name(item_of(bytes)), "");
}

}  // namespace
