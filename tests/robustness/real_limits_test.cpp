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

constexpr const char* kTemporary = "unsparse_tmp.bin";

class RealLimits : public testing::TestWithParam<ENUM_FLASH_TYPE> {
protected:
    bool one_image() const { return m_type == FLASH_EMMC || m_type == FLASH_NOR; }

    void expect_failure(const RunResult& run, const std::string& name, const std::string& reason) const {
        EXPECT_TRUE(run.exited);
        EXPECT_EQ(run.exit_status, name == "out_image.img" ? kStatusInitFailed : kStatusCreationFailed);
        EXPECT_NE(run.out.find("failed to create " + (m_place.output() / name).string() + reason + "\n"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(m_place.damage(), "");
    }

    RunResult run() const { return m_place.run(m_type, {}); }

    ENUM_FLASH_TYPE m_type = GetParam();
    Workplace m_place{small_firmware({.gpt = true})};
    const Files m_wanted = m_place.undisturbed(m_type, {});
};

TEST_P(RealLimits, ADirectoryInThePlaceOfAnyOutputStays) {
    for (const auto& [name, bytes] : m_wanted) {
        m_place.empty_output();
        fs::create_directories(m_place.output() / name / "kept");
        expect_failure(run(), name, ",err=21");
        EXPECT_TRUE(fs::is_directory(m_place.output() / name / "kept"));
    }
}

// A link is followed, also where its target is not there yet.
TEST_P(RealLimits, ADanglingLinkInThePlaceOfAnyOutputIsFollowed) {
    for (const auto& [name, bytes] : m_wanted) {
        m_place.empty_output();
        fs::create_symlink("target", m_place.output() / name);
        EXPECT_TRUE(run().succeeded());
        EXPECT_TRUE(fs::is_symlink(m_place.output() / name));
        Files wanted = m_wanted;
        wanted["target"] = bytes;
        EXPECT_EQ(difference(wanted, files_in(m_place.output())), "");
    }
}

TEST_P(RealLimits, ADanglingLinkForTheTemporaryFileIsFollowed) {
    m_place.empty_output();
    fs::create_symlink("target", m_place.output() / kTemporary);
    EXPECT_TRUE(run().succeeded());
    EXPECT_FALSE(fs::is_symlink(m_place.output() / kTemporary));
    Files got = files_in(m_place.output());
    EXPECT_EQ(got["target"].size() % 2048, 0U);
    EXPECT_NE(got["target"].size(), 0U);
    got.erase("target");
    EXPECT_EQ(difference(m_wanted, got), "");
}

TEST_P(RealLimits, APipeForTheTemporaryFileIsRefusedAtOnce) {
    m_place.empty_output();
    ASSERT_EQ(::mkfifo((m_place.output() / kTemporary).c_str(), 0600), 0);
    expect_failure(run(), kTemporary, ",err=29");
}

// Around every power of two and around the sizes of the files themselves.
TEST_P(RealLimits, NoLimitOnTheSizeOfFilesEndsInAFalseSuccess) {
    std::set<uint64_t> limits;
    for (uint64_t power = 1; power <= uint64_t{1} << 24; power *= 2)
        limits.insert({power - 1, power});
    for (const auto& [name, bytes] : m_wanted)
        limits.insert({bytes.size() - 1, bytes.size()});
    uint64_t largest = 0;
    for (const auto& [name, bytes] : m_wanted)
        largest = std::max<uint64_t>(largest, bytes.size());
    for (const uint64_t limit : limits) {
        SCOPED_TRACE(limit);
        m_place.empty_output();
        const RunResult result = m_place.run(m_type, {}, {.file_size_limit = limit});
        EXPECT_EQ(result.exit_status, limit < largest ? kStatusCreationFailed : kStatusSuccess) << result.out;
        EXPECT_EQ(result.out.find(",err=27") != std::string::npos, limit < largest);
        EXPECT_EQ(misbehaviour(result, m_wanted, m_place.output()), "");
        EXPECT_EQ(m_place.damage(), "");
    }
}

// Root may write anywhere, so the program then runs as nobody.
TEST_P(RealLimits, AReadOnlyDirectoryIsReported) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "needs a build without coverage counters";
#endif
    std::vector<std::string> arguments = program_arguments(m_type, {}, m_place.firmware(), m_place.output());
    std::string program = NANDSMITH_PROGRAM;
    if (::geteuid() == 0) {
        arguments.insert(arguments.begin(), {"--reuid=65534", "--clear-groups", program});
        program = find_program("setpriv");
        if (program.empty())
            GTEST_SKIP() << "missing tool: setpriv";
        if (!run_program(program, {"--reuid=65534", "--clear-groups", NANDSMITH_PROGRAM, "-v"}).succeeded())
            GTEST_SKIP() << "setpriv cannot run the program as nobody here";
    }
    m_place.empty_output();
    fs::permissions(m_place.top(), fs::perms{0755});
    fs::permissions(m_place.output(), fs::perms{0555});
    const RunResult result = run_program(program, arguments, {.timeout_seconds = 60});
    fs::permissions(m_place.output(), fs::perms{0755});
    expect_failure(result, one_image() ? "out_image.img" : "idblock.img", ",err=13");
    EXPECT_TRUE(fs::is_empty(m_place.output()));
}

// The next file that is opened gets the lowest free descriptor: messages must not go there.
TEST_P(RealLimits, ClosedStandardDescriptorsLeaveImagesAlone) {
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        m_place.empty_output();
        std::vector<std::string> arguments = {"-c", "exec \"$0\" \"$@\" " + closed, NANDSMITH_PROGRAM};
        const std::vector<std::string> more =
            program_arguments(m_type, {}, m_place.firmware(), m_place.output());
        arguments.insert(arguments.end(), more.begin(), more.end());
        const RunResult result = run_program("/bin/sh", arguments, {.timeout_seconds = 60});
        EXPECT_TRUE(result.succeeded()) << result.out << result.err;
        EXPECT_EQ(result.out.empty(), closed.find(">&-") != std::string::npos && closed != "2>&-");
        EXPECT_EQ(difference(m_wanted, files_in(m_place.output())), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Types, RealLimits, testing::ValuesIn(kStorageTypes),
                         [](const auto& tested) { return std::string(type_name(tested.param)); });

}  // namespace
}  // namespace robustness
