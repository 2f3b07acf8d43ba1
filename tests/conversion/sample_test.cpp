// The sample firmware for every storage type and many geometries: all that is printed, and all files to the
// byte.

#include "support/expected/boot_block.h"
#include "support/expected/image.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

namespace {

using namespace test_support;

struct Case {
    std::string situation;
    Conversion conversion;
    bool gpt = false;
    bool scrambled = false;
};

class SampleTest : public testing::TestWithParam<Case> {};

TEST_P(SampleTest, IsConvertedToTheByte) {
    const auto& [situation, conversion, gpt, scrambled] = GetParam();
    Firmware firmware = sample_firmware({.gpt = gpt, .scramble_stages = scrambled});
    if (conversion.type == "slc")
        firmware.items[0].part_size = 64;  // the slow encoder makes every page
    expect_converted(firmware, conversion, gpt ? GptEntries(sample_gpt()) : std::nullopt);
}

// The boot block of the sample has 16 sectors: header, 8 of FlashData, 4 of FlashBoot.
const std::vector<Case> kCases{
    {"Emmc", {"emmc", "512", "2"}},
    {"EmmcGpt", {"emmc", "512", "2"}, true},
    {"EmmcScrambled", {"emmc", "512", "2"}, false, true},
    {"EmmcScrambledGpt", {"emmc", "512", "2"}, true, true},
    {"EmmcCopiesOverlap", {"emmc", "4096", "2"}},
    {"EmmcCopiesOverlapGpt", {"emmc", "4096", "2"}, true},
    {"EmmcPages1", {"emmc", "512", "1"}},
    {"EmmcPages3", {"emmc", "512", "3"}},
    {"EmmcBlocks5Pages3", {"emmc", "5", "3"}},
    {"EmmcBlocks5Pages3Gpt", {"emmc", "5", "3"}, true},
    {"EmmcBlocksSmallerThanAPage", {"emmc", "1", "4"}},
    {"EmmcBlocks2Pages7", {"emmc", "2", "7"}},
    {"EmmcPages16", {"emmc", "512", "16"}},
    {"EmmcPages64Gpt", {"emmc", "64", "64"}, true},
    {"EmmcPages65Gpt", {"emmc", "64", "65"}, true},
    {"EmmcPages128Gpt", {"emmc", "512", "128"}, true},
    {"EmmcPages1With2K", {"emmc", "512", "1", "", true}},
    {"EmmcPages2With2KGpt", {"emmc", "512", "2", "", true}, true},
    {"EmmcPages3With2K", {"emmc", "512", "3", "", true}},
    {"EmmcPages4With2K", {"emmc", "512", "4", "", true}},
    {"EmmcPages8With2KGpt", {"emmc", "512", "8", "", true}, true},
    {"Nor", {"spinor", "64", "2"}},
    {"NorGpt", {"spinor", "64", "2"}, true},
    {"NorScrambledPages1", {"spinor", "64", "1"}, false, true},
    {"NorBlocks4", {"spinor", "4", "2"}},
    {"NorBlocks5Pages3", {"spinor", "5", "3"}},
    {"NorBlocks512", {"spinor", "512", "2"}},
    {"NorPages4With2K", {"spinor", "64", "4", "", true}},
    {"SpiNand", {"spinand", "128", "2"}},
    {"SpiNandGpt", {"spinand", "128", "2"}, true},
    {"SpiNandScrambled", {"spinand", "128", "2"}, false, true},
    {"SpiNandPages4", {"spinand", "256", "4"}},
    {"SpiNandPages1", {"spinand", "64", "1"}},
    {"SpiNandPages16", {"spinand", "64", "16"}},
    {"SpiNandBlocks5Pages3", {"spinand", "5", "3"}},
    {"SpiNandBlocks5Pages3Gpt", {"spinand", "5", "3"}, true},
    {"SpiNandBlocksSmallerThanAPage", {"spinand", "1", "4"}},
    {"SpiNandPages2With2K", {"spinand", "128", "2", "", true}},
    {"SpiNandPages4With2K", {"spinand", "128", "4", "", true}},
    {"SpiNandPages4With2KGpt", {"spinand", "128", "4", "", true}, true},
    {"SpiNandPages3With2K", {"spinand", "128", "3", "", true}},
    {"SpiNandPages1With2K", {"spinand", "128", "1", "", true}},
    {"SpiNandSpareAndPageListMeanNothing", {"spinand", "128", "2", "64", false, true}},
    {"SlcPages1", {"slc", "16", "1", "32"}},
    {"Slc", {"slc", "16", "2", "64"}},
    {"SlcGpt", {"slc", "16", "2", "64"}, true},
    {"SlcPageList", {"slc", "16", "2", "64", false, true}},
    {"SlcSpareLeft", {"slc", "16", "2", "128"}},
    {"SlcAByteOfSpareLeft", {"slc", "16", "2", "65"}},
    {"SlcPages2With2K", {"slc", "16", "2", "64", true}},
    {"SlcPages1With2K", {"slc", "16", "1", "32", true}},
    {"SlcBlocks5Pages3", {"slc", "5", "3", "128"}},
    {"SlcBlocks5Pages3With2K", {"slc", "5", "3", "128", true}},
    {"SlcPages4", {"slc", "32", "4", "128"}},
    {"SlcPages4With2K", {"slc", "32", "4", "128", true}},
    {"SlcPages4With2KGpt", {"slc", "32", "4", "128", true}, true},
    {"SlcPages4With2KPageList", {"slc", "32", "4", "128", true, true}},
    {"SlcBlocksThatTheBootBlockFills", {"slc", "16", "4", "128", true}},
    {"SlcPages8With2K", {"slc", "128", "8", "256", true}},
    {"SlcBlocksSmallerThanAPage", {"slc", "1", "4", "128"}},
};

INSTANTIATE_TEST_SUITE_P(Conversion, SampleTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& tested) { return tested.param.situation; });

