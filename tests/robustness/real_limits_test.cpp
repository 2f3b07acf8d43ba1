// Limits that a machine really has, and names that are taken already: the run ends with the reason, or its
// files are right.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

namespace robustness {
namespace {

using namespace test_support;

class RealLimits : public testing::TestWithParam<std::string> {
protected:
    Arguments arguments() const { return m_conversion.arguments(m_place.firmware(), m_place.out_dir()); }

    Conversion m_conversion = small_blocks(GetParam());
    Workplace m_place{small_firmware({.gpt = true})};
    const Files m_wanted = m_place.undisturbed(m_conversion);
};

// A link is followed, also where its target is not there yet.
TEST_P(RealLimits, ADanglingLinkInThePlaceOfAnyOutputIsFollowed) {
    for (const auto& [name, bytes] : m_wanted) {
        m_place.empty_output();
        fs::create_symlink("target", m_place.out(name));
        EXPECT_TRUE(m_place.run(m_conversion).succeeded());
        EXPECT_TRUE(fs::is_symlink(m_place.out(name)));
        Files wanted = m_wanted;
        wanted["target"] = bytes;
        EXPECT_EQ(difference(wanted, m_place.outputs()), "");
    }
}

TEST_P(RealLimits, ADanglingLinkForTheTemporaryFileIsFollowed) {
    m_place.empty_output();
    fs::create_symlink("target", m_place.out("unsparse_tmp.bin"));
    EXPECT_TRUE(m_place.run(m_conversion).succeeded());
    EXPECT_FALSE(fs::is_symlink(m_place.out("unsparse_tmp.bin")));
    Files got = m_place.outputs();
    EXPECT_EQ(got["target"].size() % 2048, 0U);
    EXPECT_NE(got["target"].size(), 0U);
    got.erase("target");
    EXPECT_EQ(difference(m_wanted, got), "");
}

// Around every power of two and around the sizes of the files themselves.
TEST_P(RealLimits, NoLimitOnTheSizeOfFilesEndsInAFalseSuccess) {
    std::set<uint64_t> limits;
    for (uint64_t power = 1; power <= uint64_t{1} << 24; power *= 2)
        limits.insert({power - 1, power});
    uint64_t largest = 0;
    for (const auto& [name, bytes] : m_wanted) {
        limits.insert({bytes.size() - 1, bytes.size()});
        largest = std::max<uint64_t>(largest, bytes.size());
    }
    for (const uint64_t limit : limits) {
        SCOPED_TRACE(limit);
        m_place.empty_output();
        const RunResult result = m_place.run(m_conversion, {.file_size_limit = limit});
        EXPECT_EQ(result.exit_status, limit < largest ? kCreationFailed : kConverted) << result.out;
        EXPECT_EQ(result.out.find(",err=27") != std::string::npos, limit < largest);
        EXPECT_EQ(misbehaviour(result, m_wanted, m_place.out_dir()), "");
        EXPECT_EQ(m_place.damage(), "");
    }
}

// Root may write anywhere, so the program then runs as nobody.
TEST_P(RealLimits, AReadOnlyDirectoryIsReported) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "needs a build without coverage counters";
#endif
    Arguments words = arguments();
    std::string program = NANDSMITH_PROGRAM;
    if (::geteuid() == 0) {
        words.insert(words.begin(), {"--reuid=65534", "--clear-groups", program});
        program = find_program("setpriv");
        if (program.empty())
            GTEST_SKIP() << "missing tool: setpriv";
        if (!run_program(program, {"--reuid=65534", "--clear-groups", NANDSMITH_PROGRAM, "-v"}).succeeded())
            GTEST_SKIP() << "setpriv cannot run the program as nobody here";
    }
    m_place.empty_output();
    fs::permissions(m_place.directory(), fs::perms{0755});
    fs::permissions(m_place.out_dir(), fs::perms{0555});
    const RunResult result = run_program(program, words, {.timeout_seconds = 60});
    fs::permissions(m_place.out_dir(), fs::perms{0755});
    const bool one_image = m_conversion.is_whole_device();
    EXPECT_EQ(result.exit_status, one_image ? kInitFailed : kCreationFailed);
    const fs::path refused = m_place.out(one_image ? "out_image.img" : "idblock.img");
    EXPECT_NE(result.out.find("failed to create " + refused.string() + ",err=13\n"), std::string::npos)
        << result.out;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(m_place.damage(), "");
    EXPECT_TRUE(fs::is_empty(m_place.out_dir()));
}

// The next file that is opened gets the lowest free descriptor: messages must not go there.
TEST_P(RealLimits, ClosedStandardDescriptorsLeaveImagesAlone) {
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        m_place.empty_output();
        Arguments words = arguments();
        words.insert(words.begin(), {"-c", "exec \"$0\" \"$@\" " + closed, NANDSMITH_PROGRAM});
        const RunResult result = run_program("/bin/sh", words, {.timeout_seconds = 60});
        EXPECT_TRUE(result.succeeded()) << result.out << result.err;
        EXPECT_EQ(result.out.empty(), closed.find(">&-") != std::string::npos && closed != "2>&-");
        EXPECT_EQ(difference(m_wanted, m_place.outputs()), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Types, RealLimits, testing::ValuesIn(kStorageTypes),
                         [](const auto& tested) { return tested.param; });

}  // namespace
}  // namespace robustness
