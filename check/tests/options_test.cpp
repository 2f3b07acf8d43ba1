// The command line of nandsmith-check: what it takes, warns of and refuses.

#include "parse.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace check_test;

TEST(CheckOptions, OfTheConversionAreReadAsItReadsThem) {
    const std::vector<Words> spellings{
        {"-i", "fw", "-o", "out", "-t", "SLC", "-b", "128", "-p", "2", "-s", "64", "-2", "--page_list"},
        {"--in=fw", "--out=out", "--flash_type=slc", "--block_size=128", "--page_size=2", "--oob_size=64",
         "--2k_data", "--page_list"},
        {"--page_l", "--i", "fw", "--ou", "out", "--f", "slc", "--b=128", "-2p2", "-s64"},
    };
    for (const Words& words : spellings) {
        SCOPED_TRACE(words[0]);
        const CheckOptions options = parse(words);
        EXPECT_EQ(options.error, std::nullopt);
        EXPECT_EQ(options.warnings, Words{});
        ASSERT_NE(options.conversion.type, nullptr);
        EXPECT_STREQ(options.conversion.type->word, "slc");
        const StorageSettings& settings = options.conversion.settings;
        EXPECT_EQ(settings.in_firmware, "fw");
        EXPECT_EQ(settings.out_dir, "out");
        EXPECT_EQ(settings.block_size, 128U);
        EXPECT_EQ(settings.page_size, 2U);
        EXPECT_EQ(settings.oob_size, 64U);
        EXPECT_TRUE(settings.page_2k);
        EXPECT_TRUE(settings.page_list);
        EXPECT_EQ(options.target, "out");
        EXPECT_EQ(options.action, Action::kCheck);
    }
}

TEST(CheckOptions, HaveTheseDefaults) {
    const CheckOptions options = parse_with({});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_EQ(options.action, Action::kCheck);
    EXPECT_EQ(options.target, ".");
    EXPECT_EQ(options.only, Words{});
    EXPECT_EQ(options.ignore, Words{});
    EXPECT_FALSE(options.strict);
    EXPECT_EQ(options.max_differences, 10U);
    EXPECT_FALSE(options.json);
    EXPECT_EQ(options.json_file, "");
    EXPECT_FALSE(options.quiet);
    EXPECT_FALSE(options.verbose);
    EXPECT_TRUE(options.second_opinion);
    EXPECT_EQ(options.color, When::kAuto);
    EXPECT_EQ(options.progress, When::kAuto);
    EXPECT_FALSE(options.conversion.settings.page_2k);
    EXPECT_FALSE(options.conversion.settings.page_list);
}

TEST(CheckOptions, OfTheCheckAreTaken) {
    const CheckOptions options = parse_with({"--strict", "--json=r.json", "-q", "--verbose", "--color=never",
                                             "--progress", "--no-second-opinion", "--max-differences", "3"});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_TRUE(options.strict);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.json_file, "r.json");
    EXPECT_TRUE(options.quiet);
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.color, When::kNever);
    EXPECT_EQ(options.progress, When::kAlways);
    EXPECT_FALSE(options.second_opinion);
    EXPECT_EQ(options.max_differences, 3U);
    EXPECT_TRUE(parse_with({"--quiet"}).quiet);
    EXPECT_EQ(parse_with({"--json=f", "--json"}).json_file, "");
    EXPECT_EQ(parse_with({"--color", "--color=auto"}).color, When::kAuto);
}

TEST(CheckOptions, AreReadAnewAfterAnUnfinishedGroup) {
    EXPECT_EQ(parse({"-vx2"}).action, Action::kVersion);
    const CheckOptions options = parse_with({"-2"});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_TRUE(options.conversion.settings.page_2k);
}

