// Limits that a machine really has, and names that are taken already: the run ends with the reason, or its
// files are right.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace robustness {
namespace {

using namespace test_support;
namespace fs = std::filesystem;

constexpr const char* temporary = "unsparse_tmp.bin";

class RealLimits : public testing::TestWithParam<ENUM_FLASH_TYPE> {
protected:
    bool one_image() const { return type_ == FLASH_EMMC || type_ == FLASH_NOR; }

    void expect_failure(const RunResult& run, const std::string& name, const std::string& reason) const {
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.exit_status, name == "out_image.img" ? status_init_failed : status_creation_failed);
        EXPECT_NE(run.out.find("failed to create " + (place_.output() / name).string() + reason + "\n"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(place_.damage(), "");
    }

    RunResult run() const { return place_.run(type_, {}); }

    ENUM_FLASH_TYPE type_ = GetParam();
    Workplace place_{small_firmware({.gpt = true})};
    const Files wanted_ = place_.undisturbed(type_, {});
};

TEST_P(RealLimits, ADirectoryInThePlaceOfAnyOutputStays) {
    for (const auto& [name, bytes] : wanted_) {
        place_.empty_output();
        fs::create_directories(place_.output() / name / "kept");
        expect_failure(run(), name, ",err=21");
        EXPECT_TRUE(fs::is_directory(place_.output() / name / "kept"));
    }
}

// A link is followed, also where its target is not there yet.
TEST_P(RealLimits, ADanglingLinkInThePlaceOfAnyOutputIsFollowed) {
    for (const auto& [name, bytes] : wanted_) {
        place_.empty_output();
        fs::create_symlink("target", place_.output() / name);
        EXPECT_TRUE(run().succeeded());
        EXPECT_TRUE(fs::is_symlink(place_.output() / name));
        Files wanted = wanted_;
        wanted["target"] = bytes;
        EXPECT_EQ(difference(wanted, files_in(place_.output())), "");
    }
}

TEST_P(RealLimits, ADanglingLinkForTheTemporaryFileIsFollowed) {
    place_.empty_output();
    fs::create_symlink("target", place_.output() / temporary);
    EXPECT_TRUE(run().succeeded());
    EXPECT_FALSE(fs::is_symlink(place_.output() / temporary));
    Files got = files_in(place_.output());
    EXPECT_EQ(got["target"].size() % 2048, 0U);
    EXPECT_NE(got["target"].size(), 0U);
    got.erase("target");
    EXPECT_EQ(difference(wanted_, got), "");
}

TEST_P(RealLimits, APipeForTheTemporaryFileIsRefusedAtOnce) {
    place_.empty_output();
    ASSERT_EQ(::mkfifo((place_.output() / temporary).c_str(), 0600), 0);
    expect_failure(run(), temporary, ",err=29");
}

// Around every power of two and around the sizes of the files themselves.
TEST_P(RealLimits, NoLimitOnTheSizeOfFilesEndsInAFalseSuccess) {
    std::set<uint64_t> limits;
    for (uint64_t power = 1; power <= uint64_t{1} << 24; power *= 2)
        limits.insert({power - 1, power});
    for (const auto& [name, bytes] : wanted_)
        limits.insert({bytes.size() - 1, bytes.size()});
    uint64_t largest = 0;
    for (const auto& [name, bytes] : wanted_)
        largest = std::max<uint64_t>(largest, bytes.size());
    for (const uint64_t limit : limits) {
        SCOPED_TRACE(limit);
        place_.empty_output();
        const RunResult result = place_.run(type_, {}, {.file_size_limit = limit});
        EXPECT_EQ(result.exit_status, limit < largest ? status_creation_failed : status_success)
            << result.out;
        EXPECT_EQ(result.out.find(",err=27") != std::string::npos, limit < largest);
        EXPECT_EQ(misbehaviour(result, wanted_, place_.output()), "");
        EXPECT_EQ(place_.damage(), "");
    }
}

// Root may write anywhere, so the program then runs as nobody.
TEST_P(RealLimits, AReadOnlyDirectoryIsReported) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "needs a build without coverage counters";
#endif
    std::vector<std::string> arguments = program_arguments(type_, {}, place_.firmware(), place_.output());
    std::string program = NANDSMITH_PROGRAM;
    if (::geteuid() == 0) {
        arguments.insert(arguments.begin(), {"--reuid=65534", "--clear-groups", program});
        program = find_program("setpriv");
        if (program.empty())
            GTEST_SKIP() << "missing tool: setpriv";
        if (!run_program(program, {"--reuid=65534", "--clear-groups", NANDSMITH_PROGRAM, "-v"}).succeeded())
            GTEST_SKIP() << "setpriv cannot run the program as nobody here";
    }
    place_.empty_output();
    fs::permissions(place_.top(), fs::perms{0755});
    fs::permissions(place_.output(), fs::perms{0555});
    const RunResult result = run_program(program, arguments, {.timeout_seconds = 60});
    fs::permissions(place_.output(), fs::perms{0755});
    expect_failure(result, one_image() ? "out_image.img" : "idblock.img", ",err=13");
    EXPECT_TRUE(fs::is_empty(place_.output()));
}

// The next file that is opened gets the lowest free descriptor: messages must not go there.
TEST_P(RealLimits, ClosedStandardDescriptorsLeaveImagesAlone) {
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        place_.empty_output();
        std::vector<std::string> arguments = {"-c", "exec \"$0\" \"$@\" " + closed, NANDSMITH_PROGRAM};
        const std::vector<std::string> more =
            program_arguments(type_, {}, place_.firmware(), place_.output());
        arguments.insert(arguments.end(), more.begin(), more.end());
        const RunResult result = run_program("/bin/sh", arguments, {.timeout_seconds = 60});
        EXPECT_TRUE(result.succeeded()) << result.out << result.err;
        EXPECT_EQ(result.out.empty(), closed.find(">&-") != std::string::npos && closed != "2>&-");
        EXPECT_EQ(difference(wanted_, files_in(place_.output())), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Types, RealLimits, testing::ValuesIn(storage_types),
                         [](const auto& tested) { return std::string(type_name(tested.param)); });

}  // namespace
}  // namespace robustness
