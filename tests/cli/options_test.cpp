// Reading the options: what each one prints, what it takes, and where a run ends because of it.

#include "support/workbench.h"

namespace {

using namespace test_support;
using namespace std::string_literals;

const std::string kVersionLine = "nandsmith  v1.0_20210204";

const std::string kUsage = "NAME\n"
                           "\tnandsmith - creating image for programming on flash\n"
                           "SYNOPSIS\n"
                           "\tnandsmith [-iotbpsvh]\n"
                           "DESCRIPTION\n"
                           "\tThis tool aims to convert firmware into image for programming\n"
                           "\tFrom now on,it can support slc nand(qz)|spi nand|nor|emmc.\n"
                           "OPTIONS:\n"
                           "\t  -i\tinput firmware\n"
                           "\t  -o\toutput directory\n"
                           "\t  -t\tstorage type,range in[SLC|SPINAND|SPINOR|EMMC]\n"
                           "\t  -b\tblock size,unit KB\n"
                           "\t  -p\tpage size,unit KB\n"
                           "\t  -s\toob size,unit B\n"
                           "\t  -2\t2k data in one page\n"
                           "\t  -l\tusing page linked list\n"
                           "\t  -v\tshow version";

TEST(Version, IsOneLineWithTwoBlanks) {
    expect_lines({"-v"}, 0, {kVersionLine});
    expect_lines({"--version"}, 0, {kVersionLine});
}

TEST(Usage, HasSeventeenLines) {
    expect_lines({"-h"}, 0, {kUsage});
    expect_lines({"--help"}, 0, {kUsage});
}

TEST(Usage, EndsTheRunBeforeLaterOptionsAreRead) {
    expect_lines({"-h", "-t", "nvme"}, 0, {kUsage});
    expect_lines({"-v", "-b", "abc"}, 0, {kVersionLine});
    expect_lines({"-hv"}, 0, {kUsage});
    expect_lines({"-vh"}, 0, {kVersionLine});
}

TEST(FlashType, OfAnUnknownWordEndsTheRunAtOnce) {
    for (const std::string word : {"nvme", "", "emm", "emmcs", " emmc", "spi nand", "nor", "0"}) {
        const Lines expected{"flash type is '" + word + "'", "flash type is not support."};
        expect_lines({"-t", word, "-h"}, status_of(-1), expected);
        expect_lines({"--flash_type", word, "-b", "abc"}, status_of(-1), expected);
    }
}

// The next failure tells that the type was taken.
TEST(FlashType, IsTakenInUpperAndLowerCase) {
    for (const std::string word : {"slc", "SLC", "Slc", "spinand", "SpiNand", "SPINAND", "spinor", "SPINOR",
                                   "SpiNor", "emmc", "EMMC", "eMMC"})
        expect_lines({"-t", word}, status_of(-6), {"flash type is '" + word + "'", "block size is zero"});
}

TEST(Options, AreEchoedInTheOrderInWhichTheyAreGiven) {
    Lines expected{"input firmware is 'fw'", "output directory is 'dir'", "flash type is 'slc'",
                   "block size is '128'",    "page size is '2'",          "oob size is '64'",
                   "2k data page on.",       "page linked list on.",      kVersionLine};
    for (const std::string words :
         {"-i fw -o dir -t slc -b 128 -p 2 -s 64 -2 --page_list -v",
          "--in fw --out dir --flash_type slc --block_size 128 --page_size 2 --oob_size 64 --2k_data "
          "--page_list --version",
          "--in=fw --out=dir --flash_type=slc --block_size=128 --page_size=2 --oob_size=64 --2k_data "
          "--page_list -v",
          "-ifw -odir -tslc -b128 -p2 -s64 -2 --page_list -v"})
        expect_lines(split(words, ' '), 0, expected);
    std::reverse(expected.begin(), expected.end() - 1);
    expect_lines(split("--page_list -2s 64 -p 2 -b 128 -t slc -o dir -i fw -v", ' '), 0, expected);
}

TEST(Options, GivenTwiceAreEchoedTwiceAndTheLaterOneCounts) {
    expect_lines({"-t", "slc", "-t", "emmc", "-b", "1", "-b", "0"}, status_of(-6),
                 {"flash type is 'slc'", "flash type is 'emmc'", "block size is '1'", "block size is '0'",
                  "block size is zero"});
}

TEST(Options, LetArgumentsThatAreNoOptionsPassInTheirOrder) {
    expect_lines({"first", "-2", "second", "", "-", "-v"}, 0,
                 {"regular argument 'first'", "2k data page on.", "regular argument 'second'",
                  "regular argument ''", "regular argument '-'", kVersionLine});
}

TEST(Options, EndAtADoubleDash) {
    expect_lines({"-2", "--", "-v", "rest"}, status_of(-5), {"2k data page on.", "flash type is none"});
}

TEST(Options, OfUnknownNameAreReportedAndParsingGoesOn) {
    expect_lines({"-x", "-2", "-L", "-v"}, 0,
                 {"Unknown option x", "2k data page on.", "Unknown option L", kVersionLine});
    expect_lines({"-2x2", "-v"}, 0,
                 {"2k data page on.", "Unknown option x", "2k data page on.", kVersionLine});
}

// The letter of an option that has none is a NUL.
TEST(Options, OfUnknownLongNameAreReportedWithoutALetter) {
    expect_lines({"--blocks", "-v"}, 0, {"Unknown option \0"s, kVersionLine});
}

TEST(Options, GivenAValueTheyDoNotTakeAreReported) {
    expect_lines({"--2k_data=1", "-v"}, 0, {"Unknown option 2", kVersionLine});
    expect_lines({"--page_list=1", "-v"}, 0, {"Unknown option l", kVersionLine});
}

std::string missing(char letter) {
    return std::string("Missing option for ") + letter;
}

TEST(Options, WithoutTheirValueAreReportedByTheirLetter) {
    for (const char letter : "iotbps"s)
        expect_lines({std::string{'-', letter}}, status_of(-5), {missing(letter), "flash type is none"});
    const std::vector<std::pair<std::string, char>> long_names{{"--in", 'i'},         {"--out", 'o'},
                                                               {"--flash_type", 't'}, {"--block_size", 'b'},
                                                               {"--page_size", 'p'},  {"--oob_size", 's'}};
    for (const auto& [name, letter] : long_names) {
        expect_lines({"-t", "emmc", name}, status_of(-6),
                     {"flash type is 'emmc'", missing(letter), "block size is zero"});
    }
}

// The usage text lists -l, but only the long option switches the page list on.
TEST(PageList, HasNoShortOption) {
    expect_lines({"-l", "-v"}, 0, {"Unknown option l", kVersionLine});
    expect_lines({"--page_list", "-v"}, 0, {"page linked list on.", kVersionLine});
}

struct SizeOption {
    std::string letter;
    std::string what;
    int failure;
};

class Size : public testing::TestWithParam<SizeOption> {};

TEST_P(Size, ThatIsNotANumberEndsTheRunAtOnce) {
    const SizeOption& option = GetParam();
    for (const std::string text :
         {"abc", "", " ", "-", "+", "- 1", "2147483648", "-2147483649", "99999999999999999999", "x12", ".5"})
        expect_lines({option.letter, text, "-v"}, status_of(option.failure),
                     {option.what + " is '" + text + "'", "exception is 'stoi'"});
}

TEST_P(Size, MayHaveBlanksASignAndTrailingText) {
    const SizeOption& option = GetParam();
    for (const std::string text :
         {"12", "12abc", " \t12", "+12", "-12", "2147483647", "-2147483648", "0", "007", "1.5", "0x10"})
        expect_lines({option.letter, text, "-v"}, 0, {option.what + " is '" + text + "'", kVersionLine});
}

std::string letter_of(const testing::TestParamInfo<SizeOption>& tested) {
    return tested.param.letter.substr(1);
}

INSTANTIATE_TEST_SUITE_P(Option, Size,
                         testing::Values(SizeOption{"-b", "block size", -2},
                                         SizeOption{"-p", "page size", -3}, SizeOption{"-s", "oob size", -4}),
                         letter_of);

}  // namespace
