// Which items of the package are written, and by which writer.

#include "create_image_fixture.h"
#include "support/sparse_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace {

using namespace storage_test;
using namespace test_support;

// ---- which items are written ----

TEST_F(CreateImageTest, ItemThatIsNotPlacedIsNeitherCheckedNorWritten) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back({.name = "notes", .flash_offset = not_placed, .data = patterned(5000, 1)});
    // Asking this one for its header would print a line.
    firmware.items.push_back({.name = "ghost", .flash_offset = not_placed, .offset = 0xFFFFFF00, .size = 5});
    firmware.items.back().reserve_size = false;
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);
}

TEST_F(CreateImageTest, EmptyItemIsCheckedButNotWritten) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back({.name = "empty", .part_size = 64, .flash_offset = 64});
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);

    STRUCT_QZIMAGE_ITEM unreadable = item_in(firmware, 1);
    unreadable.offset = 0xFFFFFF00;
    Bytes image = firmware.build();
    Bytes record(sizeof(unreadable));
    std::memcpy(record.data(), &unreadable, sizeof(unreadable));
    put_bytes_at(image, static_cast<std::size_t>(firmware.layout().item_records[1]), record);
    write_file(firmware_path(), image);
    EXPECT_EQ(run(*make<Exposed<CEmmcStorage>>()),
              "writing idblock...\nfailed to get sparse info\nstart to write partitions...gpt=0\n" +
                  parameter_lines("00002000") + success_line);
}

TEST_F(CreateImageTest, EmptyParameterItemIsWritten) {
    Firmware firmware = bare_firmware();
    firmware.items[0].data.clear();
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);
    PlacedImage expected;
    place_emmc_boot_blocks(expected, firmware, {});
    expected.place(0x2000 * 512, Bytes(8 * 2048, 0));
    expected.align(524288, 2048);
    EXPECT_TRUE(same_bytes(out_image(), expected.bytes()));
}

TEST_F(CreateImageTest, ParameterItemMayStandAnywhereInTheTable) {
    Firmware firmware = bare_firmware();
    firmware.items.insert(firmware.items.begin(),
                          {.name = "boot", .part_size = 4, .flash_offset = 64, .data = patterned(7, 1)});
    EXPECT_EQ(run_emmc(firmware), start_lines + partition_lines("boot", "00002040", 1) +
                                      parameter_lines("00002000") + success_line);
}

TEST_F(CreateImageTest, OnlyTheExactNameIsTheParameter) {
    Firmware firmware = bare_firmware();
    for (const char* name : {"Parameter", "parameter2", "paramete"})
        firmware.items.push_back({.name = name, .part_size = 4, .flash_offset = 64, .data = patterned(7, 1)});
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                      partition_lines("Parameter", "00002040", 1) +
                                      partition_lines("parameter2", "00002040", 1) +
                                      partition_lines("paramete", "00002040", 1) + success_line);
}

TEST_F(CreateImageTest, LaterOfTwoParameterItemsIsTheParameter) {
    Firmware firmware = bare_firmware();
    // The earlier one is an ordinary item now, and not asked whether it is sparse.
    const Bytes sparse = SparseImage{.chunks = {SparseChunk::fill(0x11223344, 1)}}.build();
    firmware.items.insert(firmware.items.begin(),
                          {.name = "parameter", .part_size = 8, .flash_offset = 64, .data = sparse});
    EXPECT_EQ(run_emmc(firmware), start_lines + partition_lines("parameter", "00002040", 2) +
                                      parameter_lines("00002000") + success_line);
    const Bytes image = out_image();
    EXPECT_EQ(slice(image, 0x2040 * 512, sparse.size()), sparse);
    EXPECT_EQ(slice(image, 0x2000 * 512, firmware.items[1].data.size()), firmware.items[1].data);
}

TEST_F(CreateImageTest, ParameterItemThatIsNotPlacedDoesNotReplaceAnEarlierOne) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back({.name = "parameter", .flash_offset = not_placed, .data = patterned(50, 1)});
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);
    EXPECT_EQ(slice(out_image(), 0x2000 * 512, firmware.items[0].data.size()), firmware.items[0].data);
}

TEST_F(CreateImageTest, NameThatFillsItsFieldIsAnnouncedWithItsWholeLength) {
    const std::string name = "a-name-of-exactly-32-characters.";
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = name, .file = "file", .part_size = 4, .flash_offset = 64, .data = patterned(7, 1)});
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                      partition_lines(name, "00002040", 1) + success_line);
}

// ---- how many items ----

TEST_F(CreateImageTest, ItemBehindTheCountIsNotLookedAt) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back({.name = "boot", .part_size = 4, .flash_offset = 64, .data = patterned(7, 1)});
    firmware.item_count = 1;
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") + success_line);
    firmware.item_count = 2;
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                      partition_lines("boot", "00002040", 1) + success_line);
}

// `count` items: the parameter, items that are not placed, and a partition at the end.
Firmware firmware_of(std::size_t count) {
    Firmware firmware = bare_firmware();
    while (firmware.items.size() + 1 < count)
        firmware.items.push_back({.name = "filler", .flash_offset = not_placed});
    firmware.items.push_back({.name = "last", .part_size = 4, .flash_offset = 64, .data = patterned(7, 1)});
    return firmware;
}

TEST_F(CreateImageTest, TableMayGoOnBehindThePackageHeader) {
    for (const std::size_t count : {16U, 17U, 18U, 35U, 36U, 582U, 583U})
        EXPECT_EQ(run_emmc(firmware_of(count)), start_lines + parameter_lines("00002000") +
                                                    partition_lines("last", "00002040", 1) + success_line)
            << count;
}