TEST(CheckOptions, EndAtVersionAndHelpAsInNandsmith) {
    for (const Words& words : std::vector<Words>{{"-v"},
                                                 {"--version"},
                                                 {"--v"},
                                                 {"--ve"},
                                                 {"--ver"},
                                                 {"-v", "-t", "x"},
                                                 {"-vh"},
                                                 {"out", "-v"}}) {
        SCOPED_TRACE(words.back());
        EXPECT_EQ(parse(words).action, Action::kVersion);
        EXPECT_EQ(parse(words).error, std::nullopt);
    }
    for (const Words& words : std::vector<Words>{{"-h"}, {"--help"}, {"--h"}, {"-h", "--nothing"}}) {
        SCOPED_TRACE(words.back());
        EXPECT_EQ(parse(words).action, Action::kHelp);
        EXPECT_EQ(parse(words).error, std::nullopt);
    }
    EXPECT_EQ(parse({"-t", "x", "-h"}).action, Action::kCheck);
}

// ---- numbers of the conversion ----

struct SizeOption {
    std::string letter;
    std::string what;
};

class CheckedSize : public testing::TestWithParam<SizeOption> {
protected:
    static Words with(const std::string& text) { return {GetParam().letter, text}; }
};

TEST_P(CheckedSize, IsReadWithAWarningWherePartsAreIgnored) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"12abc", "12"}, {"2KB", "2"}, {"1.5", "1"}, {"+12", "12"}, {" 3", "3"}, {"-12", "4294967284"}};
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        const CheckOptions options = parse_with(with(text));
        EXPECT_EQ(options.error, std::nullopt);
        EXPECT_EQ(options.warnings, Words{GetParam().what + " '" + text + "' is read as " + value});
    }
    EXPECT_EQ(parse_with(with("007")).warnings, Words{});
}

TEST_P(CheckedSize, ThatHoldsNoNumberIsNamed) {
    for (const std::string text : {"abc", "", " ", "-", "+", "- 1", "x12", ".5"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parse_with(with(text)).error, GetParam().what + " is not a number: '" + text + "'");
    }
}

