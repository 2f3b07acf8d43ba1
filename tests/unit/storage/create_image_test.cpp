// Runs of create_image that succeed: what they print and what lies in the image.

#include "create_image_fixture.h"
#include "support/boot_rom.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- the sample ----

// The partitions of the sample without a GPT, behind what the image holds already, and the padding at its
// end.
void place_sample_partitions(PlacedImage& image, const Firmware& firmware, const Geometry& geometry) {
    const uint32_t page = geometry.page_kb * 1024;
    const auto parameter_page_count = static_cast<std::size_t>(round_up(0x100 * 512, page) / page);
    image.place(0x2000 * 512, parameter_pages(firmware.items[0].data, page, parameter_page_count, 8,
                                              parameter_page_count / 8));
    for (std::size_t i = 1; i < 4; ++i)
        image.place((0x2000 + firmware.items[i].flash_offset) * 512,
                    partition_bytes(firmware.items[i], page));
    image.align(geometry.block_kb * 1024, page);
}

TEST_F(CreateImageTest, SampleForEmmcHasEveryPieceAtItsPlace) {
    for (const bool scrambled : {false, true}) {
        const Firmware firmware = sample_firmware({.scramble_stages = scrambled});
        EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                          partition_lines("boot", "00002100", 32) +
                                          partition_lines("misc", "00002180", 16) +
                                          partition_lines("rootfs", "000021c0", 10) + success_line);
        PlacedImage expected;
        place_emmc_boot_blocks(expected, firmware, {});
        place_sample_partitions(expected, firmware, {});
        EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
    }
}

TEST_F(CreateImageTest, SampleForNorHasItsSecondBootBlockOnA64KBBoundary) {
    const Firmware firmware = sample_firmware();
    write_firmware(firmware);
    const auto storage = make<Exposed<CNorStorage>>({.block_kb = 64, .page_kb = 1});
    EXPECT_EQ(run(*storage), start_lines + parameter_lines("00002000") +
                                 partition_lines("boot", "00002100", 64) +
                                 partition_lines("misc", "00002180", 32) +
                                 partition_lines("rootfs", "000021c0", 20) + success_line);
    PlacedImage expected;
    expected.place(64 * 512, boot_block(firmware));
    expected.place(256 * 512, boot_block(firmware));
    place_sample_partitions(expected, firmware, {.block_kb = 64, .page_kb = 1});
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

// With pages of 3 KB the partitions are no whole pages: each one ends inside its neighbour, which overwrites
// it.
TEST_F(CreateImageTest, PageThatDividesNothingOverlapsTheNeighbours) {
    const Firmware firmware = sample_firmware();
    const Geometry geometry{.block_kb = 512, .page_kb = 3};
    EXPECT_EQ(run_emmc(firmware, true, geometry),
              start_lines + parameter_lines("00002000") + partition_lines("boot", "00002100", 22) +
                  partition_lines("misc", "00002180", 11) + partition_lines("rootfs", "000021c0", 7) +
                  success_line);
    PlacedImage expected;
    place_emmc_boot_blocks(expected, firmware, geometry);
    place_sample_partitions(expected, firmware, geometry);
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

TEST_F(CreateImageTest, SampleWithAGptHasItsTableAtTheStart) {
    const Firmware firmware = sample_firmware({.gpt = true});
    EXPECT_EQ(run_emmc(firmware),
              "writing idblock...\nstart to write partitions...gpt=1\npreparing gpt at 0x00000000\n"
              "writing gpt...\n" +
                  redrawn("writing gpt...OK") + partition_lines("boot", "00002000", 32) +
                  partition_lines("misc", "00002080", 16) + partition_lines("rootfs", "000020c0", 10) +
                  success_line);
    const Bytes image = out_image();
    EXPECT_EQ(get16(image, 510), 0xAA55);
    EXPECT_EQ(to_text(slice(image, 512, 8)), "EFI PART");

    // 34 sectors of table in 9 pages; what follows is the usual.
    EXPECT_TRUE(all_bytes_are(image, 0, 34 * 512, 64 * 512 - 34 * 512));
    PlacedImage expected;
    expected.place(0, slice(image, 0, 34 * 512));
    place_emmc_boot_blocks(expected, firmware, {});
    for (std::size_t i = 1; i < 4; ++i)
        expected.place(firmware.items[i].flash_offset * 512, partition_bytes(firmware.items[i], 2048));
    expected.align(524288, 2048);
    EXPECT_TRUE(same_bytes(image, expected.bytes()));
}

TEST_F(CreateImageTest, NothingGoesToStandardError) {
    ::testing::internal::CaptureStderr();
    run_emmc(sample_firmware());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(CreateImageTest, BootRomFindsBothBlocksOfAFinishedImage) {
    const Firmware firmware = sample_firmware({.gpt = true, .scramble_stages = true});
    run_emmc(firmware);
    for (const uint64_t sector : {64U, 1088U}) {
        const BootBlock found = read_boot_block(out_image(), sector);
        ASSERT_TRUE(found.found) << sector;
        EXPECT_EQ(slice(found.stage1, 0, 3000), firmware.boot.loader.entries[0].data);
        EXPECT_EQ(slice(found.stage2, 0, 2048), firmware.boot.loader.entries[1].data);
    }
}

// A step across a gap counts 4 KB but takes two flash pages, as each holds 2 KB of data.
TEST_F(CreateImageTest, TwoKBPerPageDoublesPagesAndGaps) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "boot", .part_size = 64, .flash_offset = 64, .data = patterned(5000, 1)});
    const Geometry geometry{.block_kb = 4, .page_kb = 4, .page_2k = true};
    EXPECT_EQ(run_emmc(firmware, true, geometry), start_lines + parameter_lines("00002000") +
                                                      partition_lines("boot", "00002040", 8) + success_line);
    const auto spread = [](const Bytes& bytes) {
        Bytes pages;
        for (std::size_t at = 0; at < bytes.size(); at += 2048)
            put_bytes(pages, zero_padded(slice(bytes, at, 2048), 4096));
        return pages;
    };
    // The first gap of 32 KB takes 64 KB, so that the block ends at 80 KB.
    PlacedImage expected;
    const Bytes block = spread(boot_block(firmware));
    expected.place(65536, block);
    const uint64_t second = 65536 + block.size() + 2 * (1088 * 512 - 65536 - block.size());
    expected.place(second, block);
    const uint64_t end = second + block.size();
    const uint64_t parameter = end + 2 * (0x2000 * 512 - end);
    const Bytes records = spread(parameter_pages(firmware.items[0].data, 4096, 4, 4, 1));
    expected.place(parameter, records);
    // The output is far past the place of the next partition by now.
    expected.place(0x2040 * 512, spread(zero_padded(firmware.items[1].data, 32768)));
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

// ---- a bare boot container ----

TEST_F(CreateImageTest, BareBootContainerYieldsTheBootBlockAlone) {
    const Firmware firmware = sample_firmware();
    const std::string loader = (m_directory / "loader.bin").string();
    write_file(loader, firmware.boot.build());
    Exposed<CEmmcStorage> storage(512, 2, 0, loader, out_dir().string(), false);
    EXPECT_EQ(run(storage), "writing idblock...\n" + success_line);
    PlacedImage expected;
    place_emmc_boot_blocks(expected, firmware, {});
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
    EXPECT_NE(expected.bytes().size() % 524288, 0U) << "nothing is padded";
}

// ---- placement ----

TEST_F(CreateImageTest, PartitionBelowTheEndOverwritesAndShortensNothing) {
    Firmware firmware = bare_firmware();
    const Bytes first = patterned(40960, 1);
    const Bytes second = patterned(2048, 2);
    const Bytes third = patterned(4096, 3);
    firmware.items.push_back({.name = "first", .part_size = 80, .flash_offset = 64, .data = first});
    firmware.items.push_back({.name = "second", .part_size = 4, .flash_offset = 80, .data = second});
    firmware.items.push_back({.name = "third", .part_size = 8, .flash_offset = 142, .data = third});
    run_emmc(firmware);
    PlacedImage expected;
    place_emmc_boot_blocks(expected, firmware, {});
    expected.place(0x2000 * 512, parameter_pages(firmware.items[0].data, 2048, 8, 8, 1));
    expected.place(0x2040 * 512, first);
    expected.place(0x2050 * 512, second);
    expected.place(0x208E * 512, third);  // over the last sectors of the first one
    expected.align(524288, 2048);
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

TEST_F(CreateImageTest, PartitionMayOverwriteABootBlockOfAGptImage) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items[1].flash_offset = 60;
    run_emmc(firmware);
    EXPECT_EQ(slice(out_image(), 60 * 512, 5000), firmware.items[1].data);
}

TEST_F(CreateImageTest, PartitionSumThatWrapsStartsAtSectorZero) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "boot", .part_size = 4, .flash_offset = 0xFFFFE000, .data = patterned(2048, 1)});
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                      partition_lines("boot", "00000000", 1) + success_line);
    EXPECT_EQ(slice(out_image(), 0, 2048), patterned(2048, 1));
}