// What the model says of one image of each kind, by hand.
TEST(SampleLayout, IsThatOfTheFormats) {
    const Firmware firmware = sample_firmware();
    const auto files_of = [&](const Conversion& conversion) {
        const Workbench bench(firmware);
        EXPECT_EQ(bench.call(conversion).status, kConverted);
        return bench.outputs();
    };
    const Bytes block = boot_block(firmware);
    for (const auto& [conversion, second_copy, copy, size] :
         {std::tuple{Conversion{"emmc", "512", "2"}, 1088U, 512 * kIb, 4608 * kIb},
          std::tuple{Conversion{"spinor", "64", "2"}, 256U, 64 * kIb, 4352 * kIb}}) {
        const Bytes image = files_of(conversion).at("out_image.img");
        EXPECT_EQ(image.size(), size);
        EXPECT_TRUE(same_bytes(slice(image, 64 * 512, copy), zero_padded(block, copy)));
        EXPECT_TRUE(same_bytes(slice(image, second_copy * 512, copy), zero_padded(block, copy)));
        for (std::size_t i = 0; i < 8; ++i)
            EXPECT_EQ(slice(image, 0x2000 * 512 + i * 16 * kIb, firmware.items[0].data.size()),
                      firmware.items[0].data);
        EXPECT_EQ(slice(image, 0x2100 * 512, 5000), firmware.items[1].data);
        EXPECT_EQ(slice(image, 0x2180 * 512, 1024), firmware.items[2].data);
        EXPECT_EQ(slice(image, 0x21C0 * 512, 20001), firmware.items[3].data);
    }
    const Files nand = files_of({"spinand", "16", "2"});
    const Files slc = files_of({"slc", "16", "2", "64"});
    // With their fill pages: 4 after the boot block's 4, 5 after the 3 of boot, and so on.
    for (const auto& [name, pages] : std::map<std::string, std::size_t>{{"idblock.img", 8},
                                                                        {"parameter.img", 64},
                                                                        {"boot.img", 8},
                                                                        {"misc.img", 8},
                                                                        {"rootfs.img", 16}}) {
        EXPECT_EQ(nand.at(name).size(), pages * 2048) << name;
        EXPECT_EQ(slc.at(name).size(), pages * 2112) << name;
    }
}

// ---- long gaps, wrapping sizes, lengths of boot stages ----

// Each 64 KB of the gap before the partition is a page, and each page is 32 flash pages.
TEST(SampleLayout, HasLongGapsWith2KInPagesOf64) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.items.resize(2);
    firmware.items[1].flash_offset = 20 * 2048;
    expect_converted(firmware, {"emmc", "512", "64", "", true}, sample_gpt());
}

