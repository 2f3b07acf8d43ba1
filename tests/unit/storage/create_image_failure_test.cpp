// Runs of create_image that fail: the line that says why, and what stays in the output.

#include "create_image_fixture.h"
#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using namespace storage_test;
using namespace test_support;

class CreateImageFailureTest : public CreateImageTest {
protected:
    // A run on the firmware's first `size` bytes.
    std::string run_cut(const Firmware& firmware, uint64_t size, bool result = false) {
        write_firmware(firmware);
        std::filesystem::resize_file(firmware_path(), size);
        return run(*make<Exposed<CEmmcStorage>>(), result);
    }

    // The output holds the boot blocks and nothing else.
    void expect_boot_blocks_only(const Firmware& firmware) {
        PlacedImage expected;
        place_emmc_boot_blocks(expected, firmware, {});
        EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
    }
};

// ---- boot block ----

TEST_F(CreateImageFailureTest, BootBlockFailureHasItsCode) {
    Firmware no_boot = sample_firmware();
    no_boot.boot.loader.entries[1].name = "Flashboots";
    EXPECT_EQ(run_emmc(no_boot, false),
              "writing idblock...\n" + error_line("failed to write idblock,ret=-1"));
    EXPECT_EQ(out_image(), Bytes());

    Firmware no_data = sample_firmware();
    no_data.boot.loader.entries.erase(no_data.boot.loader.entries.begin());
    EXPECT_EQ(run_emmc(no_data, false),
              "writing idblock...\n" + error_line("failed to write idblock,ret=-2"));

    Firmware unreadable = sample_firmware();
    unreadable.boot.loader.entries[0].data_offset = 0x00100000;
    EXPECT_EQ(run_emmc(unreadable, false), "writing idblock...\nFailed to create idblock,ret=-4\n" +
                                               error_line("failed to write idblock,ret=-4"));
    EXPECT_EQ(out_image(), Bytes());
}

class RefusingStorage : public Exposed<CEmmcStorage> {
public:
    using Exposed<CEmmcStorage>::Exposed;

    bool prepare_write_idblock() override {
        return refused != "idblock" && CEmmcStorage::prepare_write_idblock();
    }
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override {
        return refused != item_name(item) && CEmmcStorage::prepare_write_partition(item);
    }
    bool post_write_partition() override {
        ++ended;
        return true;
    }

    std::string refused{};
    int ended = 0;
};

TEST_F(CreateImageFailureTest, LayoutMayRefuseTheBootBlock) {
    write_firmware(sample_firmware());
    const auto storage = make<RefusingStorage>();
    storage->refused = "idblock";
    EXPECT_EQ(run(*storage, false), "writing idblock...\n" + error_line("failed to write idblock,ret=-3"));
}

TEST_F(CreateImageFailureTest, BootBlockBeyondTheMemoryHasItsCode) {
    if (!memory_can_be_limited)
        GTEST_SKIP() << "needs a build without sanitizers";
    write_firmware(sample_firmware());
    const auto storage = make<Exposed<CEmmcStorage>>({.block_kb = 2097152});
    const MemoryLimit limit(256 * 1024 * 1024);
    EXPECT_EQ(run(*storage, false), "writing idblock...\n" + error_line("failed to write idblock,ret=-5"));
}

// ---- item table ----

TEST_F(CreateImageFailureTest, PackageHeaderMustBeThereToItsLastByte) {
    const Firmware firmware = bare_firmware();
    const uint64_t package = firmware.layout().package_offset;
    for (const uint64_t bytes : {0U, 1U, 1931U}) {
        EXPECT_EQ(run_cut(firmware, package + bytes),
                  "writing idblock...\n" + error_line("failed to get header of firmware"));
        expect_boot_blocks_only(firmware);
    }
}

TEST_F(CreateImageFailureTest, TableMustBeThereToTheEndOfItsLastUnit) {
    const Firmware firmware = bare_firmware();
    const uint64_t package = firmware.layout().package_offset;
    for (const uint64_t bytes : {1932U, 2047U}) {
        EXPECT_EQ(run_cut(firmware, package + bytes),
                  "writing idblock...\n" + error_line("failed to get extended info of firmware"));
        expect_boot_blocks_only(firmware);
    }
    // With the whole unit the table is read, and the parameter record is what is missing.
    EXPECT_EQ(run_cut(firmware, package + 2048),
              "writing idblock...\n" + error_line("failed to create param buffer"));
}