// ---- geometry ----

TEST_F(CreateImageTest, GeometryThatWrapsToTheUsualGivesTheUsualImage) {
    run_emmc(sample_firmware(), true, {.block_kb = 512, .page_kb = 2});
    const Bytes usual = out_image();
    run_emmc(sample_firmware(), true, {.block_kb = 2147483648U + 512, .page_kb = 2147483648U + 2});
    EXPECT_TRUE(same_bytes(out_image(), usual));
}

TEST_F(CreateImageTest, OutputLongerThanBeforeIsCutToTheNewImage) {
    run_emmc(sample_firmware());
    const Bytes image = out_image();
    write_file(out_path("out_image.img"), Bytes(image.size() + 5000, 0xEE));
    run_emmc(sample_firmware());
    EXPECT_TRUE(same_bytes(out_image(), image));
}

// ---- the hooks ----

class LoggingStorage : public Exposed<CEmmcStorage> {
public:
    using Exposed<CEmmcStorage>::Exposed;

    bool prepare_write_idblock() override {
        log.push_back("prepare idblock");
        return CEmmcStorage::prepare_write_idblock();
    }
    bool post_write_idblock() override {
        log.push_back("post idblock");
        return false;
    }
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override {
        log.push_back("prepare " + item_name(item));
        return CEmmcStorage::prepare_write_partition(item);
    }
    bool post_write_partition() override {
        log.push_back("post");
        return false;
    }

    std::vector<std::string> log{};
};

TEST_F(CreateImageTest, HooksAreCalledInOrderAndTheEndingOnesAreNotAsked) {
    write_firmware(sample_firmware({.gpt = true}));
    const auto storage = make<LoggingStorage>();
    run(*storage);
    EXPECT_EQ(storage->log, (std::vector<std::string>{"prepare idblock", "post idblock", "prepare gpt",
                                                      "post", "prepare boot", "post", "prepare misc", "post",
                                                      "prepare rootfs", "post"}));
}

}  // namespace
