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
    for (const char* option : {"-v", "--version"}) {
        SCOPED_TRACE(option);
        expect_run(run({option}), 0, line(kVersionLine));
    }
}

TEST(Usage, HasSeventeenLines) {
    for (const char* option : {"-h", "--help"}) {
        SCOPED_TRACE(option);
        expect_run(run({option}), 0, line(kUsage));
    }
}

TEST(Usage, EndsTheRunBeforeLaterOptionsAreRead) {
    expect_run(run({"-h", "-t", "nvme"}), 0, line(kUsage));
    expect_run(run({"-v", "-b", "abc"}), 0, line(kVersionLine));
    expect_run(run({"-hv"}), 0, line(kUsage));
    expect_run(run({"-vh"}), 0, line(kVersionLine));
}

TEST(FlashType, OfAnUnknownWordEndsTheRunAtOnce) {
    for (const std::string word : {"nvme", "", "emm", "emmcs", " emmc", "spi nand", "nor", "0"}) {
        SCOPED_TRACE(word);
        std::string expected = line("flash type is '" + word + "'") + line("flash type is not support.");
        expect_run(run({"-t", word, "-h"}), status_of(-1), expected);
        expect_run(run({"--flash_type", word, "-b", "abc"}), status_of(-1), expected);
    }
}

// The next failure tells that the type was taken.
TEST(FlashType, IsTakenInUpperAndLowerCase) {
    for (const std::string word : {"slc", "SLC", "Slc", "spinand", "SpiNand", "SPINAND", "spinor", "SPINOR",
                                   "SpiNor", "emmc", "EMMC", "eMMC"}) {
        SCOPED_TRACE(word);
        expect_run(run({"-t", word}), status_of(-6),
                   line("flash type is '" + word + "'") + line("block size is zero"));
    }
}

TEST(Options, AreEchoedInTheOrderInWhichTheyAreGiven) {
    std::string expected = line("input firmware is 'fw'") + line("output directory is 'dir'") +
                           line("flash type is 'slc'") + line("block size is '128'") +
                           line("page size is '2'") + line("oob size is '64'") + line("2k data page on.") +
                           line("page linked list on.") + line(kVersionLine);
    expect_run(run({"-i", "fw", "-o", "dir", "-t", "slc", "-b", "128", "-p", "2", "-s", "64", "-2",
                    "--page_list", "-v"}),
               0, expected);
    expect_run(run({"--in", "fw", "--out", "dir", "--flash_type", "slc", "--block_size", "128", "--page_size",
                    "2", "--oob_size", "64", "--2k_data", "--page_list", "--version"}),
               0, expected);
    expect_run(run({"--in=fw", "--out=dir", "--flash_type=slc", "--block_size=128", "--page_size=2",
                    "--oob_size=64", "--2k_data", "--page_list", "-v"}),
               0, expected);
    expect_run(run({"-ifw", "-odir", "-tslc", "-b128", "-p2", "-s64", "-2", "--page_list", "-v"}), 0,
               expected);

    std::string reversed = line("page linked list on.") + line("2k data page on.") +
                           line("oob size is '64'") + line("page size is '2'") + line("block size is '128'") +
                           line("flash type is 'slc'") + line("output directory is 'dir'") +
                           line("input firmware is 'fw'") + line(kVersionLine);
    expect_run(
        run({"--page_list", "-2s", "64", "-p", "2", "-b", "128", "-t", "slc", "-o", "dir", "-i", "fw", "-v"}),
        0, reversed);
}

TEST(Options, GivenTwiceAreEchoedTwiceAndTheLaterOneCounts) {
    expect_run(run({"-t", "slc", "-t", "emmc", "-b", "1", "-b", "0"}), status_of(-6),
               line("flash type is 'slc'") + line("flash type is 'emmc'") + line("block size is '1'") +
                   line("block size is '0'") + line("block size is zero"));
}

TEST(Options, LetArgumentsThatAreNoOptionsPassInTheirOrder) {
    expect_run(run({"first", "-2", "second", "", "-", "-v"}), 0,
               line("regular argument 'first'") + line("2k data page on.") +
                   line("regular argument 'second'") + line("regular argument ''") +
                   line("regular argument '-'") + line(kVersionLine));
}

