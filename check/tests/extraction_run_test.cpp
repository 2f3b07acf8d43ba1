// The extraction as the program runs it, on machines on which something fails.

#include "extraction_bench.h"
#include "failing_run.h"

namespace {

using namespace check_test;

Arguments arguments_of(const ExtractionBench& bench, const Arguments& more) {
    Arguments all = bench.arguments_without_target({"--extract=" + bench.into().string()});
    all.insert(all.end(), more.begin(), more.end());
    all.push_back(bench.options.target);
    return all;
}

/// Every file of the directory is whole and right, or what was there before.
void expect_whole_files(const fs::path& directory, const Files& expected, const Files& before) {
    if (!fs::exists(directory))
        return;
    for (const auto& [name, bytes] : files_in(directory)) {
        const bool is_old = before.count(name) != 0 && bytes == before.at(name);
        EXPECT_TRUE(is_old || (expected.count(name) != 0 && bytes == expected.at(name))) << name;
    }
}

struct Failure {
    std::string call_class;
    std::string how;
};

void PrintTo(const Failure& failure, std::ostream* out) {
    *out << failure.call_class << " " << failure.how;
}

class FailingExtraction : public testing::TestWithParam<Failure> {};

TEST_P(FailingExtraction, LeavesOnlyWholeFiles) {
    Firmware firmware = firmware_of_all_kinds(false);
    put_bytes(firmware.item("rootfs").data, Bytes(200000, 0));  // which become a hole
    const Files expected = plain_data(firmware);
    const TemporaryDirectory reports(memory_directory());
    const Files old{{"boot.img", to_bytes("old")}};
    for (const bool force : {false, true}) {
        const ExtractionBench bench(kSlcNand, firmware);
        const Arguments arguments =
            arguments_of(bench, force ? Arguments{"--json", "--force"} : Arguments{"--json"});
        const auto start = [&] {
            fs::remove_all(bench.into());
            if (!force)
                return;
            fs::create_directory(bench.into());
            for (const auto& [name, bytes] : old)
                write_file(bench.extracted(name), bytes);
        };
        start();
        const auto& [call_class, how] = GetParam();
        const long calls = run_with_failing(arguments, call_class, how, 0, reports / "report").calls;
        expect_data(bench.into(), expected);
        const long step = 1 + calls / 30;
        long failures = 0;
        for (long at = 1; at <= calls; at += step) {
            SCOPED_TRACE(testing::Message() << call_class << " " << at << (force ? " with --force" : ""));
            start();
            const FailedRun failed = run_with_failing(arguments, call_class, how, at, reports / "report");
            failures += failed.failures;
            const Json document = parsed(failed.run);
            EXPECT_NE(failed.run.exit_status, kDiffers) << failed.run.out;
            if (failed.run.exit_status == kSame)
                expect_data(bench.into(), expected);
            else
                expect_whole_files(bench.into(), expected, force ? old : Files{});
        }
        // Nothing is renamed where nothing is replaced.
        EXPECT_EQ(failures != 0, call_class != "rename" || force);
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingExtraction,
                         testing::Values(Failure{"open", "EIO"}, Failure{"read", "EIO"},
                                         Failure{"read", "short"}, Failure{"write", "ENOSPC"},
                                         Failure{"write", "short"}, Failure{"write", "nothing"},
                                         Failure{"write", "EINTR"}, Failure{"close", "EIO"},
                                         Failure{"close", "EINTR"}, Failure{"stat", "EIO"},
                                         Failure{"truncate", "ENOSPC"}, Failure{"rename", "EIO"},
                                         Failure{"mkdir", "EIO"}),
                         [](const auto& tested) { return tested.param.call_class + "_" + tested.param.how; });

TEST(ExtractionRun, SaysThatTheDiskIsFull) {
    const ExtractionBench bench(kSlcNand);
    const TemporaryDirectory reports(memory_directory());
    // FlashData, FlashBoot and the parameter come before it.
    const FailedRun failed =
        run_with_failing(arguments_of(bench, {}), "write", "ENOSPC", 4, reports / "report");
    EXPECT_EQ(failed.failures, 1);
    EXPECT_EQ(failed.run.exit_status, kTrouble);
    EXPECT_EQ(last_line(failed.run.out), "trouble: " + bench.extracted("boot.img").string() +
                                             " failed to be written: No space left on device");
    EXPECT_EQ(names_in(bench.into()), (Names{"FlashBoot", "FlashData", "parameter.img"}));
}

TEST(ExtractionRun, SaysThatADirectoryTakesNoFiles) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "needs a build without coverage counters";
#endif
    const ExtractionBench bench(kSlcNand);
    fs::create_directory(bench.into());
    Arguments words = arguments_of(bench, {});
    std::string program = NANDSMITH_CHECK_PROGRAM;
    if (geteuid() == 0) {
        words.insert(words.begin(), {"--reuid=65534", "--clear-groups", program});
        program = find_program("setpriv");
        if (program.empty())
            GTEST_SKIP() << "missing tool: setpriv";
        if (!run_program(program, {"--reuid=65534", "--clear-groups", NANDSMITH_CHECK_PROGRAM, "-v"})
                 .succeeded())
            GTEST_SKIP() << "setpriv cannot run the program as nobody here";
    }
    fs::permissions(bench.directory(), fs::perms{0755});
    fs::permissions(bench.into(), fs::perms{0555});
    const RunResult run = run_program(program, words, {.timeout_seconds = 60});
    fs::permissions(bench.into(), fs::perms{0755});
    EXPECT_EQ(run.exit_status, kTrouble);
    EXPECT_EQ(last_line(run.out), "trouble: " + bench.extracted("FlashData").string() +
                                      " failed to be created: Permission denied");
    EXPECT_EQ(names_in(bench.into()), Names{});
}

TEST(ExtractionRun, TakesAnImageFromAPipe) {
    const ExtractionBench bench(kEmmc);
    Arguments arguments = arguments_of(bench, {});
    arguments.back() = "-";
    const RunResult run =
        run_check_in_shell("cat '" + bench.out("out_image.img").string() + "' | \"$0\" \"$@\"", arguments);
    EXPECT_EQ(run.exit_status, kSame) << run.out << run.err;
    expect_data(bench.into(), plain_data(sample_firmware()));
}

}  // namespace
