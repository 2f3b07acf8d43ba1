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

// ---- records ----

TEST(QZImageRecords, LieWhereTheFormatSays) {
    EXPECT_EQ(sizeof(STRUCT_QZIMAGE_HEAD), 102U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_HEAD, stReleaseTime), 14U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_HEAD, dwBootOffset), 25U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_HEAD, dwFWSize), 37U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_HEAD, reserved), 41U);
    EXPECT_EQ(sizeof(STRUCT_QZIMAGE_ITEM), 112U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, file), 32U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, part_size), 92U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, offset), 96U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, flash_offset), 100U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, usespace), 104U);
    EXPECT_EQ(offsetof(STRUCT_QZIMAGE_ITEM, size), 108U);
    EXPECT_EQ(sizeof(tagQZIMAGE_HDR), 1932U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, machine_model), 8U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, machine_info), 42U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, manufacturer), 72U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, dwFWVer), 132U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, item_count), 136U);
    EXPECT_EQ(offsetof(tagQZIMAGE_HDR, item), 140U);
    EXPECT_EQ(QZ_OS, 0U);
    EXPECT_EQ(ANDROID_OS, 1U);
}

// ---- the large-item marks ----

// An item made of 112 bytes, with 0x89ABCDEF for its offset and 0xFEDCBA98 for its size.
Bytes plain_item() {
    Bytes bytes(112, 0);
    put32_at(bytes, 96, 0x89ABCDEF);
    put32_at(bytes, 108, 0xFEDCBA98);
    return bytes;
}

STRUCT_QZIMAGE_ITEM item_of(const Bytes& bytes) {
    STRUCT_QZIMAGE_ITEM item{};
    std::memcpy(&item, bytes.data(), sizeof(item));
    return item;
}

TEST(QZImageItem, Has32BitValuesWithoutMarks) {
    Bytes bytes = plain_item();
    put32_at(bytes, 83, 0xFFFFFFFF);
    put32_at(bytes, 88, 0xFFFFFFFF);
    EXPECT_EQ(item_data_offset(item_of(bytes)), 0x89ABCDEFU);
    EXPECT_EQ(item_data_size(item_of(bytes)), 0xFEDCBA98U);
}

TEST(QZImageItem, WidensItsOffsetByTheMarkAtByte82) {
    Bytes bytes = plain_item();
    bytes[82] = 'H';
    put32_at(bytes, 83, 0xF1F2F3F4);
    EXPECT_EQ(item_data_offset(item_of(bytes)), 0xF1F2F3F489ABCDEFU);
    EXPECT_EQ(item_data_size(item_of(bytes)), 0xFEDCBA98U);
}

TEST(QZImageItem, WidensItsSizeByTheMarkAtByte87) {
    Bytes bytes = plain_item();
    bytes[87] = 'H';
    put32_at(bytes, 88, 0xF1F2F3F4);
    EXPECT_EQ(item_data_offset(item_of(bytes)), 0x89ABCDEFU);
    EXPECT_EQ(item_data_size(item_of(bytes)), 0xF1F2F3F4FEDCBA98U);
}

TEST(QZImageItem, TakesBothMarksAtOnce) {
    Bytes bytes = plain_item();
    bytes[82] = bytes[87] = 'H';
    put32_at(bytes, 83, 1);
    put32_at(bytes, 88, 2);
    EXPECT_EQ(item_data_offset(item_of(bytes)), 0x189ABCDEFU);
    EXPECT_EQ(item_data_size(item_of(bytes)), 0x2FEDCBA98U);
}

TEST(QZImageItem, KnowsACapitalHForAMarkAlone) {
    for (const int mark : {0, int{'h'}, int{'I'}, int{'G'}, 0xFF}) {
        Bytes bytes = plain_item();
        bytes[82] = bytes[87] = static_cast<uint8_t>(mark);
        put32_at(bytes, 83, 1);
        put32_at(bytes, 88, 1);
        EXPECT_EQ(item_data_offset(item_of(bytes)), 0x89ABCDEFU) << mark;
        EXPECT_EQ(item_data_size(item_of(bytes)), 0xFEDCBA98U) << mark;
    }
}

// ---- names ----

TEST(QZImageItem, HasANameThatEndsAtItsNul) {
    Bytes bytes(112, 'x');
    test_support::put_text_at(bytes, 0, "parameter", 10);
    EXPECT_EQ(item_name(item_of(bytes)), "parameter");
    bytes[0] = 0;
    EXPECT_EQ(item_name(item_of(bytes)), "");
}

TEST(QZImageItem, HasANameOfAtMost32Bytes) {
    Bytes bytes(112, 'x');
    EXPECT_EQ(item_name(item_of(bytes)), std::string(32, 'x'));
    bytes[31] = 0;
    EXPECT_EQ(item_name(item_of(bytes)), std::string(31, 'x'));
}

}  // namespace
