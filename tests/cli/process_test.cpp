// What a run shows as a process: when its lines come out, which signals it takes, the modes of its files, and
// what it does under limits.

#include "support/bytes.h"
#include "support/firmware_builder.h"
#include "support/run_program.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace test_support;
namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;

constexpr int kOutputNotAccessible = 247;
constexpr int kCreationFailed = 241;
constexpr double kMostSeconds = 60;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

class Process : public testing::Test {
protected:
    Process() {
        fs::create_directory(out());
        sample_firmware().write(firmware());
    }

    fs::path firmware() const { return m_directory / "fw.img"; }
    fs::path out() const { return m_directory / "out"; }

    Arguments arguments(const std::string& type, const Arguments& more = {}) const {
        Arguments all{"-i", firmware(), "-o", out(), "-t", type, "-b", "64", "-p", "2"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    static RunResult run(const Arguments& arguments, RunOptions options = {}) {
        options.timeout_seconds = kMostSeconds;
        return run_program(NANDSMITH_PROGRAM, arguments, options);
    }

    // The last lines of a run that could not write the file.
    static std::string failed_write(const fs::path& file, int error) {
        return "\033[30;41mfailed to write " + file.string() + ",err=" + std::to_string(error) +
               "\033[37;40m\nFailed to create programming image.\n";
    }

    const TemporaryDirectory m_directory{};
};

// ---- lines ----

// The run waits for a reader of the pipe in the place of boot.img, and is killed there.
TEST_F(Process, PrintsEachLineAtOnce) {
    ASSERT_EQ(::mkfifo((out() / "boot.img").c_str(), 0600), 0);
    const std::string last = "\033[1A\033[2Kwriting parameter...OK\n";
    const RunResult result = run(arguments("spinand"), {.kill_after_output = last});
    EXPECT_FALSE(result.timed_out) << "the line waits in the program";
    EXPECT_EQ(result.out, "input firmware is '" + firmware().string() + "'\n" + "output directory is '" +
                              out().string() + "'\n" +
                              "flash type is 'spinand'\n"
                              "block size is '64'\n"
                              "page size is '2'\n"
                              "writing idblock...\n"
                              "start to write partitions...gpt=0\n"
                              "preparing parameter saving at " +
                              (out() / "parameter.img").string() + "\nwriting parameter...\n" + last);
    EXPECT_EQ(result.signal, SIGKILL);
}

// ---- signals ----

TEST_F(Process, IgnoresTheSignalOfAFileSizeLimit) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "needs a build without coverage counters";
#endif
    for (const std::string type : {"emmc", "spinand"}) {
        SCOPED_TRACE(type);
        const RunResult result = run(arguments(type), {.file_size_limit = 1000});
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.exit_status, kCreationFailed);
        const fs::path file = out() / (type == "emmc" ? "out_image.img" : "idblock.img");
        EXPECT_TRUE(result.out.ends_with(failed_write(file, EFBIG))) << result.out;
    }
}

// ---- modes of files ----

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
    struct Case {
        mode_t mask;
        mode_t mode;
    };
    for (const Case& tested : {Case{0, 0666}, Case{002, 0664}, Case{027, 0640}, Case{077, 0600}}) {
        for (const std::string type : {"emmc", "spinand", "slc"}) {
            SCOPED_TRACE(type + " " + std::to_string(tested.mask));
            fs::remove_all(out());
            fs::create_directory(out());
            const Umask umask(tested.mask);
            ASSERT_TRUE(run(arguments(type, {"-s", "64"})).succeeded());
            for (const auto& entry : fs::directory_iterator(out())) {
                struct stat status {};
                ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
                EXPECT_EQ(status.st_mode & 0777, tested.mode) << entry.path();
            }
            EXPECT_EQ(fs::is_empty(out()), false);
        }
    }
}

// ---- the current directory ----

// A new directory under `top` whose path has so many characters.
fs::path directory_of_length(const fs::path& top, std::size_t length) {
    fs::path path = fs::canonical(top);
    while (path.string().size() + 102 < length)
        path /= std::string(100, 'd');
    path /= std::string(length - path.string().size() - 1, 'e');
    fs::create_directories(path);
    return path;
}

TEST_F(Process, TakesACurrentDirectoryOf255Characters) {
    const fs::path current = directory_of_length(m_directory.path(), 255);
    ASSERT_EQ(current.string().size(), 255U);
    const RunResult result =
        run({"-i", firmware(), "-t", "spinand", "-b", "64", "-p", "2"}, {.working_directory = current});
    EXPECT_TRUE(result.succeeded()) << result.out;
    EXPECT_NE(result.out.find("preparing boot saving at " + (current / "boot.img").string() + "\n"),
              std::string::npos)
        << result.out;
    EXPECT_TRUE(fs::exists(current / "boot.img"));
}

TEST_F(Process, RefusesACurrentDirectoryOf256Characters) {
    const fs::path current = directory_of_length(m_directory.path(), 256);
    ASSERT_EQ(current.string().size(), 256U);
    const RunResult result =
        run({"-i", firmware(), "-t", "spinand", "-b", "64", "-p", "2"}, {.working_directory = current});
    EXPECT_EQ(result.exit_status, kOutputNotAccessible);
    EXPECT_TRUE(result.out.ends_with("page size is '2'\ncurrent directory failed to access\n")) << result.out;
    EXPECT_TRUE(fs::is_empty(current));
}

// ---- memory ----

// A flash page of 4 GiB and 2047 bytes, not of 2047 bytes: its spare area is large enough, its memory is not.
TEST_F(Process, TakesASpareAreaOfMinus1For4Gib) {
    if (kSanitized)
        GTEST_SKIP() << "needs a build without sanitizers";
    const RunResult result =
        run(arguments("slc", {"-s", "-1"}), {.address_space_limit = uint64_t{256} << 20});
    EXPECT_EQ(result.exit_status, kCreationFailed);
    EXPECT_EQ(result.out.find("size of oob is not enough"), std::string::npos);
    EXPECT_TRUE(result.out.ends_with(failed_write(out() / "idblock.img", ENOMEM))) << result.out;
}

}  // namespace