TEST_P(CheckedSize, BeyondItsRangeIsNamed) {
    for (const std::string text : {"2147483648", "-2147483649", " +99999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parse_with(with(text)).error, GetParam().what + " is out of range: '" + text + "'");
    }
    EXPECT_EQ(parse_with(with("2147483647")).error, std::nullopt);
}

TEST_P(CheckedSize, OfZeroIsRefused) {
    EXPECT_EQ(parse_with(with("0")).error, GetParam().what + " is zero");
    const CheckOptions options = parse_with(with("0x80"));
    EXPECT_EQ(options.error, GetParam().what + " is zero");
    EXPECT_EQ(options.warnings, Words{GetParam().what + " '0x80' is read as 0"});
}

INSTANTIATE_TEST_SUITE_P(Option, CheckedSize,
                         testing::Values(SizeOption{"-b", "block size"}, SizeOption{"-p", "page size"},
                                         SizeOption{"-s", "oob size"}),
                         [](const auto& tested) { return tested.param.letter.substr(1); });

// ---- what is missing or wrong ----

TEST(CheckOptions, ThatAreMissingAreToldInTheOrderOfNandsmith) {
    EXPECT_EQ(parse({}).error, "flash type is none");
    EXPECT_EQ(parse({"-t", "slc"}).error, "block size is zero");
    EXPECT_EQ(parse({"-t", "slc", "-b", "128"}).error, "page size is zero");
    EXPECT_EQ(parse({"-t", "slc", "-b", "128", "-p", "2"}).error, "oob size is zero");
    EXPECT_EQ(parse({"-t", "emmc", "-b", "128", "-p", "2"}).error, "firmware is none; give it with -i");
    EXPECT_EQ(parse({"-t", "emmc", "-b", "128", "-p", "2", "-i", ""}).error,
              "firmware is none; give it with -i");
    EXPECT_EQ(parse({"-t", "emmc", "-b", "128", "-p", "2", "-i", "fw"}).error, std::nullopt);
}

TEST(CheckOptions, TellOfAnUnknownFlashType) {
    EXPECT_EQ(parse_with({"-t", "nvme"}).error,
              "flash type 'nvme' is not supported; the types are slc, spinand, spinor, emmc");
}

TEST(CheckOptions, OfUnknownNameAreRefused) {
    EXPECT_EQ(parse_with({"-x"}).error, "unknown option '-x'");
    EXPECT_EQ(parse_with({"--strict", "-2x"}).error, "unknown option '-x'");
    EXPECT_EQ(parse_with({"--json=f", "-x2"}).error, "unknown option '-x'");
    EXPECT_EQ(parse_with({"-\xc3\xa9"}).error, "unknown option '-\xc3'");
    EXPECT_EQ(parse_with({"-:"}).error, "unknown option '-:'");
    EXPECT_EQ(parse_with({"--blocks"}).error, "unknown option '--blocks'");
    EXPECT_EQ(parse_with({"--blocks=4", "-2"}).error, "unknown option '--blocks'");
    EXPECT_EQ(parse_with({"--page", "2"}).error, "ambiguous option '--page'");
}

TEST(CheckOptions, GivenAValueTheyDoNotTakeAreRefused) {
    EXPECT_EQ(parse_with({"--2k_data=1"}).error, "option '--2k_data' takes no value");
    EXPECT_EQ(parse_with({"--page_list=1"}).error, "option '--page_list' takes no value");
    EXPECT_EQ(parse_with({"--strict=yes"}).error, "option '--strict' takes no value");
    EXPECT_EQ(parse_with({"--quiet=yes"}).error, "option '--quiet' takes no value");
}

TEST(CheckOptions, WithoutTheirValueAreRefused) {
    EXPECT_EQ(parse_with({"-b"}).error, "option -b needs a value");
    EXPECT_EQ(parse_with({"--block_size"}).error, "option -b needs a value");
    EXPECT_EQ(parse_with({"--only"}).error, "option --only needs a value");
    EXPECT_EQ(parse_with({"--max-differences"}).error, "option --max-differences needs a value");
}

TEST(CheckOptions, KeepTheFirstErrorAndAreReadToTheEnd) {
    const CheckOptions options = parse({"-p", "x", "-b", "y", "--json=r.json", "-q", "-h"});
    EXPECT_EQ(options.error, "page size is not a number: 'x'");
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.json_file, "r.json");
    EXPECT_TRUE(options.quiet);
    EXPECT_EQ(options.action, Action::kCheck);
}

TEST(CheckOptions, IgnoreTheLetterOfThePageListWithAWarning) {
    for (const Words& words : std::vector<Words>{{"-l"}, {"-2l"}}) {
        const CheckOptions options = parse_with(words);
        EXPECT_EQ(options.error, std::nullopt);
        EXPECT_FALSE(options.conversion.settings.page_list);
        EXPECT_EQ(options.warnings, Words{"-l is ignored, as by nandsmith; the option is --page_list"});
    }
    EXPECT_EQ(parse_with({"--page_list"}).warnings, Words{});
}

// ---- the target ----

TEST(CheckTarget, IsAnArgumentOrTheOutputDirectory) {
    EXPECT_EQ(parse_with({"out"}).target, "out");
    EXPECT_EQ(parse_with({"-o", "out"}).target, "out");
    EXPECT_EQ(parse_with({"-o", "other", "-o", "out"}).target, "out");
    EXPECT_EQ(parse_with({"out", "-o", "out"}).target, "out");
    EXPECT_EQ(parse_with({"out", "-o", "out"}).error, std::nullopt);
    EXPECT_EQ(parse_with({"out", "--strict"}).target, "out");
    EXPECT_TRUE(parse_with({"out", "--strict"}).strict);
}

TEST(CheckTarget, ThatIsEmptyIsTheCurrentDirectory) {
    for (const Words& words : std::vector<Words>{{""}, {"-o", ""}, {".", "-o", ""}, {"", "-o", "."}}) {
        EXPECT_EQ(parse_with(words).target, ".");
        EXPECT_EQ(parse_with(words).error, std::nullopt);
    }
}

