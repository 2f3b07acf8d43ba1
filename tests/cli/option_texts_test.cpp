// The options of nandsmith in its manual page and in the completions of shells, and the pages as tools for
// manual pages read them.

#include "cli/program_options.h"
#include "support/option_names.h"

namespace {

using namespace test_support;

OptionNames options_of_program() {
    return options_of_tables(program_letters(), program_options());
}

class Page : public testing::TestWithParam<std::string> {
protected:
    fs::path path() const { return fs::path(NANDSMITH_SOURCE_DIR) / "man" / GetParam(); }
};

TEST(NandsmithPage, HasAnEntryForEachOption) {
    EXPECT_EQ(options_of_page(fs::path(NANDSMITH_SOURCE_DIR) / "man/nandsmith.1"), options_of_program());
}

TEST_P(Page, HasNoWarningOfMandoc) {
    REQUIRE_TOOL("mandoc");
    const RunResult run = run_program("mandoc", {"-T", "lint", "-W", "warning", path()});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out + run.err, "");
}

// The call of lintian.
TEST_P(Page, IsFormattedWithoutWarningByMan) {
    REQUIRE_TOOL("man");
    REQUIRE_TOOL("groff");
    const RunResult run =
        run_program("man", {"--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path()},
                    {.environment = {{"LC_ALL", "C.UTF-8"}, {"MANROFFSEQ", ""}, {"MANWIDTH", "80"}}});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_NE(run.out, "");
    EXPECT_EQ(run.err, "");
}

std::string name_of_page(const testing::TestParamInfo<std::string>& tested) {
    return tested.param == "nandsmith.1" ? "OfNandsmith" : "OfNandsmithCheck";
}

INSTANTIATE_TEST_SUITE_P(Manual, Page, testing::Values("nandsmith.1", "nandsmith-check.1"), name_of_page);

class Completion : public CompletionTest {};

TEST_P(Completion, OffersEachOption) {
    expect_offered({"nandsmith -"}, options_of_program());
}

TEST_P(Completion, OffersTheStorageTypes) {
    expect_offered({"nandsmith -t ", "nandsmith --flash_type ", "nandsmith --flash_type="}, types());
}

TEST_P(Completion, OffersWhatTheBeginningOfAWordLeaves) {
    expect_offered({"nandsmith -2 -t sl", "nandsmith --flash_type=sl"}, {"slc"});
}

TEST_P(Completion, OffersFilesForTheFirmware) {
    expect_offered({"nandsmith -i ", "nandsmith --in ", "nandsmith --in="}, kFiles);
}

TEST_P(Completion, OffersDirectoriesForTheOutput) {
    expect_offered({"nandsmith -o ", "nandsmith --out ", "nandsmith --out="}, kDirectories);
}

TEST_P(Completion, OffersNothingForASize) {
    expect_offered({"nandsmith -b ", "nandsmith -p ", "nandsmith --oob_size="}, kNothing);
}

TEST_P(Completion, OffersNoFileInThePlaceOfAnOption) {
    expect_offered({"nandsmith -2 f"}, kNothing);
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::ValuesIn(kShells),
                         [](const auto& tested) { return tested.param; });

}  // namespace