TEST_F(CreateImageFailureTest, TableBeyond65536BytesIsRefused) {
    Firmware firmware = bare_firmware();
    firmware.items[0].data.resize(4 << 20);  // there would be enough to read
    for (const int32_t count : {584, 585, 65535, 0x01249249, 0x7FFFFFFF}) {
        firmware.item_count = count;
        EXPECT_EQ(run_emmc(firmware, false),
                  "writing idblock...\n" + error_line("failed to get extended info of firmware"))
            << count;
    }
    // The extension counts as well.
    firmware.item_count = 583;
    firmware.item_count_extension = 1;
    EXPECT_EQ(run_emmc(firmware, false),
              "writing idblock...\n" + error_line("failed to get extended info of firmware"));
    firmware.item_count = 0x7FFFFFFF;
    firmware.item_count_extension = 0xFFFF;
    EXPECT_EQ(run_emmc(firmware, false),
              "writing idblock...\n" + error_line("failed to get extended info of firmware"));
}

TEST_F(CreateImageFailureTest, TableOf583ItemsEndsWithTheBuffer) {
    // 583 records that are all zero but the first: they are empty, and nothing is read behind the buffer.
    Firmware firmware = bare_firmware();
    firmware.items[0].offset = 131072;
    firmware.item_count = 583;
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);
}

TEST_F(CreateImageFailureTest, CountBelowOneHasNoItems) {
    Firmware firmware = bare_firmware();
    for (const int32_t count : {0, -1}) {
        firmware.item_count = count;
        EXPECT_EQ(run_emmc(firmware, false),
                  "writing idblock...\n" + error_line("not found any of partition items in the firmware"))
            << count;
        expect_boot_blocks_only(firmware);
    }
    firmware.item_count = -21;
    firmware.item_count_extension = 20;
    EXPECT_EQ(run_emmc(firmware, false),
              "writing idblock...\n" + error_line("not found any of partition items in the firmware"));
}

TEST_F(CreateImageFailureTest, LengthOfATableBelowZeroCannotBeRead) {
    Firmware firmware = bare_firmware();
    for (const int32_t count : {-100, -65536, INT32_MIN + 1, INT32_MIN}) {
        firmware.item_count = count;
        EXPECT_EQ(run_emmc(firmware, false),
                  "writing idblock...\n" + error_line("failed to get extended info of firmware"))
            << count;
    }
}

// ---- parameter ----

TEST_F(CreateImageFailureTest, FirmwareWithoutAParameterItemIsRefused) {
    Firmware firmware = sample_firmware();
    firmware.items[0].name = "Parameter";
    const std::string output = "writing idblock...\n" + error_line("not found parameter in the firmware");
    EXPECT_EQ(run_emmc(firmware, false), output);
    expect_boot_blocks_only(firmware);

    firmware = sample_firmware();
    firmware.items[0].flash_offset = not_placed;
    EXPECT_EQ(run_emmc(firmware, false), output);
}

TEST_F(CreateImageFailureTest, UnreadableItemsAreNamedBeforeTheMissingParameter) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].name = "boot";
    firmware.items[0].data.resize(27);  // one byte less than a sparse header
    firmware.md5.clear();
    const uint64_t end = firmware.layout().item_data[0] + 27;
    EXPECT_EQ(run_cut(firmware, end), "writing idblock...\nfailed to get sparse info\n" +
                                          error_line("not found parameter in the firmware"));
    EXPECT_EQ(run_cut(firmware, end + 1),
              "writing idblock...\n" + error_line("not found parameter in the firmware"));
}

TEST_F(CreateImageFailureTest, ParameterRecordThatCannotBeReadIsRefused) {
    const std::string output = "writing idblock...\n" + error_line("failed to create param buffer");
    Firmware firmware = bare_firmware();
    const uint64_t record = firmware.layout().item_data[0];
    const uint64_t size = firmware.items[0].data.size();
    EXPECT_EQ(run_cut(firmware, record + size - 1), output);
    EXPECT_EQ(run_cut(firmware, record + size, true),
              start_lines + parameter_lines("00002000") + success_line);

    firmware.items[0].size = 0xFFFFFFFF;
    EXPECT_EQ(run_emmc(firmware, false), output);
    expect_boot_blocks_only(firmware);
}