TEST_F(CreateImageTest, CountExtensionIsAddedToTheCount) {
    Firmware firmware = firmware_of(21);
    firmware.item_count = 1;
    firmware.item_count_extension = 20;
    EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                      partition_lines("last", "00002040", 1) + success_line);
    // Without the marks the first item is the only one.
    Bytes image = firmware.build();
    const auto marks = static_cast<std::size_t>(firmware.layout().package_offset) + 128;
    for (const std::string& bent : {std::string("uf"), std::string("UF"), std::string("Ug")}) {
        put_text_at(image, marks, bent, 2);
        write_file(firmware_path(), image);
        EXPECT_EQ(run(*make<Exposed<CEmmcStorage>>()),
                  start_lines + parameter_lines("00002000") + success_line);
    }
}

TEST_F(CreateImageTest, CountMayBeNegativeBeforeItsExtension) {
    Firmware firmware = firmware_of(3);
    for (const uint16_t extension : {uint16_t{0}, uint16_t{20}, uint16_t{0x8000}, uint16_t{0xFFFF}}) {
        firmware.item_count_extension = extension;  // the fixed count makes up for it
        EXPECT_EQ(run_emmc(firmware), start_lines + parameter_lines("00002000") +
                                          partition_lines("last", "00002040", 1) + success_line)
            << extension;
    }
}

// ---- sparse items ----

// A sparse image of one block; written as it stands it would be shorter.
Bytes small_sparse_image() {
    return SparseImage{.chunks = {SparseChunk::fill(0x11223344, 1)}}.build();
}

TEST_F(CreateImageTest, SparseItemIsExpanded) {
    Firmware firmware = bare_firmware();
    firmware.items.push_back(
        {.name = "system", .part_size = 16, .flash_offset = 64, .data = small_sparse_image()});
    EXPECT_EQ(run_emmc(firmware),
              start_lines + parameter_lines("00002000") + "preparing system at 0x00002040\n" +
                  "writing system...\nextracting system...\n" + redrawn("extracting... system...50%") +
                  redrawn("extracting... system...100%") + "\n" + redrawn("writing system...25%") +
                  redrawn("writing system...50%") + redrawn("writing system...75%") +
                  redrawn("writing system...100%") + redrawn("writing system...OK") + success_line);
    Bytes expected;
    for (int i = 0; i < 1024; ++i)
        put32(expected, 0x11223344);
    EXPECT_TRUE(same_bytes(slice(out_image(), 0x2040 * 512, 8192), zero_padded(expected, 8192)));
    EXPECT_FALSE(std::filesystem::exists(out_path("unsparse_tmp.bin")));
}

// Data that a sparse writer takes for a header of one block without chunks: it writes zeros in its place.
Bytes data_like_a_header() {
    Bytes data = patterned(4096, 32);
    put32_at(data, sparse_field::block_size, 4096);
    put32_at(data, sparse_field::total_blocks, 1);
    put32_at(data, sparse_field::total_chunks, 0);
    return data;
}

// Items 32 apart share a mark: item 32 behind a sparse item 0 is taken for sparse, item 33 is not.
TEST_F(CreateImageTest, ItemThirtyTwoBehindASparseOneIsTakenForSparse) {
    for (const bool first_is_sparse : {true, false}) {
        Firmware firmware = bare_firmware();
        firmware.items.insert(firmware.items.begin(),
                              {.name = "item0",
                               .part_size = 8,
                               .flash_offset = 64,
                               .data = first_is_sparse ? small_sparse_image() : patterned(4096, 1)});
        while (firmware.items.size() < 32)
            firmware.items.push_back({.name = "filler", .flash_offset = not_placed});
        firmware.items.push_back(
            {.name = "item32", .part_size = 8, .flash_offset = 128, .data = data_like_a_header()});
        firmware.items.push_back(
            {.name = "item33", .part_size = 8, .flash_offset = 192, .data = data_like_a_header()});
        run_emmc(firmware);
        const Bytes image = out_image();
        EXPECT_EQ(slice(image, 0x2080 * 512, 4096), first_is_sparse ? Bytes(4096, 0) : data_like_a_header());
        EXPECT_EQ(slice(image, 0x20C0 * 512, 4096), data_like_a_header());
    }
}

TEST_F(CreateImageTest, SparseItemThirtyTwoMarksTheFirstItemToo) {
    Firmware firmware = bare_firmware();
    firmware.items.insert(
        firmware.items.begin(),
        {.name = "item0", .part_size = 8, .flash_offset = 64, .data = data_like_a_header()});
    while (firmware.items.size() < 32)
        firmware.items.push_back({.name = "filler", .flash_offset = not_placed});
    firmware.items.push_back(
        {.name = "item32", .part_size = 8, .flash_offset = 128, .data = small_sparse_image()});
    run_emmc(firmware);
    EXPECT_EQ(slice(out_image(), 0x2040 * 512, 4096), Bytes(4096, 0));
}

TEST_F(CreateImageTest, ParameterItemSharesItsMarkWithoutHarm) {
    Firmware firmware = bare_firmware();
    while (firmware.items.size() < 32)
        firmware.items.push_back({.name = "filler", .flash_offset = not_placed});
    firmware.items.push_back(
        {.name = "item32", .part_size = 8, .flash_offset = 128, .data = small_sparse_image()});
    const std::string output = run_emmc(firmware);
    EXPECT_EQ(output.substr(0, output.find("preparing item32")), start_lines + parameter_lines("00002000"));
}

}  // namespace
