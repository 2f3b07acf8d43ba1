// The item table of the package, and the data of its items.

#include "firmware/item_table.h"

#include "image_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace firmware_tests {
namespace {

using test_support::patterned;
using test_support::slice;

class ItemTableTest : public QZImageTest {
protected:
    // What the table reads as; the items are appended to m_items, and their image is m_image.
    template <typename Image>
    ItemTableResult read(const Image& image) {
        EXPECT_EQ(init(image), 0);
        return read_item_table(*m_image, m_items);
    }

    // A firmware of count items without data, named "0", "1" and so on.
    static Firmware firmware_of(std::size_t count) {
        Firmware firmware = small_firmware();
        for (std::size_t i = 0; i < count; ++i)
            firmware.items.push_back({.name = std::to_string(i)});
        return firmware;
    }

    std::vector<STRUCT_QZIMAGE_ITEM> m_items{};
};

TEST_F(ItemTableTest, ItemsAreAppendedInTheirOrder) {
    Firmware firmware = firmware_of(1);
    firmware.items.push_back({.name = "boot",
                              .file = "boot.img",
                              .part_size = 0x11223344,
                              .flash_offset = 0x55667788,
                              .data = patterned(100, 1),
                              .use_space = 0x01020304});
    m_items.resize(1);
    ASSERT_EQ(read(firmware), ItemTableResult::kRead);
    ASSERT_EQ(m_items.size(), 3U);
    EXPECT_EQ(item_name(m_items[1]), "0");
    const STRUCT_QZIMAGE_ITEM& item = m_items[2];
    EXPECT_EQ(item_name(item), "boot");
    EXPECT_EQ(std::string(item.file), "boot.img");
    EXPECT_EQ(item.part_size, 0x11223344U);
    EXPECT_EQ(item.flash_offset, 0x55667788U);
    EXPECT_EQ(item.usespace, 0x01020304U);
    EXPECT_EQ(item.size, 100U);
}

TEST_F(ItemTableTest, CountDecidesAndNotWhatFollows) {
    for (const int32_t count : {1, 2, 16, 17}) {
        Firmware firmware = firmware_of(17);
        firmware.item_count = count;
        m_items.clear();
        EXPECT_EQ(read(firmware), ItemTableResult::kRead);
        EXPECT_EQ(m_items.size(), static_cast<std::size_t>(count));
        EXPECT_EQ(item_name(m_items.back()), std::to_string(count - 1));
    }
}

TEST_F(ItemTableTest, CountBelowOneMeansNoItemsOrNoTable) {
    using enum ItemTableResult;
    Firmware firmware = firmware_of(3);
    for (const auto& [count, result] : {std::pair{0, kNoItems},
                                        {-1, kNoItems},
                                        {-12, kNoItems},
                                        {-1000, kNoTable},
                                        {INT32_MIN, kNoTable}}) {
        firmware.item_count = count;
        EXPECT_EQ(read(firmware), result) << count;
    }
    EXPECT_TRUE(m_items.empty());
}

TEST_F(ItemTableTest, ExtensionIsAddedToTheCount) {
    Firmware firmware = firmware_of(5);
    firmware.item_count_extension = 7;  // taken off the count, which is -2 then
    ASSERT_EQ(read(firmware), ItemTableResult::kRead);
    EXPECT_EQ(m_items.size(), 5U);
}

TEST_F(ItemTableTest, AtMost583ItemsFit) {
    ASSERT_EQ(read(firmware_of(583)), ItemTableResult::kRead);
    EXPECT_EQ(m_items.size(), 583U);
    EXPECT_EQ(item_name(m_items.back()), "582");
    m_items.clear();
    EXPECT_EQ(read(firmware_of(584)), ItemTableResult::kNoTable);
    EXPECT_TRUE(m_items.empty());
}

TEST_F(ItemTableTest, PackageHeaderMustLieInTheFile) {
    Firmware firmware = firmware_of(1);
    firmware.md5.clear();
    const auto package = static_cast<std::size_t>(firmware.layout().package_offset);
    Bytes bytes = firmware.build();
    bytes.resize(package + 4096);
    EXPECT_EQ(read(slice(bytes, 0, package + 1931)), ItemTableResult::kNoHeader);
    EXPECT_EQ(read(slice(bytes, 0, package + 1932)), ItemTableResult::kNoTable) << "it is read in 2 KB units";
    EXPECT_EQ(read(slice(bytes, 0, package + 2047)), ItemTableResult::kNoTable);
    EXPECT_EQ(read(slice(bytes, 0, package + 2048)), ItemTableResult::kRead);
}

TEST_F(ItemTableTest, NothingIsReadBeforeAFirmwareIsLoaded) {
    EXPECT_EQ(read_item_table(*m_image, m_items), ItemTableResult::kNoHeader);
}

// ---- data of an item ----

TEST_F(ItemTableTest, DataIsReadFromItsPlaceOn) {
    Firmware firmware = firmware_of(1);
    firmware.md5.clear();
    firmware.item_alignment = 1;
    firmware.items.push_back({.name = "boot", .data = patterned(5000, 1)});
    firmware.items.push_back({.name = "last", .data = patterned(5000, 2)});
    ASSERT_EQ(read(firmware), ItemTableResult::kRead);
    Bytes out(5000);
    EXPECT_TRUE(read_item_data(*m_image, m_items[1], 0, 5000, out.data()));
    EXPECT_EQ(out, patterned(5000, 1));
    EXPECT_TRUE(read_item_data(*m_image, m_items[2], 4000, 1000, out.data()));
    EXPECT_EQ(slice(out, 0, 1000), slice(patterned(5000, 2), 4000, 1000));
    EXPECT_FALSE(read_item_data(*m_image, m_items[2], 4001, 1000, out.data())) << "the file ends with it";
}

TEST_F(ItemTableTest, DataBeyond4GiBIsRead) {
    Firmware firmware = firmware_of(0);
    firmware.items.push_back(
        {.name = "boot", .data = patterned(5000, 1), .offset = (uint64_t{1} << 32) + 4096});
    ASSERT_EQ(read(firmware), ItemTableResult::kRead);
    Bytes out(5000);
    EXPECT_TRUE(read_item_data(*m_image, m_items[0], 0, 5000, out.data()));
    EXPECT_EQ(out, patterned(5000, 1));
}

}  // namespace
}  // namespace firmware_tests
