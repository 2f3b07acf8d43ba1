// The image of eMMC and SPI NOR, to the byte, and everything that is printed while it is made.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

struct RawCase {
    std::string situation;
    Conversion conversion;
    std::size_t boot_block_sectors;  // of a copy
    uint64_t second_copy;            // sector
    bool gpt = false;
    bool scrambled = false;
};

void PrintTo(const RawCase& tested, std::ostream* out) {
    *out << tested.situation;
}

class RawImage : public testing::TestWithParam<RawCase> {};

TEST_P(RawImage, IsRightToTheByte) {
    const RawCase& tested = GetParam();
    const Firmware firmware = sample_firmware({.gpt = tested.gpt, .scramble_stages = tested.scrambled});
    const Workbench bench(firmware);
    const std::size_t page_size = std::stoul(tested.conversion.page_kb) * kib;
    const std::size_t block_size = std::stoul(tested.conversion.block_kb) * kib;

    expect_run(bench.convert(tested.conversion, {.timeout_seconds = 60}), 0,
               bench.echo(tested.conversion).then(sample_raw_run(tested.gpt, page_size)));
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
    expect_same_bytes(bench.output("out_image.img"),
                      sample_raw_image(firmware, tested.gpt,
                                       ExpectedImage(page_size, tested.conversion.two_kilobytes_data),
                                       page_size, block_size, tested.boot_block_sectors, tested.second_copy),
                      "out_image.img");
    expect_same_bytes(read_file(bench.firmware()), firmware.build(), "firmware");
}

// The boot block of the sample has 16 sectors: header, 8 of FlashData, 4 of FlashBoot.
const std::vector<RawCase> raw_cases{
    {"Emmc", {"emmc", "512", "2"}, 1024, 1088},
    {"EmmcWithGpt", {"emmc", "512", "2"}, 1024, 1088, true},
    {"EmmcScrambled", {"emmc", "512", "2"}, 1024, 1088, false, true},
    {"EmmcScrambledWithGpt", {"emmc", "512", "2"}, 1024, 1088, true, true},
    {"EmmcWhoseCopiesOverlap", {"emmc", "4096", "2"}, 8192, 1088},
    {"EmmcWithGptWhoseCopiesOverlap", {"emmc", "4096", "2"}, 8192, 1088, true},
    {"EmmcWithPagesOf1Kilobyte", {"emmc", "512", "1"}, 1024, 1088},
    {"EmmcWithBlocksThatAreNoMultipleOfThePage", {"emmc", "512", "3"}, 1024, 1088},
    {"EmmcWithOddBlocksAndPages", {"emmc", "5", "3"}, 20, 1088},
    {"EmmcWithGptAndOddBlocksAndPages", {"emmc", "5", "3"}, 20, 1088, true},
    {"EmmcWithBlocksSmallerThanAPage", {"emmc", "1", "4"}, 16, 1088},
    {"EmmcWithBlocksSmallerThanThePageRoundedBootBlock", {"emmc", "2", "7"}, 28, 1088},
    {"EmmcWithPagesOf16Kilobytes", {"emmc", "512", "16"}, 1024, 1088},
    {"EmmcWithGptAndPagesOf64Kilobytes", {"emmc", "64", "64"}, 128, 1088, true},
    {"EmmcWithGptAndPagesOf65Kilobytes", {"emmc", "64", "65"}, 256, 1088, true},
    {"EmmcWithGptAndPagesOf128Kilobytes", {"emmc", "512", "128"}, 1024, 1088, true},
    {"EmmcWith2KilobytesInPagesOf1", {"emmc", "512", "1", "", true}, 1024, 1088},
    {"EmmcWith2KilobytesInPagesOf2", {"emmc", "512", "2", "", true}, 1024, 1088, true},
    {"EmmcWith2KilobytesInPagesOf3", {"emmc", "512", "3", "", true}, 1024, 1088},
    {"EmmcWith2KilobytesInPagesOf4", {"emmc", "512", "4", "", true}, 1024, 1088},
    {"EmmcWithGptAnd2KilobytesInPagesOf8", {"emmc", "512", "8", "", true}, 1024, 1088, true},
    {"Nor", {"spinor", "64", "2"}, 128, 256},
    {"NorWithGpt", {"spinor", "64", "2"}, 128, 256, true},
    {"NorScrambled", {"SPINOR", "64", "1"}, 128, 256, false, true},
    {"NorWithBlocksOf4Kilobytes", {"spinor", "4", "2"}, 16, 128},
    {"NorWithOddBlocksAndPages", {"spinor", "5", "3"}, 20, 128},
    {"NorWithLargeBlocks", {"spinor", "512", "2"}, 1024, 2048},
    {"NorWith2KilobytesInPagesOf4", {"spinor", "64", "4", "", true}, 128, 256},
};

std::string situation_of(const testing::TestParamInfo<RawCase>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Conversion, RawImage, testing::ValuesIn(raw_cases), situation_of);