// ---- partitions ----

TEST_F(CreateImageFailureTest, PartitionThatFailsEndsTheRunAndKeepsWhatIsWritten) {
    Firmware firmware = sample_firmware();
    firmware.items[2].part_size = 1;
    firmware.items[2].data = patterned(2049, 1);
    EXPECT_EQ(run_emmc(firmware, false),
              start_lines + parameter_lines("00002000") + partition_lines("boot", "00002100", 32) +
                  "preparing misc at 0x00002180\nwriting misc...\npartition size is too small\n" +
                  error_line("failed to write misc,ret=-1"));
    PlacedImage expected;
    place_emmc_boot_blocks(expected, firmware, {});
    expected.place(0x2000 * 512, parameter_pages(firmware.items[0].data, 2048, 64, 8, 8));
    expected.place(0x2100 * 512, partition_bytes(firmware.items[1], 2048));
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

TEST_F(CreateImageFailureTest, GapBeforeAFailedPartitionIsThere) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back({.name = "boot", .part_size = 0, .flash_offset = 0x1000, .data = {1}});
    EXPECT_EQ(run_emmc(firmware, false),
              start_lines + parameter_lines("00002000") +
                  "preparing boot at 0x00003000\nwriting boot...\npartition size is too small\n" +
                  error_line("failed to write boot,ret=-1"));
    EXPECT_EQ(out_image().size(), 0x3000U * 512);
}

TEST_F(CreateImageFailureTest, ParameterPartitionMayFailToo) {
    Firmware firmware = bare_firmware();
    firmware.items[0].part_size = 0;
    EXPECT_EQ(run_emmc(firmware, false),
              start_lines +
                  "preparing parameter at 0x00002000\nwriting parameter...\npartition size is too small\n" +
                  error_line("failed to write parameter,ret=-1"));
}

TEST_F(CreateImageFailureTest, GptThatFailsIsNamedGpt) {
    Firmware firmware = bare_firmware();
    firmware.items[0].data = parameter_record("TYPE: GPT\nno list of partitions\n");
    EXPECT_EQ(run_emmc(firmware, false),
              "writing idblock...\nstart to write partitions...gpt=1\npreparing gpt at 0x00000000\n"
              "writing gpt...\nfailed to parse gpt parameter file\n" +
                  error_line("failed to write gpt,ret=-2"));
}

TEST_F(CreateImageFailureTest, DataBehindTheFirmwareFailsTheCopy) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "boot", .part_size = grows_to_end, .flash_offset = 64, .data = patterned(28, 1)});
    firmware.items[1].size = uint64_t{1} << 33;
    EXPECT_EQ(run_emmc(firmware, false), start_lines + parameter_lines("00002000") +
                                             "preparing boot at 0x00002040\nwriting boot...\n"
                                             "failed to get data from firmware\n" +
                                             error_line("failed to write boot,ret=-2"));
}

TEST_F(CreateImageFailureTest, LayoutMayRefuseAPartition) {
    write_firmware(sample_firmware());
    const auto storage = make<RefusingStorage>();
    storage->refused = "misc";
    EXPECT_EQ(run(*storage, false), start_lines + parameter_lines("00002000") +
                                        partition_lines("boot", "00002100", 32) +
                                        error_line("failed to prepare misc"));
    EXPECT_EQ(storage->ended, 2);
}

TEST_F(CreateImageFailureTest, RefusedGptIsNamedGpt) {
    write_firmware(sample_firmware({.gpt = true}));
    const auto storage = make<RefusingStorage>();
    storage->refused = "gpt";
    EXPECT_EQ(run(*storage, false), "writing idblock...\nstart to write partitions...gpt=1\n" +
                                        error_line("failed to prepare gpt"));
    EXPECT_EQ(storage->ended, 0);
}

TEST_F(CreateImageFailureTest, FailedPartitionIsNotEnded) {
    Firmware firmware = sample_firmware();
    firmware.items[1].part_size = 0;
    write_firmware(firmware);
    const auto storage = make<RefusingStorage>();
    run(*storage, false);
    EXPECT_EQ(storage->ended, 1);
}

}  // namespace
