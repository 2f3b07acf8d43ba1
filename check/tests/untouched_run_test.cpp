// A check changes nothing: it opens for reading alone, and all files keep size, times and inode. It reads no
// more than it needs.

#include "check_bench.h"

namespace {

using namespace check_test;

struct Situation {
    std::string name;
    void (*bend)(const CheckBench& bench);
    int status;
};

const std::vector<Situation> kSituations{
    {"Same", [](const CheckBench&) {}, kSame},
    {"Damaged", [](const CheckBench& bench) { bench.damage(bench.main_file(), 100, 5000); }, kDiffers},
    {"Missing", [](const CheckBench& bench) { fs::remove(bench.out(bench.main_file())); }, kDiffers},
    {"Short", [](const CheckBench& bench) { fs::resize_file(bench.out(bench.main_file()), 1000); }, kDiffers},
    {"Empty", [](const CheckBench& bench) { bench.empty_output(); }, kDiffers},
    {"NoFirmware", [](const CheckBench& bench) { fs::remove(bench.firmware()); }, kTrouble},
};

Firmware with_a_sparse_item() {
    Firmware firmware = sample_firmware({.gpt = true});
    Bytes image;
    put32(image, 0xED26FF3AU);
    for (const int half : {1, 0, 28, 12})
        put16(image, static_cast<uint16_t>(half));
    for (const uint32_t word : {4096U, 3U, 1U, 0U})
        put32(image, word);
    put16(image, 0xCAC2);  // fill
    put16(image, 0);
    for (const uint32_t word : {3U, 16U, 0x5A5A5A5AU})
        put32(image, word);
    firmware.item("misc").data = image;
    return firmware;
}

class Untouched : public testing::TestWithParam<Conversion> {
protected:
    const CheckBench m_bench{GetParam(), with_a_sparse_item()};
};

TEST_P(Untouched, FilesKeepTheirStateAndNoneComesOrGoes) {
    for (const Situation& situation : kSituations) {
        SCOPED_TRACE(situation.name);
        const CheckBench bench(GetParam(), with_a_sparse_item());
        situation.bend(bench);
        const auto before = states_below(bench.directory());
        for (const Arguments& more : {Arguments{}, Arguments{"--json", "--max-differences=0"}})
            EXPECT_EQ(bench.check(more).exit_status, situation.status);
        EXPECT_TRUE(states_below(bench.directory()) == before);
    }
}

/// Lines of a trace in which something is opened for writing, changed or written.
std::vector<std::string> changing_calls(const std::string& trace) {
    std::vector<std::string> changing;
    for (const std::string& line : split(trace, '\n')) {
        const auto begins = [&](const std::string& name) {
            const std::size_t at = line.find_first_not_of("0123456789 ");
            return at != std::string::npos && line.compare(at, name.size(), name) == 0;
        };
        const bool writing =
            line.find("O_WRONLY") != std::string::npos || line.find("O_RDWR") != std::string::npos ||
            line.find("O_CREAT") != std::string::npos || line.find("O_TRUNC") != std::string::npos;
        if (begins("open") && writing && line.find("\"/dev/null\"") == std::string::npos)
            changing.push_back(line);
        if ((begins("write") || begins("pwrite")) && !begins("write(1,") && !begins("write(2,"))
            changing.push_back(line);
        for (const std::string name :
             {"creat(",  "unlink",    "rename",   "truncate",        "ftruncate", "mkdir", "rmdir",  "link(",
              "linkat",  "symlink",   "mknod",    "chmod",           "fchmod",    "chown", "fchown", "utime",
              "futimes", "fallocate", "setxattr", "copy_file_range", "sendfile",  "mount"})
            if (begins(name))
                changing.push_back(line);
    }
    return changing;
}

/// The calls of a check of the bench, or why they cannot be traced here.
struct Trace {
    std::string why_not{};
    std::string calls{};
    RunResult run{};
};

Trace traced(const CheckBench& bench, const Arguments& strace_options) {
    if (kSanitized)
        return {.why_not = "a sanitizer makes calls of its own"};
#ifdef NANDSMITH_COVERAGE
    return {.why_not = "needs a build without coverage counters"};
#endif
    const fs::path strace = find_program("strace");
    if (strace.empty())
        return {.why_not = "missing tool: strace"};
    const TemporaryDirectory traces;
    const std::string file = traces / "trace";
    if (!run_program(strace, {"-f", "-o", file, "true"}).succeeded())
        return {.why_not = "strace is not allowed to trace here"};
    Arguments arguments{"-f", "-s", "200", "-o", file};
    arguments.insert(arguments.end(), strace_options.begin(), strace_options.end());
    arguments.emplace_back(NANDSMITH_CHECK_PROGRAM);
    const Arguments own = bench.arguments({"--verbose"});
    arguments.insert(arguments.end(), own.begin(), own.end());
    Trace trace;
    trace.run = run_program(strace, arguments, {.timeout_seconds = 60});
    trace.calls = to_text(read_file(file));
    return trace;
}

TEST_P(Untouched, NoSystemCallWritesOrCreates) {
    for (const Situation& situation : {kSituations[0], kSituations[1]}) {
        situation.bend(m_bench);
        const Trace trace = traced(m_bench, {});
        if (!trace.why_not.empty())
            GTEST_SKIP() << trace.why_not;
        EXPECT_EQ(trace.run.exit_status, situation.status) << trace.run.out << trace.run.err;
        EXPECT_NE(trace.calls.find(m_bench.main_file()), std::string::npos) << "nothing was traced";
        EXPECT_EQ(changing_calls(trace.calls), std::vector<std::string>{});
    }
}

/// Bytes that the traced calls, of which each names its file, read out of files of that name.
uint64_t bytes_read(const std::string& trace, const std::string& name) {
    uint64_t sum = 0;
    for (const std::string& line : split(trace, '\n')) {
        const std::size_t result = line.rfind(" = ");
        if (line.find("pread64(") != std::string::npos && line.find(name + ">") != std::string::npos &&
            result != std::string::npos)
            sum += std::strtoull(line.c_str() + result + 3, nullptr, 10);
    }
    return sum;
}

TEST(WhatIsRead, OfAnIntactImageWithATableIsOneImage) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.item("rootfs").data = patterned(32 * kMib, 5);  // far more than the boot block and the table
    const CheckBench bench(kEmmc, firmware);
    const Bytes image = bench.output("out_image.img");
    write_file(bench.out("out_image.img"), image);  // without holes
    const Trace trace = traced(bench, {"-y", "-e", "trace=pread64"});
    if (!trace.why_not.empty())
        GTEST_SKIP() << trace.why_not;
    EXPECT_EQ(trace.run.exit_status, kSame) << trace.run.out;
    const uint64_t bytes = bytes_read(trace.calls, "out_image.img");
    EXPECT_GE(bytes, image.size());
    EXPECT_LT(bytes, image.size() + image.size() / 10);
}

