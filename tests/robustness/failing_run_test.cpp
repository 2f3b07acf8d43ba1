// Single failures of the machine whose consequences are told exactly: which error counts, and what is said.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <gtest/gtest.h>

namespace robustness {
namespace {

using namespace test_support;

constexpr long kMostCalls = 2000;  // far more than any of these runs makes

std::string failed_creation(const std::string& verdict) {
    return "\033[30;41m" + verdict + "\033[37;40m\nFailed to create programming image.\n";
}

// Two items without data lie in blocks of their own, which are read when they are looked at.
Firmware firmware_with_far_items() {
    constexpr std::size_t kBlock = 256 * 1024;
    Firmware firmware = small_firmware({.gpt = true});
    firmware.item("data").data = patterned(4 * kBlock, 1);
    for (const uint64_t block : {1U, 2U})
        firmware.items.push_back({.name = "empty" + std::to_string(block),
                                  .flash_offset = 0x600,
                                  .data = {},
                                  .offset = block * kBlock + 100'000});
    return firmware;
}

TEST(SeveralErrors, FirstOfTwoReadErrorsIsTold) {
    const Workplace place(firmware_with_far_items());
    const std::string told = failed_creation("failed to read " + place.firmware().string() + ",err=5");
    long runs_with_both = 0;
    for (long at = 1; at < kMostCalls; ++at) {
        const FailingRun run = run_failing(place, "emmc", {"read", "EIO,ENOSPC", at});
        ASSERT_TRUE(run.reported) << run.result.out;
        if (run.failures == 0)
            break;
        const std::string one = "failed to get sparse info\n";
        if (run.result.out.find(one + one) == std::string::npos)
            continue;
        ++runs_with_both;
        EXPECT_EQ(run.failures, 2);
        EXPECT_TRUE(run.result.out.ends_with(told)) << run.result.out;
    }
    EXPECT_EQ(runs_with_both, 1);
}

// A file is written at positions; a device is written on and on, so that a gap takes a seek.
TEST(DeviceOutput, SeekThatFailsIsAWriteError) {
    const Workplace place(small_firmware({.gpt = true}));
    fs::create_symlink("/dev/null", place.out("out_image.img"));
    const std::string told =
        failed_creation("failed to write " + place.out("out_image.img").string() + ",err=5");
    for (const char* type : {"emmc", "spinor"}) {
        const FailingRun undisturbed = run_failing(place, type, {"seek", "EIO", 0});
        EXPECT_TRUE(undisturbed.result.succeeded()) << undisturbed.result.out;
        ASSERT_GT(undisturbed.calls, 0);
        for (long at = 1; at <= undisturbed.calls; ++at) {
            const FailingRun failed = run_failing(place, type, {"seek", "EIO", at});
            EXPECT_EQ(failed.failures, 1);
            EXPECT_EQ(failed.result.exit_status, kCreationFailed);
            EXPECT_TRUE(failed.result.out.ends_with(told)) << failed.result.out;
            const FailingRun interrupted = run_failing(place, type, {"seek", "EINTR", at});
            EXPECT_EQ(interrupted.failures, 1);
            EXPECT_TRUE(interrupted.result.succeeded()) << interrupted.result.out;
        }
    }
}

// Without memory for an exception the language ends the program: no catch sees it, and nothing is flushed.
TEST(OutOfMemory, IsToldWithoutMemoryForAnException) {
    if (kSanitized)
        GTEST_SKIP() << "needs a build without sanitizers";
    const Workplace place(small_firmware({.gpt = true}));
    long ended_without_main = 0;
    for (long at = 1; at < kMostCalls; ++at) {
        place.empty_output();
        const FailingRun run = run_failing(place, "emmc", {"alloc", "ENOMEM", at, true, true});
        ASSERT_TRUE(run.result.exited) << "call " << at << ", signal " << run.result.signal;
        if (run.reported && run.failures == 0)
            break;
        if (run.reported)
            continue;
        ++ended_without_main;
        EXPECT_EQ(run.result.exit_status, kOutOfMemory);
        EXPECT_TRUE(run.result.out.ends_with("out of memory\n")) << "call " << at << ":\n" << run.result.out;
        EXPECT_EQ(run.result.err, "");
    }
    EXPECT_GT(ended_without_main, 0);
}

}  // namespace
}  // namespace robustness
