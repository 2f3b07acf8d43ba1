// Plain images that cannot be read or written, and long ones that are read in large pieces.

#include "raw_image_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace {

using namespace storage_test;
using namespace test_support;

TEST_F(RawImageTest, FirmwareThatEndsEarlyKeepsThePagesBefore) {
    const Bytes data = patterned(10 * 2048, 1);
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = "boot", .part_size = 80, .data = data}};
    write_firmware(firmware);
    // The last page of data lacks a byte.
    const uint64_t end = firmware.layout().item_data[0] + data.size() - 1;
    std::filesystem::resize_file(firmware_path(), end);
    m_storage = make_base<Recording<CStorage>>(FLASH_EMMC);
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    m_storage->m_image_fill_page_num = kUntouched;
    m_item = item_in(firmware, 0);

    std::string output = "writing boot...\n";
    for (int percent = 5; percent <= 45; percent += 5)  // of 20 pages
        output += redrawn("writing boot..." + std::to_string(percent) + "%");
    expect_written(output + "failed to get data from firmware\n", -2);
    EXPECT_TRUE(same_bytes(m_storage->recorded_bytes(), slice(data, 0, 9 * 2048)));
    EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
}

TEST_F(RawImageTest, DataAfterTheFirmwareFailsAtTheFirstPage) {
    use(FLASH_SPI_NAND, {}, patterned(10, 1));
    m_item.offset = 0xFFFFFFFF;
    expect_written("writing boot...\nfailed to get data from firmware\n", -2);
    EXPECT_TRUE(m_storage->pages.empty());
}

TEST_F(RawImageTest, PageThatNoMemoryHoldsHasACodeOfItsOwn) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers";
    use(FLASH_EMMC, {.page_kb = 1024 * 1024}, patterned(10, 1), 16);
    const MemoryLimit limit(256 * 1024 * 1024);
    expect_written("writing boot...\n", -3);
    EXPECT_EQ(m_storage->m_image_fill_page_num, kUntouched);
}

// A page that cannot be written stops nothing: the verdict comes at the end of the run.
TEST_F(RawImageTest, ResultOfAPageWriteIsNotAskedFor) {
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = "boot", .part_size = 40, .data = patterned(5000, 1)}};
    const auto storage = make_base<Refusing<Recording<CStorage>>>(FLASH_EMMC);
    load(*storage, firmware);
    STRUCT_QZIMAGE_ITEM item = item_in(firmware, 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(storage->write_image(item), 0); }), writing_lines("boot", 10));
    EXPECT_EQ(storage->pages.size(), 10U);
    EXPECT_EQ(storage->m_image_fill_page_num, 10U);
}

TEST_F(RawImageTest, FailedWriteEndsReadingButPrintsEveryLine) {
    use(FLASH_EMMC, {}, patterned(20480, 1), 1600);
    m_storage->m_fout.open(out_path("boot.img").string());
    m_storage->m_fout.give_up(EIO);
    m_item.offset = 0xFFFFF000;  // reading would fail
    expect_written(writing_lines("boot", 400));
    EXPECT_TRUE(m_storage->pages.empty());
    EXPECT_EQ(m_storage->m_image_fill_page_num, 400U);
}

// Long runs of pages are read straight to where the output gathers its bytes.
TEST_F(RawImageTest, LongImageIsTheSameThroughTheOutput) {
    const Bytes data = patterned(3 * 1024 * 1024 + 12345, 1);
    for (const uint32_t page_kb : {1U, 3U, 96U, 160U, 1500U}) {
        use(FLASH_EMMC, {.page_kb = page_kb}, data);
        m_storage->forward = true;
        const std::string name = "boot" + std::to_string(page_kb) + ".img";
        m_storage->m_fout.open(out_path(name).string());
        m_storage->m_fout.write("xyz", 3);
        const uint64_t page = page_kb * 1024;
        const auto pages = static_cast<uint32_t>(round_up(data.size(), page) / page);
        expect_written(writing_lines("boot", pages));
        expect_pages(data, pages);
        m_storage->close_output();
        EXPECT_TRUE(same_bytes(read_file(out_path(name)), to_bytes("xyz") + zero_padded(data, pages * page)))
            << page_kb;
    }
}