TEST(SampleLayout, IsTheUsualOneForSizesThatWrapToIt) {
    const Workbench bench(sample_firmware());
    ASSERT_EQ(bench.call({"emmc", "512", "2"}).status, kConverted);
    const Bytes usual = bench.output("out_image.img");
    ASSERT_EQ(bench.call({"emmc", "-2147483136", "-2147483646"}).status, kConverted);
    EXPECT_TRUE(same_bytes(bench.output("out_image.img"), usual));
}

TEST(SampleLayout, FollowsTheLengthOfTheBootStages) {
    struct {
        std::size_t data_bytes, code_bytes;
        Conversion conversion;
        uint64_t sectors, second_copy;
    } const tested[] = {
        {96 * 512, 100 * 512, {"spinor", "64", "2"}, 256, 384},
        {2048, 1, {"spinor", "4", "2"}, 16, 128},
        {3000, 2048, {"spinor", "4", "1"}, 16, 128},
        {56 * 512, 4 * 512, {"spinor", "4", "2"}, 64, 128},      // ends at a boundary of 64 KB
        {56 * 512, 4 * 512 + 1, {"spinor", "4", "2"}, 72, 256},  // and after one
        {3000, 2048, {"spinor", "64", "3"}, 132, 256},           // 22 pages of 6 sectors for 128 sectors
        {3000, 90000, {"spinor", "64", "96"}, 384, 384},         // the last page reaches into the second copy
        {196 * 512, 100 * 512, {"emmc", "512", "2"}, 1024, 1088},
        {0, 0, {"emmc", "1", "1"}, 4, 1088},
        {3000, 2048, {"emmc", "1", "1"}, 16, 1088},
        {3000, 900000, {"emmc", "512", "2"}, 2048, 1088},  // the second copy overwrites stages of the first
        {3000, 2048, {"emmc", "512", "3"}, 1026, 1088},    // and here zeros of a page that reaches too far
        {3000, 2048, {"emmc", "1", "64"}, 128, 1088},
        {16 * 512, 2048, {"spinand", "128", "2"}, 24, 0},
    };
    for (const auto& [data_bytes, code_bytes, conversion, sectors, second_copy] : tested) {
        SCOPED_TRACE(testing::PrintToString(conversion) + std::to_string(sectors));
        Firmware firmware = sample_firmware({.scramble_stages = data_bytes == 3000});
        firmware.items[0].part_size = 0x600;  // room for four pages of any size
        firmware.boot.loader.entries[0].data = patterned(data_bytes, 61);
        firmware.boot.loader.entries[1].data = patterned(code_bytes, 62);
        expect_converted(firmware, conversion);
        const BootBlockPlace place =
            boot_block_place(padded(boot_block(firmware), conversion.page_size()).size(), conversion);
        if (conversion.is_whole_device()) {
            EXPECT_EQ(place.sectors, sectors);
            EXPECT_EQ(place.second_copy, second_copy);
        }
    }
}

// ---- a bare boot container ----

TEST(BareContainer, GivesTheBootBlockAlone) {
    for (const bool scrambled : {false, true}) {
        Workbench bench;
        bench.name_firmware("loader.bin");
        const BootContainer boot = sample_firmware({.scramble_stages = scrambled}).boot;
        bench.pack(boot.build());
        for (const Conversion& conversion :
             {Conversion{"emmc", "4", "2"}, Conversion{"spinor", "64", "2"},
              Conversion{"spinand", "128", "2"}, Conversion{"slc", "16", "2", "64"},
              Conversion{"spinor", "6", "2"}}) {
            SCOPED_TRACE(testing::PrintToString(conversion));
            bench.empty_output();
            bench.expect(conversion, expected_boot_run(boot, conversion));
        }
        EXPECT_EQ(bench.output("out_image.img").size() % (6 * kIb), 4 * kIb) << "nothing is padded";
    }
}

// ---- what lies in the output directory already ----

TEST(EarlierOutput, IsReplacedWhole) {
    const Firmware firmware = sample_firmware();
    for (const Conversion& conversion : {Conversion{"emmc", "512", "2"}, Conversion{"spinand", "128", "2"},
                                         Conversion{"slc", "16", "2", "64"}}) {
        const Workbench bench(firmware);
        ASSERT_EQ(bench.call(conversion).status, kConverted);
        const Files files = bench.outputs();
        for (const auto& [name, bytes] : files)
            write_file(bench.out(name), Bytes(bytes.size() + 12345, 0xEE));
        ASSERT_EQ(bench.call(conversion).status, kConverted);
        bench.expect_files(files);
    }
}

}  // namespace
