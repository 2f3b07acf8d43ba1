// What the command line says of chips and of extraction.

#include "parse.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace check_test;

CheckOptions parse_of(const std::string& type, const Words& more) {
    Words words{"-i", "fw", "-t", type, "-b", "128", "-p", "2", "-s", "64", "dump"};
    words.insert(words.end(), more.begin(), more.end());
    return parse(words);
}

CheckOptions parse_slc(const Words& more) {
    return parse_of("slc", more);
}

/// What is wrong with these words, for the dump of an SLC chip.
std::string error_of(const Words& more) {
    return parse_slc(more).error.value_or("");
}

TEST(ChipOptions, HaveTheseDefaults) {
    const ChipOptions chip = parse_slc({}).chip;
    EXPECT_TRUE(chip.at.empty());
    EXPECT_TRUE(chip.layout_file.empty());
    EXPECT_TRUE(chip.bad_blocks.empty());
    EXPECT_EQ(chip.max_bad_blocks, std::nullopt);
    EXPECT_EQ(chip.max_flips, 16U);
    EXPECT_EQ(chip.warn_flips, 12U);
    EXPECT_EQ(chip.dump_spare, 0U);
    EXPECT_EQ(chip.skip, 0U);
    EXPECT_FALSE(chip.force);
    EXPECT_EQ(chip.holes, When::kAuto);
}

TEST(ChipOptions, AreAllTaken) {
    const CheckOptions options =
        parse_slc({"--at=boot=8", "--at", "a=b=0x10", "--layout=l.csv", "--bad-blocks=41,9",
                   "--bad-blocks=40,9", "--max-bad-blocks=3", "--max-flips=8", "--skip=1K"});
    ASSERT_EQ(options.error, std::nullopt);
    const ChipOptions& chip = options.chip;
    ASSERT_EQ(chip.at.size(), 2U);
    EXPECT_EQ(chip.at[0].name, "boot");
    EXPECT_EQ(chip.at[0].block, 8U);
    EXPECT_EQ(chip.at[1].name, "a=b");
    EXPECT_EQ(chip.at[1].block, 16U);
    EXPECT_EQ(chip.layout_file, "l.csv");
    EXPECT_EQ(chip.bad_blocks, (std::vector<uint64_t>{9, 40, 41}));
    EXPECT_EQ(chip.max_bad_blocks, 3U);
    EXPECT_EQ(chip.max_flips, 8U);
    EXPECT_EQ(chip.warn_flips, 6U) << "three quarters of --max-flips";
    EXPECT_EQ(chip.skip, 1024U);
    EXPECT_EQ(parse_slc({"--warn-flips=1", "--max-flips=2"}).chip.warn_flips, 1U);
    EXPECT_EQ(parse_of("spinand", {"--dump-spare=64"}).chip.dump_spare, 64U);
}

TEST(ChipOptions, ThatAreWrongAreSentences) {
    const std::pair<const char*, const char*> wrong[] = {
        {"--at=boot", "--at takes NAME=BLOCK, not 'boot'"},
        {"--at==3", "--at takes NAME=BLOCK, not '=3'"},
        {"--at=boot=x", "--at=boot is not a number: 'x'"},
        {"--at=boot=0x100000000", "--at=boot is at most 4294967295, not 0x100000000"},
        {"--layout=", "--layout= names no file"},
        {"--bad-blocks=", "--bad-blocks is not a number: ''"},
        {"--bad-blocks=1,", "--bad-blocks is not a number: ''"},
        {"--bad-blocks=1,-2", "--bad-blocks is not a number: '-2'"},
        {"--max-bad-blocks=all", "--max-bad-blocks is not a number: 'all'"},
        {"--max-flips=17", "--max-flips is at most 16, not 17"},
        {"--warn-flips=17", "--warn-flips is at most 16, not 17"},
        {"--skip=0x8000000000000000", "--skip is at most 9223372036854775807, not 0x8000000000000000"},
        {"--extract=", "--extract= names no directory"},
        {"--force", "--force is for --extract"},
        {"--holes=never", "--holes is for --extract"},
        {"--dump-spare=64", "--dump-spare is for spinand"},
        {"--ecc", "--ecc takes no firmware"},
    };
    for (const auto& [word, reason] : wrong)
        EXPECT_EQ(error_of({word}), reason) << word;
    EXPECT_EQ(error_of({"--at=a=1", "--at=a=2"}), "'a' is in --at twice");
    EXPECT_EQ(error_of({"--max-flips=4", "--warn-flips=5"}), "--warn-flips is more than --max-flips");
    EXPECT_EQ(error_of({"--list", "--extract=d"}),
              "--list, --ecc, --extract and --manifest exclude each other");
}

TEST(ChipOptions, AreRefusedForWholeImages) {
    for (const char* type : {"emmc", "spinor"})
        for (const char* word : {"--at=a=1", "--layout=l", "--bad-blocks=1", "--max-bad-blocks=1",
                                 "--max-flips=1", "--warn-flips=1", "--skip=1"}) {
            const std::string name = std::string(word).substr(0, std::string(word).find('='));
            EXPECT_EQ(parse_of(type, {word}).error, name + " is for slc and spinand") << type;
        }
}

TEST(EccOption, TakesADumpAlone) {
    const CheckOptions options =
        parse({"--ecc", "-t", "slc", "-b", "128", "-p", "2", "-s", "64", "--bad-blocks=9", "chip.bin"});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_EQ(options.chip.bad_blocks, std::vector<uint64_t>{9});
    EXPECT_EQ(options.action, Action::kEcc);
    EXPECT_EQ(options.target, "chip.bin");
    EXPECT_EQ(parse({"--ecc", "-t", "slc", "-b", "128", "-p", "2", "-s", "64"}).error,
              "--ecc needs the file or the device to read");
    EXPECT_EQ(parse({"--ecc", "-t", "spinand", "-b", "128", "-p", "2", "d"}).error,
              "--ecc is for slc: only its pages hold parity");
    EXPECT_EQ(parse({"--ecc", "-t", "slc", "-b", "128", "-p", "2", "d"}).error, "oob size is zero");
    EXPECT_EQ(parse({"--ecc", "-t", "slc", "-b", "128", "-p", "2", "-s", "64", "--at=a=1", "d"}).error,
              "--at is of no use with --ecc");
}

TEST(ExtractOption, NamesADirectory) {
    const CheckOptions options = parse_slc({"--extract=plain", "--force", "--holes=never"});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_EQ(options.action, Action::kExtract);
    EXPECT_EQ(options.chip.extract_directory, "plain");
    EXPECT_TRUE(options.chip.force);
    EXPECT_EQ(options.chip.holes, When::kNever);
    EXPECT_EQ(parse({"--extract=plain", "-t", "slc", "-b", "128", "-p", "2", "-s", "64", "chip.bin"}).error,
              std::nullopt)
        << "a firmware is not needed";
}

}  // namespace