TEST(CheckTarget, AfterADoubleDashMayBeginWithADash) {
    EXPECT_EQ(parse_with({"--", "-v"}).target, "-v");
    EXPECT_EQ(parse_with({"--", "-v"}).error, std::nullopt);
    EXPECT_EQ(parse_with({"--"}).target, ".");
    EXPECT_EQ(parse_with({"a", "--", "b"}).error, "more than one target: 'a' and 'b'");
    EXPECT_EQ(parse_with({"--", "a", "b"}).error, "more than one target: 'a' and 'b'");
}

TEST(CheckTarget, IsOneAlone) {
    EXPECT_EQ(parse_with({"a", "b"}).error, "more than one target: 'a' and 'b'");
    EXPECT_EQ(parse_with({"a", "a"}).error, "more than one target: 'a' and 'a'");
    EXPECT_EQ(parse_with({"a", "-o", "b"}).error, "'a' and -o 'b' are two targets");
    EXPECT_EQ(parse_with({"a", "-o", ""}).error, "'a' and -o '' are two targets");
}

TEST(CheckTarget, OfOneDashIsStandardInput) {
    EXPECT_EQ(parse_with({"-"}).target, "-");
    EXPECT_EQ(parse_with({"-"}).error, std::nullopt);
    EXPECT_EQ(parse_with({"-", "-o", "out"}).error, "standard input and -o 'out' are two targets");
    EXPECT_EQ(parse_with({"-", "-o", "-"}).error, "standard input and -o '-' are two targets");
    EXPECT_EQ(parse_with({"-o", "-"}).target, "./-");
    EXPECT_EQ(parse_with({"-o", "-"}).error, std::nullopt);
}

// ---- values of the check's own options ----

TEST(CheckNames, AreSeparatedByCommas) {
    EXPECT_EQ(parse_with({"--only=boot,idblock"}).only, (Words{"boot", "idblock"}));
    EXPECT_EQ(parse_with({"--ignore", "rest"}).ignore, Words{"rest"});
    EXPECT_EQ(parse_with({"--only=a", "--only=b"}).only, (Words{"a", "b"}));
}

TEST(CheckNames, GivenTwiceCountOnce) {
    EXPECT_EQ(parse_with({"--only=a,b,a", "--only=b"}).only, (Words{"a", "b"}));
}

TEST(CheckNames, ThatAreEmptyAreRefused) {
    for (const std::string names : {"", ",", "a,", ",a", "a,,b"}) {
        SCOPED_TRACE(names);
        EXPECT_EQ(parse_with({"--only=" + names}).error, "--only has an empty name: '" + names + "'");
        EXPECT_EQ(parse_with({"--ignore=" + names}).error, "--ignore has an empty name: '" + names + "'");
    }
}

TEST(CheckNames, AreNotBothAskedForAndIgnored) {
    EXPECT_EQ(parse_with({"--only=a,b", "--ignore=b"}).error, "'b' is in --only and in --ignore");
    EXPECT_EQ(parse_with({"--only=a", "--ignore=b"}).error, std::nullopt);
}

TEST(MaxDifferences, TakesHexadecimalAndUnits) {
    const std::vector<std::pair<std::string, uint64_t>> cases{
        {"1", 1},
        {"0", UINT64_MAX},
        {"0x0", UINT64_MAX},
        {"0xfF", 255},
        {"4K", 4096},
        {"2M", 2097152},
        {"1G", 1073741824},
        {"0x10K", 16384},
        {"18446744073709551615", UINT64_MAX},
        {"17179869183G", 18446744072635809792U},
    };
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        const CheckOptions options = parse_with({"--max-differences=" + text});
        EXPECT_EQ(options.error, std::nullopt);
        EXPECT_EQ(options.max_differences, value);
    }
}

