// The files of SPI NAND, to the byte, and everything that is printed while they are made.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

struct NandCase {
    std::string situation;
    Conversion conversion;
    std::size_t boot_block_sectors;  // whole pages
    bool gpt = false;
    bool scrambled = false;
};

void PrintTo(const NandCase& tested, std::ostream* out) {
    *out << tested.situation;
}

class SpiNand : public testing::TestWithParam<NandCase> {};

TEST_P(SpiNand, FilesAreRightToTheByte) {
    const NandCase& tested = GetParam();
    const Firmware firmware = sample_firmware({.gpt = tested.gpt, .scramble_stages = tested.scrambled});
    const Workbench bench(firmware);
    const std::size_t page_size = std::stoul(tested.conversion.page_kb) * kib;
    const std::size_t block_size = std::stoul(tested.conversion.block_kb) * kib;
    const ExpectedImage empty(page_size, tested.conversion.two_kilobytes_data);

    expect_run(bench.convert(tested.conversion), 0,
               bench.echo(tested.conversion).then(sample_nand_run(tested.gpt, page_size, bench.out_dir())));
    const std::string table = tested.gpt ? "gpt.img" : "parameter.img";
    Names names{"boot.img", "idblock.img", "misc.img", table, "rootfs.img"};
    std::sort(names.begin(), names.end());
    EXPECT_EQ(bench.output_names(), names);

    const auto expect_file = [&](const std::string& name, ExpectedImage file) {
        expect_same_bytes(bench.output(name), file.pad_to_block(block_size).bytes(), name);
    };
    expect_file("idblock.img",
                ExpectedImage(empty).write(boot_block(firmware.boot, tested.boot_block_sectors)));
    if (tested.gpt) {
        expect_file(table, ExpectedImage(empty).write(gpt_table(sample_gpt_entries())));
    } else {
        expect_file(table, ExpectedImage(empty).partition(sample_parameter_partition(firmware, page_size),
                                                          parameter_sectors));
    }
    for (const std::size_t i : {1U, 2U, 3U}) {
        expect_file(firmware.items[i].name + ".img", ExpectedImage(empty).write(firmware.items[i].data));
    }
    expect_same_bytes(read_file(bench.firmware()), firmware.build(), "firmware");
}

// The boot block of the sample has 16 sectors.
const std::vector<NandCase> nand_cases{
    {"Blocks128Pages2", {"spinand", "128", "2"}, 16},
    {"Blocks128Pages2Gpt", {"SpiNand", "128", "2"}, 16, true},
    {"Blocks128Pages2Scrambled", {"spinand", "128", "2"}, 16, false, true},
    {"Blocks256Pages4", {"spinand", "256", "4"}, 16},
    {"Blocks64Pages1", {"spinand", "64", "1"}, 16},
    {"Blocks5Pages3", {"spinand", "5", "3"}, 18},
    {"Blocks5Pages3Gpt", {"spinand", "5", "3"}, 18, true},
    {"Blocks1Pages4", {"spinand", "1", "4"}, 16},
    {"Blocks128Pages2With2K", {"spinand", "128", "2", "", true}, 16},
    {"Blocks128Pages4With2K", {"spinand", "128", "4", "", true}, 16},
    {"Blocks128Pages4With2KGpt", {"spinand", "128", "4", "", true}, 16, true},
    {"Blocks128Pages3With2K", {"spinand", "128", "3", "", true}, 18},
    {"Blocks128Pages1With2K", {"spinand", "128", "1", "", true}, 16},
    {"SpareAndPageListMeanNothing", {"spinand", "128", "2", "64", false, true}, 16},
};

std::string situation_of(const testing::TestParamInfo<NandCase>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Conversion, SpiNand, testing::ValuesIn(nand_cases), situation_of);

const Conversion nand{"spinand", "128", "2"};

