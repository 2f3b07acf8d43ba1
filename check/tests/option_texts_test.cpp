// The options of nandsmith-check in its manual page and in the completions of shells.

#include "check/options/options.h"
#include "support/option_names.h"

namespace {

using namespace test_support;

OptionNames options_of_checker() {
    OptionNames names = options_of_tables(check_letters(), check_long_options());
    names.erase("-l");  // is taken and ignored: not for use
    return names;
}

TEST(CheckPage, HasAnEntryForEachOption) {
    EXPECT_EQ(options_of_page(fs::path(NANDSMITH_SOURCE_DIR) / "man/nandsmith-check.1"),
              options_of_checker());
}

class CheckCompletion : public CompletionTest {
protected:
    // The lines are what follows the name of the program.
    void expect(const std::vector<std::string>& lines, const std::set<std::string>& offered) const {
        std::vector<std::string> whole;
        whole.reserve(lines.size());
        for (const std::string& line : lines)
            whole.push_back("nandsmith-check " + line);
        expect_offered(whole, offered);
    }
};

TEST_P(CheckCompletion, OffersEachOption) {
    expect({"-"}, options_of_checker());
}

TEST_P(CheckCompletion, OffersTheStorageTypes) {
    expect({"-t ", "--flash_type="}, types());
}

TEST_P(CheckCompletion, OffersFilesForTargetsTablesAndJson) {
    expect({"", "-t slc ", "-i ", "--in=", "--layout=", "--layout ", "--json=", "--json "}, kFiles);
}

TEST_P(CheckCompletion, OffersDirectoriesForExtraction) {
    expect({"-o ", "--out=", "--extract=", "--extract "}, kDirectories);
}

TEST_P(CheckCompletion, OffersTheWordsOfAnOption) {
    expect({"--color=", "--progress=", "--holes="}, {"auto", "always", "never"});
    expect({"--manifest=", "--manifest "}, {"csv", "json", "sums"});
}

// A word after a blank is not the value of an option that may go without one.
TEST_P(CheckCompletion, OffersATargetAfterAnOptionalValue) {
    expect({"--color ", "--progress ", "--holes "}, kFiles);
}

TEST_P(CheckCompletion, OffersPartsBetweenCommas) {
    expect({"--only=", "--only ", "--ignore=", "--ignore "}, {"idblock", "gpt", "parameter", "gaps", "rest"});
    // zsh tells the last word of a list, the others the list that it ends.
    expect({"--only=rootfs,ga", "--ignore rootfs,ga"}, {GetParam() == "zsh" ? "gaps" : "rootfs,gaps"});
}

TEST_P(CheckCompletion, OffersNothingForANumber) {
    expect({"-b ", "-p ", "-s ", "--at=", "--bad-blocks=", "--max-bad-blocks=", "--max-flips=",
            "--warn-flips=", "--dump-spare=", "--skip=", "--max-differences="},
           kNothing);
}

INSTANTIATE_TEST_SUITE_P(Shells, CheckCompletion, testing::ValuesIn(kShells),
                         [](const auto& tested) { return tested.param; });

}  // namespace