TEST(Options, EndAtADoubleDash) {
    expect_run(run({"-2", "--", "-v", "rest"}), status_of(-5),
               line("2k data page on.") + line("flash type is none"));
}

TEST(Options, OfUnknownNameAreReportedAndParsingGoesOn) {
    expect_run(run({"-x", "-2", "-L", "-v"}), 0,
               line("Unknown option x") + line("2k data page on.") + line("Unknown option L") +
                   line(kVersionLine));
    expect_run(run({"-2x2", "-v"}), 0,
               line("2k data page on.") + line("Unknown option x") + line("2k data page on.") +
                   line(kVersionLine));
}

// The letter of an option that has none is a NUL.
TEST(Options, OfUnknownLongNameAreReportedWithoutALetter) {
    expect_run(run({"--blocks", "-v"}), 0, line("Unknown option \0"s) + line(kVersionLine));
}

TEST(Options, GivenAValueTheyDoNotTakeAreReported) {
    expect_run(run({"--2k_data=1", "-v"}), 0, line("Unknown option 2") + line(kVersionLine));
    expect_run(run({"--page_list=1", "-v"}), 0, line("Unknown option l") + line(kVersionLine));
}

std::string missing(char letter) {
    std::string line = "Missing option for ";
    line.push_back(letter);
    return line;
}

TEST(Options, WithoutTheirValueAreReportedByTheirLetter) {
    for (const char letter : "iotbps"s) {
        SCOPED_TRACE(letter);
        expect_run(run({std::string{'-', letter}}), status_of(-5),
                   line(missing(letter)) + line("flash type is none"));
    }
    const std::vector<std::pair<std::string, char>> long_names{{"--in", 'i'},         {"--out", 'o'},
                                                               {"--flash_type", 't'}, {"--block_size", 'b'},
                                                               {"--page_size", 'p'},  {"--oob_size", 's'}};
    for (const auto& [name, letter] : long_names) {
        SCOPED_TRACE(name);
        expect_run(run({"-t", "emmc", name}), status_of(-6),
                   line("flash type is 'emmc'") + line(missing(letter)) + line("block size is zero"));
    }
}

// The usage text lists -l, but only the long option switches the page list on.
TEST(PageList, HasNoShortOption) {
    expect_run(run({"-l", "-v"}), 0, line("Unknown option l") + line(kVersionLine));
    expect_run(run({"--page_list", "-v"}), 0, line("page linked list on.") + line(kVersionLine));
}

struct SizeOption {
    std::string letter;
    std::string what;
    int failure;
};

class Size : public testing::TestWithParam<SizeOption> {};

TEST_P(Size, ThatIsNotANumberEndsTheRunAtOnce) {
    const SizeOption& option = GetParam();
    for (const std::string text : {"abc", "", " ", "-", "+", "- 1", "2147483648", "-2147483649",
                                   "99999999999999999999", "x12", ".5"}) {
        SCOPED_TRACE(text);
        expect_run(run({option.letter, text, "-v"}), status_of(option.failure),
                   line(option.what + " is '" + text + "'") + line("exception is 'stoi'"));
    }
}

TEST_P(Size, MayHaveBlanksASignAndTrailingText) {
    const SizeOption& option = GetParam();
    for (const std::string text :
         {"12", "12abc", " \t12", "+12", "-12", "2147483647", "-2147483648", "0", "007", "1.5", "0x10"}) {
        SCOPED_TRACE(text);
        expect_run(run({option.letter, text, "-v"}), 0,
                   line(option.what + " is '" + text + "'") + line(kVersionLine));
    }
}

std::string letter_of(const testing::TestParamInfo<SizeOption>& tested) {
    return tested.param.letter.substr(1);
}

INSTANTIATE_TEST_SUITE_P(Option, Size,
                         testing::Values(SizeOption{"-b", "block size", -2},
                                         SizeOption{"-p", "page size", -3}, SizeOption{"-s", "oob size", -4}),
                         letter_of);

}  // namespace