TEST(SpiNandBootBlock, Of24SectorsIsPaddedToABlock) {
    Firmware firmware = sample_firmware();
    firmware.boot.loader.entries.at(0).data = patterned(16 * sector_size, 1);
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    const Bytes file = bench.output("idblock.img");
    ASSERT_EQ(file.size(), 128 * kib);
    expect_same_bytes(slice(file, 0, 12 * kib), boot_block(firmware.boot, 24), "boot block");
    EXPECT_TRUE(all_bytes_are(file, 0, 12 * kib, 116 * kib));
}

TEST(SpiNandPartition, ThatEndsAtABlockBoundaryIsNotPadded) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").data = patterned(128 * kib, 1);
    firmware.item("misc").data = patterned(128 * kib + 1, 2);
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    expect_same_bytes(bench.output("boot.img"), firmware.item("boot").data, "boot.img");
    EXPECT_EQ(fs::file_size(bench.out("misc.img")), 256 * kib);
}

TEST(SpiNandPartition, IsWrittenWhateverItsSizeAndPlaceSay) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").part_size = 0;
    firmware.item("boot").flash_offset = 0xFFFFFFFE;
    const Workbench bench(firmware);
    expect_run(bench.convert(nand), 0,
               bench.echo(nand).then(sample_nand_run(false, 2 * kib, bench.out_dir())));
}

TEST(SpiNandPartition, OfTheSameNameReplacesTheEarlierOne) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").data = patterned(300 * kib, 1);
    firmware.item("misc").name = "boot";
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    EXPECT_EQ(bench.output_names(), (Names{"boot.img", "idblock.img", "parameter.img", "rootfs.img"}));
    ExpectedImage file(2 * kib);
    file.write(firmware.items[2].data).pad_to_block(128 * kib);
    expect_same_bytes(bench.output("boot.img"), file.bytes(), "boot.img");
}

TEST(SpiNandPartition, IsNamedAsItStands) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").name = " a name:with .things ";
    firmware.item("misc").name = "";
    firmware.item("rootfs").name = "..";
    const Workbench bench(firmware);
    const auto result = bench.convert(nand);
    ASSERT_EQ(result.exit_status, 0) << result.out;
    EXPECT_EQ(bench.output_names(),
              (Names{" a name:with .things .img", "...img", ".img", "idblock.img", "parameter.img"}));
}

TEST(SpiNandFiles, AreFoundInADirectoryWithAndWithoutASlash) {
    const Workbench bench(sample_firmware());
    for (const std::string end : {"", "/"}) {
        SCOPED_TRACE(end);
        const std::string out = bench.out_dir().string() + end;
        expect_run(run(nand.arguments(bench.firmware(), out)), 0,
                   nand.echo(bench.firmware(), out).then(sample_nand_run(false, 2 * kib, bench.out_dir())));
    }
}

TEST(SpiNandFiles, ReplaceEarlierOnesWhole) {
    const Workbench bench(sample_firmware());
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    const Names names = bench.output_names();
    std::vector<Bytes> files;
    for (const std::string& name : names) {
        files.push_back(bench.output(name));
        write_file(bench.out(name), Bytes(files.back().size() + 4321, 0xEE));
    }
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    EXPECT_EQ(bench.output_names(), names);
    for (std::size_t i = 0; i < names.size(); ++i) {
        expect_same_bytes(bench.output(names[i]), files[i], names[i]);
    }
}

TEST(SpiNandFiles, OfABareContainerAreTheBootBlockAlone) {
    Workbench bench;
    bench.name_firmware("loader.bin");
    const BootContainer boot = sample_firmware().boot;
    write_file(bench.firmware(), boot.build());
    expect_run(bench.convert(nand), 0, bench.echo(nand).line("writing idblock...").success());
    EXPECT_EQ(bench.output_names(), Names{"idblock.img"});
    ExpectedImage file(2 * kib);
    file.write(boot_block(boot, 16)).pad_to_block(128 * kib);
    expect_same_bytes(bench.output("idblock.img"), file.bytes(), "idblock.img");
}

}  // namespace