// What lies after the item in the firmware is not read in with its last pages.
TEST_F(RawImageTest, LongImageEndsWhereTheNextBegins) {
    const Bytes data = patterned(1536 * 1024 + 700, 1);
    Firmware firmware = sample_firmware();
    firmware.item_alignment = 1;
    firmware.items = {{.name = "boot", .part_size = 4096, .data = data},
                      {.name = "next", .part_size = 16384, .data = patterned(4 << 20, 2)}};
    for (const ENUM_FLASH_TYPE type : {FLASH_SPI_NAND, FLASH_EMMC}) {
        use(type, {}, firmware);
        m_storage->forward = true;
        m_storage->m_fout.open(out_path("boot.img").string());
        const uint32_t pages = type == FLASH_EMMC ? 1024 : 769;
        expect_written(writing_lines("boot", pages));
        expect_pages(data, pages);
        m_storage->close_output();
        EXPECT_TRUE(same_bytes(read_file(out_path("boot.img")), zero_padded(data, pages * 2048)));
    }
}

TEST_F(RawImageTest, LongImageWithTwoKBPerPageIsSpread) {
    const Bytes data = patterned(1024 * 1024 + 12345, 1);
    use(FLASH_EMMC, {.page_kb = 4, .page_2k = true}, data);
    m_storage->forward = true;
    m_storage->m_fout.open(out_path("boot.img").string());
    expect_written(writing_lines("boot", 260));
    m_storage->close_output();
    const Bytes padded_data = zero_padded(data, 520 * 2048);
    Bytes expected;
    for (std::size_t at = 0; at < 520 * 2048; at += 2048)
        put_bytes(expected, zero_padded(slice(padded_data, at, 2048), 4096));
    EXPECT_TRUE(same_bytes(read_file(out_path("boot.img")), expected));
}

TEST_F(RawImageTest, LongImageThatEndsEarlyKeepsEveryWholePage) {
    Firmware firmware = sample_firmware();
    firmware.items = {{.name = "boot", .part_size = kGrowsToEnd, .data = patterned(2048 * 1000, 1)}};
    write_firmware(firmware);
    std::filesystem::resize_file(firmware_path(), firmware.layout().item_data[0] + 2048 * 777 + 5);
    m_storage = make_base<Recording<CStorage>>(FLASH_NOR);
    ASSERT_EQ(m_storage->m_update_image_ptr->ObjectInit(firmware_path().string(), false), 0);
    m_item = item_in(firmware, 0);
    m_storage->forward = true;
    m_storage->m_fout.open(out_path("boot.img").string());
    std::string output = "writing boot...\n";
    for (int percent = 1; percent <= 77; ++percent)
        output += redrawn("writing boot..." + std::to_string(percent) + "%");
    expect_written(output + "failed to get data from firmware\n", -2);
    m_storage->close_output();
    EXPECT_TRUE(same_bytes(read_file(out_path("boot.img")), slice(firmware.items[0].data, 0, 2048 * 777)));
}

TEST_F(RawImageTest, WritingStopsWithTheFirstFailedBlock) {
    const Bytes data = patterned(4 << 20, 1);
    use(FLASH_EMMC, {}, data, 0x2800);
    m_storage->forward = true;
    m_storage->m_fout.open("/dev/full");
    expect_written(writing_lines("boot", 2560));
    // What is gathered at once, 1 MB, is the most that is prepared in vain.
    EXPECT_LE(m_storage->pages.size(), 512U);
    EXPECT_EQ(m_storage->m_write_failure.path, "/dev/full");
    EXPECT_EQ(m_storage->m_write_failure.error, ENOSPC);
}

}  // namespace
