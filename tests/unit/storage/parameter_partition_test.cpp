// The parameter record in memory and the parameter partition with its copies.

#include "partition_fixture.h"

#include <gtest/gtest.h>

namespace storage_test {
namespace {

using test_support::all_bytes_are;
using test_support::Firmware;
using test_support::patterned;
using test_support::slice;

using Recorder = Recording<CEmmcStorage>;

const std::string kOpening = line("writing parameter...");
const std::string kSuccess = kOpening + redrawn("writing parameter...OK");
const std::string kTooSmall = kOpening + line("partition size is too small");

class ParameterRecord : public StorageTest {
protected:
    // The buffer's whole pages.
    static Bytes buffer_of(const Recorder& storage, std::size_t pages) {
        return Bytes(storage.m_paramBuffer, storage.m_paramBuffer + pages * storage.m_page_size);
    }

    static bool load_record(Recorder& storage, STRUCT_QZIMAGE_ITEM item) {
        bool loaded = false;
        EXPECT_EQ(output_of([&] { loaded = storage.make_param_buffer(item); }), "");
        return loaded;
    }
};

TEST_F(ParameterRecord, IsCopiedIntoWholePagesOfZeros) {
    for (const uint32_t page_kb : {1U, 2U, 3U, 64U}) {
        for (const std::size_t size : {1U, 1023U, 1024U, 1025U, 2048U, 3073U, 65537U}) {
            const Bytes record = patterned(size, 7);
            const Firmware firmware = firmware_with({{.name = "parameter", .data = record}});
            auto storage = make<Recorder>({.page_kb = page_kb});
            load(*storage, firmware);
            ASSERT_TRUE(load_record(*storage, item_in(firmware, 0)));
            EXPECT_EQ(storage->m_uiParamFileSize, size);
            const Bytes expected = padded(record, std::size_t{page_kb} * 1024);
            EXPECT_TRUE(same_bytes(buffer_of(*storage, expected.size() / storage->m_page_size), expected));
        }
    }
}

TEST_F(ParameterRecord, OfNoBytesIsLoaded) {
    const Firmware firmware = firmware_with({{.name = "parameter"}, {.name = "x", .data = Bytes(9)}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    EXPECT_TRUE(load_record(*storage, item_in(firmware, 0)));
    EXPECT_EQ(storage->m_uiParamFileSize, 0U);
}

TEST_F(ParameterRecord, MayEndWithTheFileButNotAfterIt) {
    const Bytes data = patterned(3000, 1);
    Firmware firmware = firmware_with({{.name = "parameter", .data = data}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    EXPECT_TRUE(load_record(*storage, item_in(firmware, 0)));
    const uint8_t* const kept = storage->m_paramBuffer;

    firmware.item("parameter").size = 3001;
    EXPECT_FALSE(load_record(*storage, item_in(firmware, 0)));
    EXPECT_EQ(storage->m_paramBuffer, kept) << "an earlier record stays after a failure";
    EXPECT_TRUE(same_bytes(buffer_of(*storage, 2), padded(data, 2048)));
}

TEST_F(ParameterRecord, OfAWildSizeIsRefused) {
    Firmware firmware = firmware_with({{.name = "parameter", .data = Bytes(100)}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    for (const uint32_t size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        firmware.item("parameter").size = size;
        EXPECT_FALSE(load_record(*storage, item_in(firmware, 0))) << size;
    }
    EXPECT_EQ(storage->m_paramBuffer, nullptr);
}

TEST_F(ParameterRecord, ReplacesAnEarlierOne) {
    const Firmware firmware =
        firmware_with({{.name = "first", .data = Bytes(5000, 1)}, {.name = "second", .data = Bytes(10, 2)}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    ASSERT_TRUE(load_record(*storage, item_in(firmware, 0)));
    ASSERT_TRUE(load_record(*storage, item_in(firmware, 1)));
    EXPECT_EQ(storage->m_uiParamFileSize, 10U);
    EXPECT_TRUE(same_bytes(buffer_of(*storage, 1), padded(Bytes(10, 2), 2048)));
}

TEST_F(ParameterRecord, PositionIsA32BitSum) {
    const Firmware firmware = firmware_with({{.name = "parameter", .data = Bytes(100)}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    item.offset = 16U - static_cast<uint32_t>(firmware.layout().package_offset);  // wraps to byte 16
    ASSERT_TRUE(load_record(*storage, item));
    EXPECT_TRUE(same_bytes(buffer_of(*storage, 1), padded(slice(firmware.build(), 16, 100), 2048)));
}

TEST_F(ParameterRecord, LargeItemMarksDoNotCount) {
    const Bytes record = patterned(500, 2);
    const Firmware firmware = firmware_with({{.name = "parameter", .data = record}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    const char marks[10] = {'H', 1, 0, 0, 0, 'H', 1, 0, 0, 0};
    std::memcpy(item.file + 50, marks, sizeof(marks));
    ASSERT_EQ(item_data_size(item), 0x100000000U + 500U);
    ASSERT_TRUE(load_record(*storage, item));
    EXPECT_EQ(storage->m_uiParamFileSize, 500U);
    EXPECT_TRUE(same_bytes(buffer_of(*storage, 1), padded(record, 2048)));
}

TEST_F(ParameterRecord, PageThatNoMemoryHoldsLeavesTheEarlierRecord) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    const Firmware firmware = firmware_with({{.name = "parameter", .data = Bytes(100, 1)}});
    auto storage = make<Recorder>();
    load(*storage, firmware);
    const STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    ASSERT_TRUE(load_record(*storage, item));
    storage->m_page_size = kHugePageKb * 1024;
    storage->m_page_size_sector = kHugePageKb * 2;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_FALSE(load_record(*storage, item));
    EXPECT_EQ(Bytes(storage->m_paramBuffer, storage->m_paramBuffer + 100), Bytes(100, 1));
}

// ---- the partition ----

class ParameterPartition : public ParameterRecord {
protected:
    // Writes a partition of `part_sectors` for a record of `record_size` bytes; the recorded pages and the
    // record stay in m_storage and m_record.
    int write(std::size_t record_size, uint32_t part_sectors, const Geometry& geometry = {.page_kb = 1},
              uint8_t fill_byte = 0) {
        m_record = patterned(record_size, 11);
        const Firmware firmware = firmware_with(
            {{.name = "parameter", .data = m_record}, {.name = "other", .data = Bytes(1, 0xEE)}});
        m_storage = make<Recorder>(geometry);
        load(*m_storage, firmware);
        m_storage->m_fill_byte = fill_byte;
        m_storage->m_image_fill_page_num = kUntouched;
        STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
        item.part_size = part_sectors;
        EXPECT_TRUE(m_storage->make_param_buffer(item));
        int result = 1;
        m_output = output_of([&] { result = m_storage->write_parameter(item); });
        return result;
    }

    void expect_written(std::size_t pages, std::size_t copies, std::size_t slot_pages) const {
        EXPECT_EQ(m_output, kSuccess);
        EXPECT_EQ(m_storage->m_image_fill_page_num, pages);
        EXPECT_EQ(m_storage->pages.size(), pages);
        for (const RecordedPage& page : m_storage->pages)
            ASSERT_EQ(page.length, m_storage->m_page_size);
        EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(),
                               parameter_pages(m_record, m_storage->m_page_size, pages, copies, slot_pages,
                                               m_storage->m_fill_byte)));
    }

    void expect_refused() const {
        EXPECT_EQ(m_output, kTooSmall);
        EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
        EXPECT_TRUE(m_storage->pages.empty());
    }

    std::unique_ptr<Recorder> m_storage{};
    Bytes m_record{};
    std::string m_output{};
};

TEST_F(ParameterPartition, HoldsEightCopiesWhenTheyFitExactly) {
    ASSERT_EQ(write(8 * 1024, 128), 0);
    expect_written(64, 8, 8);
}

TEST_F(ParameterPartition, FallsBackToFourCopiesWhenEightDoNotFit) {
    ASSERT_EQ(write(9 * 1024, 128), 0);
    expect_written(64, 4, 16);
    ASSERT_EQ(write(8 * 1024 + 1, 128), 0);  // one byte more takes a ninth page
    expect_written(64, 4, 16);
    ASSERT_EQ(write(8 * 1024, 126), 0);  // one page less of partition
    expect_written(63, 4, 15);
}

TEST_F(ParameterPartition, IsTooSmallWhenFourCopiesDoNotFit) {
    ASSERT_EQ(write(16 * 1024, 128), 0);
    expect_written(64, 4, 16);
    EXPECT_EQ(write(17 * 1024, 128), -1);
    expect_refused();
    EXPECT_EQ(write(16 * 1024, 126), -1);
    expect_refused();
}

TEST_F(ParameterPartition, PagesAfterTheLastSlotAreFilled) {
    ASSERT_EQ(write(2 * 1024, 140), 0);
    expect_written(70, 8, 8);
    ASSERT_EQ(write(2 * 1024, 2 * 11), 0);  // four slots of two pages and three pages after them
    expect_written(11, 4, 2);
}

TEST_F(ParameterPartition, RecordIsZeroPaddedWhereThePartitionIsFilled) {
    ASSERT_EQ(write(1500, 128, {.page_kb = 1}, 0xFF), 0);
    expect_written(64, 8, 8);
    EXPECT_TRUE(all_bytes_are(m_storage->pages[1].bytes, 0x00, 1500 - 1024, 2048 - 1500));
    EXPECT_EQ(m_storage->pages[2].bytes, Bytes(1024, 0xFF));
    EXPECT_EQ(m_storage->pages[63].bytes, Bytes(1024, 0xFF));
}

TEST_F(ParameterPartition, OfNoSectorsIsTooSmallForAnyRecord) {
    EXPECT_EQ(write(1, 0), -1);
    expect_refused();
}

TEST_F(ParameterPartition, EmptyRecordGivesFillPagesAlone) {
    ASSERT_EQ(write(0, 128), 0);
    expect_written(64, 8, 8);
    ASSERT_EQ(write(0, 2 * 7, {.page_kb = 1}, 0xFF), 0);  // slots of no pages
    expect_written(7, 8, 0);
    ASSERT_EQ(write(0, 0), 0);
    expect_written(0, 8, 0);
}

TEST_F(ParameterPartition, SectorsAreRoundedUpToWholePages) {
    ASSERT_EQ(write(100, 127), 0);
    expect_written(64, 8, 8);
    ASSERT_EQ(write(100, 129), 0);
    expect_written(65, 8, 8);
    ASSERT_EQ(write(100, 1, {.page_kb = 1}), -1);  // a single page is no place for four
    expect_refused();
    ASSERT_EQ(write(100, 14, {.page_kb = 1}), 0);
    expect_written(7, 4, 1);
    ASSERT_EQ(write(100, 7, {.page_kb = 1}), 0);  // four pages
    expect_written(4, 4, 1);
    ASSERT_EQ(write(100, 15, {.page_kb = 1}), 0);  // eight pages
    expect_written(8, 8, 1);
}

TEST_F(ParameterPartition, CountsInPagesOfAnySize) {
    ASSERT_EQ(write(5000, 100, {.page_kb = 3}), 0);  // 17 pages of six sectors
    expect_written(17, 8, 2);
    ASSERT_EQ(write(70000, 128 * 13 + 1, {.page_kb = 64}), 0);  // 14 pages: slots of three
    expect_written(14, 4, 3);
}

TEST_F(ParameterPartition, FlashTypeAndGrowthMakeNoDifference) {
    const Firmware firmware = firmware_with({{.name = "parameter", .part_size = 128, .data = Bytes(999, 5)}});
    for (const ENUM_FLASH_TYPE type : {FLASH_EMMC, FLASH_NOR, FLASH_SPI_NAND, FLASH_SLC_NAND}) {
        auto storage = make_base<Recording<CStorage>>(type, {.page_kb = 1});
        load(*storage, firmware);
        STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
        ASSERT_TRUE(storage->make_param_buffer(item));
        EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_parameter(item), 0); }), kSuccess);
        EXPECT_EQ(storage->pages.size(), 64U);
    }
}

TEST_F(ParameterPartition, LengthIsNotTheItemsButTheLoadedRecords) {
    ASSERT_EQ(write(2000, 128), 0);
    STRUCT_QZIMAGE_ITEM other{};
    other.part_size = 128;
    other.size = 20 * 1024;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(m_storage->write_parameter(other), 0); }), kSuccess);
    EXPECT_EQ(m_storage->pages.size(), 128U);
    EXPECT_TRUE(same_bytes(m_storage->pages[64].bytes, slice(m_record, 0, 1024)));
}

TEST_F(ParameterPartition, TwoKilobytesPerPageDoubleTheOutput) {
    const Bytes record = patterned(5000, 3);
    const Firmware firmware = firmware_with({{.name = "parameter", .part_size = 128, .data = record}});
    auto storage = make<Exposed<CEmmcStorage>>({.page_kb = 4, .page_2k = true});
    load(*storage, firmware);
    ASSERT_TRUE(storage->storage_init());
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    ASSERT_TRUE(storage->make_param_buffer(item));
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_parameter(item), 0); }), kSuccess);
    storage->close_output();

