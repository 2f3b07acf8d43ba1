#include "check/report/progress_line.h"

#include "check_bench.h"

#include <thread>

namespace {

using namespace check_test;

std::string error_output_of(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST(ProgressLine, SaysHowMuchIsDoneAndLeft) {
    const std::string text = error_output_of([] {
        ProgressLine line;
        std::this_thread::sleep_for(std::chrono::milliseconds(210));
        line.show(3 * kMib, 4 * kMib);
        line.show(4 * kMib, 4 * kMib);  // too soon after it
        line.clear();
    });
    EXPECT_TRUE(text.starts_with("\r\033[K3 MiB compared, ")) << text;
    EXPECT_NE(text.find(" MiB/s, 0 s left"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("left\r\033[K")) << text;
    EXPECT_EQ(split(text, '\r').size(), 3U) << text;
}

TEST(ProgressLine, WithoutATotalSaysNoTime) {
    const std::string text = error_output_of([] {
        ProgressLine line;
        std::this_thread::sleep_for(std::chrono::milliseconds(210));
        line.show(3 * kMib, 0);
    });
    EXPECT_TRUE(text.ends_with(" MiB/s")) << text;
}

TEST(ProgressLine, IsNotThereInAShortRun) {
    EXPECT_EQ(error_output_of([] {
                  ProgressLine line;
                  line.show(3 * kMib, 4 * kMib);
                  line.clear();
              }),
              "");
}

/// A run that takes longer than the line waits: each read of the image is held up by a tracer.
TEST(ProgressOfARun, GoesToStandardError) {
    const CheckBench bench(kSlcNand);
    const RunResult without = bench.check({"--progress=never"});
    EXPECT_EQ(without.err, "");
    const fs::path strace = find_program("strace");
    if (strace.empty())
        GTEST_SKIP() << "missing tool: strace";
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer makes calls of its own";
    Arguments words{"-qq",
                    "-o",
                    "/dev/null",
                    "-e",
                    "trace=pread64",
                    "-e",
                    "inject=pread64:delay_enter=20000",
                    NANDSMITH_CHECK_PROGRAM};
    const Arguments own = bench.arguments({"--progress=always"});
    words.insert(words.end(), own.begin(), own.end());
    const RunResult run = run_program(strace, words, {.timeout_seconds = 60});
    if (run.err.find("ptrace") != std::string::npos)
        GTEST_SKIP() << "strace is not allowed to trace here";
    EXPECT_EQ(run.exit_status, kSame);
    EXPECT_EQ(run.out, without.out);
    EXPECT_TRUE(run.err.starts_with("\r\033[K")) << run.err;
    EXPECT_NE(run.err.find(" MiB compared, "), std::string::npos) << run.err;
    EXPECT_TRUE(run.err.ends_with("\r\033[K")) << "the line is removed";
    for (const std::string quiet : {"-q", "--quiet"}) {
        words.emplace_back(quiet);
        EXPECT_EQ(run_program(strace, words, {.timeout_seconds = 60}).err, "");
        words.pop_back();
    }
}

}  // namespace
