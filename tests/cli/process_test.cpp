// What a run shows as a process: when its lines come out, the modes of its files, the directory that it runs
// in, and what it does without memory.

#include "support/process_limits.h"
#include "support/workbench.h"

#include <csignal>
#include <sys/stat.h>

namespace {

using namespace test_support;

constexpr double kMostSeconds = 60;

class Process : public testing::Test {
protected:
    const Workbench m_bench{sample_firmware()};
};

// The run waits for a reader of the pipe in the place of boot.img, and is killed there.
TEST_F(Process, PrintsEachLineAtOnce) {
    ASSERT_EQ(::mkfifo(m_bench.out("boot.img").c_str(), 0600), 0);
    const Conversion nand{"spinand", "64", "2"};
    const std::string last = redrawn("writing parameter...OK");
    const RunResult result =
        m_bench.convert(nand, {.timeout_seconds = kMostSeconds, .kill_after_output = last});
    EXPECT_FALSE(result.timed_out) << "the line waits in the program";
    EXPECT_EQ(result.out, m_bench.echo(nand) + opening_lines() +
                              preparing_line("parameter", m_bench.out_dir()) + table_lines("parameter"));
    EXPECT_EQ(result.signal, SIGKILL);
}

// Takes part in the mode of every file that a run creates.
class Umask {
public:
    explicit Umask(mode_t mask) : m_before(::umask(mask)) {}
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { ::umask(m_before); }

private:
    mode_t m_before;
};

TEST_F(Process, LeavesTheModeOfFilesToTheUmask) {
    for (const auto& [mask, mode] : {std::pair{0U, 0666U}, {002U, 0664U}, {027U, 0640U}, {077U, 0600U}}) {
        for (const std::string type : {"emmc", "spinand", "slc"}) {
            SCOPED_TRACE(type + " " + std::to_string(mask));
            m_bench.empty_output();
            const Umask umask(mask);
            ASSERT_TRUE(m_bench.convert({type, "64", "2", "64"}).succeeded());
            for (const std::string& name : m_bench.output_names())
                EXPECT_EQ(fs::status(m_bench.out(name)).permissions(), fs::perms{mode}) << name;
            EXPECT_NE(m_bench.output_names(), Names{});
        }
    }
}

// A new directory under `top` whose path has so many characters.
fs::path directory_of_length(const fs::path& top, std::size_t length) {
    fs::path path = fs::canonical(top);
    while (path.string().size() + 102 < length)
        path /= std::string(100, 'd');
    path /= std::string(length - path.string().size() - 1, 'e');
    fs::create_directories(path);
    return path;
}

TEST_F(Process, TakesCurrentDirectoriesUpTo255Characters) {
    for (const std::size_t length : {255U, 256U, 400U}) {
        const fs::path current = directory_of_length(m_bench.directory(), length);
        ASSERT_EQ(current.string().size(), length);
        const RunResult result = run({"-t", "spinand", "-b", "64", "-p", "2", "-i", m_bench.firmware()},
                                     {.working_directory = current, .timeout_seconds = kMostSeconds});
        const bool taken = length == 255;
        EXPECT_EQ(result.exit_status, taken ? kConverted : status_of(-9));
        const std::string printed = line("input firmware is '" + m_bench.firmware().string() + "'") +
                                    (taken ? opening_lines() + preparing_line("parameter", current)
                                           : line("current directory failed to access"));
        EXPECT_NE(result.out.find(printed), std::string::npos) << result.out;
        EXPECT_EQ(fs::exists(current / "boot.img"), taken);
        EXPECT_EQ(fs::is_empty(current), !taken);
    }
}

// A flash page of 4 GiB and 2047 bytes, not of 2047 bytes: its spare area is large enough, its memory is not.
TEST_F(Process, TakesASpareAreaOfMinus1For4Gib) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "needs a build without sanitizers or emulator";
    const RunResult result = m_bench.convert({"slc", "64", "2", "-1"}, {.address_space_limit = 256 * kMib});
    EXPECT_EQ(result.exit_status, kCreationFailed);
    EXPECT_EQ(result.out.find("size of oob is not enough"), std::string::npos);
    EXPECT_TRUE(result.out.ends_with(not_written(m_bench.out("idblock.img"), ENOMEM) +
                                     line("Failed to create programming image.")))
        << result.out;
}

}  // namespace