TEST(ChangingCalls, AreFoundInATrace) {
    EXPECT_EQ(changing_calls("12 openat(AT_FDCWD, \"a\", O_RDWR) = 3\n12 read(3, \"\", 1) = 0\n"
                             "12 write(1, \"x\", 1) = 1\n12 write(3, \"x\", 1) = 1\n12 unlink(\"a\") = 0\n")
                  .size(),
              3U);
}

TEST_P(Untouched, ADirectoryForReadingAloneIsEnough) {
    const UnprivilegedRun unprivileged_run = unprivileged(m_bench.arguments());
    if (!unprivileged_run.why_not.empty())
        GTEST_SKIP() << unprivileged_run.why_not;
    fs::permissions(m_bench.directory(), fs::perms{0555});
    fs::permissions(m_bench.out_dir(), fs::perms{0555});
    for (const std::string& name : m_bench.output_names())
        fs::permissions(m_bench.out(name), fs::perms{0444});
    const RunResult run = unprivileged_run.run();
    fs::permissions(m_bench.directory(), fs::perms{0755});
    fs::permissions(m_bench.out_dir(), fs::perms{0755});
    EXPECT_EQ(run.exit_status, kSame) << run.out;
    EXPECT_EQ(run.err, "");
}

INSTANTIATE_TEST_SUITE_P(Types, Untouched, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

}  // namespace