// Each 64 KB of the gap before the partition is a page, and each page is 32 flash pages.
TEST(RawImage, With2KilobytesInPagesOf64HasLongGaps) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items.resize(2);
    firmware.items[1].flash_offset = 20 * 2048;
    const Conversion emmc{"emmc", "512", "64", "", true};
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(emmc, {.timeout_seconds = 60}).exit_status, 0);
    ExpectedImage image(64 * kib, true);
    const Bytes block = boot_block(firmware.boot, 1024);
    image.at(64).write(block).at(1088).write(block).at(0).write(gpt_table(sample_gpt_entries()));
    const std::size_t end = image.bytes().size();
    image.at(20 * 2048).partition(firmware.items[1].data, boot_sectors).pad_to_block(512 * kib);
    EXPECT_EQ(image.bytes().size(), end + (20 * 1024 * kib - end) / 64 * 64 * 32 + 2048 * kib);
    expect_same_bytes(bench.output("out_image.img"), image.bytes(), "out_image.img");
}

// ---- where the boot block copies lie ----

Firmware with_stages(std::size_t data_bytes, std::size_t code_bytes) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries.at(0).data = patterned(data_bytes, 61);
    firmware.boot.loader.entries.at(1).data = patterned(code_bytes, 62);
    return firmware;
}

void expect_copies(const Firmware& firmware, const Conversion& conversion, std::size_t sectors,
                   uint64_t second_copy) {
    const Workbench bench(firmware);
    const auto result = bench.convert(conversion);
    ASSERT_EQ(result.exit_status, 0) << result.out;
    const Bytes expected = boot_block(firmware.boot, sectors);
    const Bytes image = bench.output("out_image.img");
    for (const uint64_t sector : {uint64_t{64}, second_copy}) {
        expect_same_bytes(slice(image, sector * sector_size, expected.size()), expected,
                          "copy at sector " + std::to_string(sector));
    }
    EXPECT_TRUE(all_bytes_are(image, 0, 0, 64 * sector_size));
    const std::size_t gap = (64 + sectors) * sector_size;
    EXPECT_TRUE(all_bytes_are(image, 0, gap, second_copy * sector_size - gap));
}

TEST(NorBootBlock, Of200SectorsTakesTwoBlocksOf64Kilobytes) {
    expect_copies(with_stages(96 * sector_size, 100 * sector_size), {"spinor", "64", "2"}, 256, 384);
}

TEST(NorBootBlock, Of12SectorsTakesTwoBlocksOf4Kilobytes) {
    expect_copies(with_stages(2048, 1), {"spinor", "4", "2"}, 16, 128);
}

TEST(NorBootBlock, ThatEndsAtA64KilobyteBoundaryIsFollowedByItsCopyThere) {
    expect_copies(with_stages(56 * sector_size, 4 * sector_size), {"spinor", "4", "2"}, 64, 128);
}

TEST(NorBootBlock, ThatEndsBehindA64KilobyteBoundaryIsFollowedByItsCopyAtTheNext) {
    expect_copies(with_stages(56 * sector_size, 4 * sector_size + 1), {"spinor", "4", "2"}, 72, 256);
}

TEST(EmmcBootBlock, Of300SectorsIsFollowedAtOnceByItsCopy) {
    expect_copies(with_stages(196 * sector_size, 100 * sector_size), {"emmc", "512", "2"}, 1024, 1088);
}

TEST(BootBlock, OfEmptyStagesIsItsHeader) {
    expect_copies(with_stages(0, 0), {"emmc", "1", "1"}, 4, 1088);
}

// ---- single mode ----

TEST(SingleMode, WritesTheBootBlockAlone) {
    for (const std::string name : {"loader.bin", "loader.BIN", "x.bInary.img"}) {
        SCOPED_TRACE(name);
        Workbench bench;
        bench.name_firmware(name);
        const BootContainer boot = sample_firmware({.scramble_stages = true}).boot;
        write_file(bench.firmware(), boot.build());
        const Conversion emmc{"emmc", "4", "2"};
        expect_run(bench.convert(emmc), 0, bench.echo(emmc).line("writing idblock...").success());
        ExpectedImage expected(2 * kib);
        expected.at(64).write(boot_block(boot, 16)).at(1088).write(boot_block(boot, 16));
        expect_same_bytes(bench.output("out_image.img"), expected.bytes(), "out_image.img");
    }
}

TEST(SingleMode, PadsNothingToABlock) {
    Workbench bench;
    bench.name_firmware("loader.bin");
    const BootContainer boot = sample_firmware().boot;
    write_file(bench.firmware(), boot.build());
    const Conversion nor{"spinor", "6", "2"};
    expect_run(bench.convert(nor), 0, bench.echo(nor).line("writing idblock...").success());
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), (128 + 24) * sector_size);  // no multiple of 6 KB
}

TEST(SingleMode, IsAlsoChosenByADirectoryName) {
    const Workbench bench;
    fs::create_directory(bench.directory() / "x.bin.d");
    const fs::path container = bench.directory() / "x.bin.d" / "fw.img";
    write_file(container, sample_firmware().boot.build());
    const Conversion emmc;
    expect_run(run(emmc.arguments(container, bench.out_dir())), 0,
               emmc.echo(container, bench.out_dir()).line("writing idblock...").success());
}

}  // namespace