    // 16 pages of 4 KB: eight slots of two pages, which the record fills. Each page takes two flash pages.
    EXPECT_EQ(storage->m_image_fill_page_num, 16U);
    Bytes expected;
    for (int copy = 0; copy < 8; ++copy) {
        const Bytes pages = padded(record, 8192);
        for (std::size_t i = 0; i < pages.size(); i += 2048)
            test_support::put_bytes(expected, padded(slice(pages, i, 2048), 4096));
    }
    EXPECT_TRUE(same_bytes(out_image(), expected));
}

TEST_F(ParameterPartition, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    auto storage = make<Recorder>({.page_kb = kHugePageKb});
    uint8_t empty_record = 0;
    storage->m_paramBuffer = &empty_record;
    STRUCT_QZIMAGE_ITEM item{};
    item.part_size = 0xFFFFFFFF;
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_parameter(item), -2); }), kOpening);
    EXPECT_TRUE(storage->pages.empty());
    EXPECT_EQ(storage->m_image_fill_page_num, 0U);
}

TEST_F(ParameterPartition, PageThatCannotBeWrittenChangesNothing) {
    const Firmware firmware = firmware_with({{.name = "parameter", .part_size = 128, .data = Bytes(10, 1)}});
    auto storage = make<Refusing<Recorder>>({.page_kb = 1});
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    ASSERT_TRUE(storage->make_param_buffer(item));
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_parameter(item), 0); }), kSuccess);
    EXPECT_EQ(storage->pages.size(), 64U);
    EXPECT_EQ(storage->m_image_fill_page_num, 64U);
}

}  // namespace
}  // namespace storage_test