TEST(MaxDifferences, TakesNothingElse) {
    for (const std::string text :
         {"", "K", "x", "12abc", "-1", "+1", " 1", "1 ", "1.5", "0x", "0xK", "0X10", "1k", "1KB", "1KK", "1T",
          "18446744073709551616", "17179869184G", "0x-1"}) {
        SCOPED_TRACE(text);
        const CheckOptions options = parse_with({"--max-differences=" + text});
        EXPECT_EQ(options.error, "--max-differences is not a number: '" + text + "'");
        EXPECT_EQ(options.max_differences, 10U);
    }
}

TEST(CheckOptions, OfColorAndProgressTakeThreeWords) {
    EXPECT_EQ(parse_with({"--color"}).color, When::kAlways);
    EXPECT_EQ(parse_with({"--progress=never"}).progress, When::kNever);
    EXPECT_EQ(parse_with({"--progress=always"}).progress, When::kAlways);
    EXPECT_EQ(parse_with({"--color=yes"}).error, "--color takes auto, always or never, not 'yes'");
    EXPECT_EQ(parse_with({"--progress="}).error, "--progress takes auto, always or never, not ''");
}

TEST(CheckOptions, RefuseAJsonFileWithoutAName) {
    EXPECT_EQ(parse_with({"--json="}).error, "--json= names no file");
    EXPECT_TRUE(parse_with({"--json="}).json);
}

TEST(CheckList, NeedsAFirmwareAlone) {
    const CheckOptions options = parse({"--list", "-i", "fw", "--json"});
    EXPECT_EQ(options.error, std::nullopt);
    EXPECT_EQ(options.action, Action::kList);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(parse({"--list"}).error, "firmware is none; give it with -i");
    EXPECT_EQ(parse({"--list", "-i", "fw", "-p", "x"}).error, "page size is not a number: 'x'");
}

// ---- help ----

/// The lines of the help text that begin with this.
Words help_lines(const std::string& beginning) {
    Words lines;
    std::istringstream text(check_help());
    for (std::string line; std::getline(text, line);)
        if (line.starts_with(beginning))
            lines.push_back(line);
    return lines;
}

TEST(CheckHelp, HasFourExamplesThatAreTaken) {
    const Words examples = help_lines("  nandsmith-check ");
    ASSERT_EQ(examples.size(), 4U);
    for (const std::string& example : examples) {
        SCOPED_TRACE(example);
        std::istringstream words(example.substr(0, example.find('<')));
        Words arguments;
        for (std::string word; words >> word;)
            arguments.push_back(word);
        arguments.erase(arguments.begin());
        const CheckOptions options = parse(arguments);
        EXPECT_EQ(options.error, std::nullopt);
        EXPECT_EQ(options.warnings, Words{});
        EXPECT_EQ(options.conversion.settings.in_firmware, "fw.img");
    }
}

TEST(CheckHelp, NamesOptionsThatExist) {
    const std::string help = check_help();
    int found = 0;
    for (std::size_t at = help.find("--"); at != std::string::npos; at = help.find("--", at + 2), ++found) {
        const std::size_t end = help.find_first_not_of("abcdefghijklmnopqrstuvwxyz2_-", at);
        const std::string name = help.substr(at, end - at);
        const std::string error = parse_with({name}).error.value_or("");
        EXPECT_EQ(error.find("unknown"), std::string::npos) << error;
        EXPECT_EQ(error.find("ambiguous"), std::string::npos) << error;
    }
    EXPECT_GE(found, 21);
}

TEST(CheckHelp, FitsATerminal) {
    const Words lines = help_lines("");
    EXPECT_LT(lines.size(), 70U);
    for (const std::string& line : lines)
        EXPECT_LE(line.size(), 110U) << line;
    EXPECT_EQ(check_help().back(), '\n');
    EXPECT_EQ(help_lines("Exit status: ").size(), 1U);
}

}  // namespace
