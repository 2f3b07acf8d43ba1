#include "check/chip/dump_layout.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

namespace {

using namespace test_support;

std::string error_of(const std::string& lines) {
    DumpLayout layout;
    return layout.add_lines(lines).value_or("");
}

TEST(DumpLayout, TakesLinesOfNamesAndBlocks) {
    DumpLayout layout;
    EXPECT_EQ(layout.add_lines("idblock,0,7\r\nboot,0x10,31\n\nrootfs,32,543"), std::nullopt);
    EXPECT_EQ(layout.window_of("idblock")->last, 7U);
    EXPECT_EQ(layout.window_of("boot")->first, 16U);
    EXPECT_EQ(layout.blocks_of("rootfs"), 512U);
    EXPECT_EQ(layout.window_of("misc").has_value(), false);
    EXPECT_EQ(layout.names(), (std::vector<std::string>{"idblock", "boot", "rootfs"}));
}

TEST(DumpLayout, RefusesLinesThatAreWrong) {
    const std::vector<std::pair<std::string, std::string>> wrong{
        {"boot", "line 1: a line is name,first block,last block, and this has 1 field"},
        {"boot,1", "line 1: a line is name,first block,last block, and this has 2 fields"},
        {"boot,1,2,3", "line 1: a line is name,first block,last block, and this has 4 fields"},
        {"a,1,2\nboot,3,", "line 2: '' is not the number of a block"},
        {"boot,1,x", "line 1: 'x' is not the number of a block"},
        {"boot,1,2 ", "line 1: '2 ' is not the number of a block"},
        {"boot,-1,2", "line 1: '-1' is not the number of a block"},
        {"boot,0x,2", "line 1: '0x' is not the number of a block"},
        {"boot,1,18446744073709551616", "line 1: '18446744073709551616' is not the number of a block"},
        {",1,2", "line 1: the name is empty"},
        {"\n\nboot,8,5", "line 3: the last block 5 of 'boot' is before its first block 8"},
        {"boot,1,2\nboot,3,4", "line 2: 'boot' has a place already: blocks 1 to 2"},
        {"boot,1,20\nmisc,20,30", "line 2: blocks 20 to 30 of 'misc' overlap blocks 1 to 20 of 'boot'"},
    };
    for (const auto& [lines, error] : wrong)
        EXPECT_EQ(error_of(lines), error);
}

TEST(DumpLayout, RefusesMoreNamesThanThereAreItems) {
    std::string lines;
    for (int i = 0; i <= 1024; ++i)
        lines += "a" + std::to_string(i) + "," + std::to_string(i) + "," + std::to_string(i) + "\n";
    EXPECT_EQ(error_of(lines), "line 1025: more than 1024 names have places");
}

TEST(DumpLayout, GoesUpToTheNextStart) {
    DumpLayout layout;
    EXPECT_EQ(layout.add_start("rootfs", 40), std::nullopt);
    EXPECT_EQ(layout.add_start("boot", 8), std::nullopt);
    EXPECT_EQ(layout.window_of("boot")->last, 39U);
    EXPECT_EQ(layout.window_of("rootfs")->last, UINT64_MAX - 1);
    EXPECT_EQ(layout.blocks_of("boot"), std::nullopt);
    std::vector<bool> others(50, false);
    layout.mark_others("boot", others);
    EXPECT_EQ(std::count(others.begin(), others.end(), true), 1);
    EXPECT_TRUE(others[40]);
}

TEST(DumpLayout, TakesAFileAndPlaces) {
    const TemporaryDirectory directory;
    const std::string file = (directory / "chip.csv").string();
    write_file(file, to_bytes("boot,8,15\n"));
    ChipOptions options;
    options.layout_file = file;
    options.at = {{"rootfs", 16}};
    DumpLayout layout;
    EXPECT_EQ(layout.add_options(options), std::nullopt);
    EXPECT_EQ(layout.names(), (std::vector<std::string>{"boot", "rootfs"}));

    options.at = {{"rootfs", 15}};
    DumpLayout overlapping;
    EXPECT_EQ(overlapping.add_options(options),
              "--at: block 15 of 'rootfs' overlap blocks 8 to 15 of 'boot'");
    write_file(file, to_bytes("boot,8\n"));
    DumpLayout wrong;
    EXPECT_EQ(wrong.add_options(options),
              file + ", line 1: a line is name,first block,last block, and this has 2 fields");
    write_file(file, Bytes(1024 * 1024 + 1, '\n'));
    DumpLayout large;
    EXPECT_EQ(large.add_options(options), file + " is longer than 1 MiB: this is not a layout");
    options.layout_file = (directory / "none").string();
    DumpLayout missing;
    EXPECT_EQ(missing.add_options(options),
              options.layout_file + " failed to be read: No such file or directory");
}

}  // namespace
