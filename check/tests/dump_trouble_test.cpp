// The program over the dump of a chip, against its firmware and by its parity alone: ways in which the dump
// comes and the report leaves, and dumps that cannot be read.

#include "chip_bench.h"
#include "failing_run.h"
#include "trouble.h"

namespace {

using namespace check_test;

class DumpProgram : public testing::TestWithParam<bool> {
protected:
    DumpProgram() {
        m_bench.place_all();
        write_file(m_bench.dump(), m_bench.bytes());
    }

    bool is_ecc() const { return GetParam(); }
    Arguments arguments(const Arguments& more) const {
        if (!is_ecc())
            return m_bench.arguments_without_target(more);
        Arguments all{"--ecc", "-t", "slc", "-b", "16", "-p", "2", "-s", "64"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    Arguments with_dump(Arguments more = {}) const {
        more.push_back(m_bench.dump());
        return arguments(more);
    }
    RunResult run(const std::string& shell_line, const Arguments& all) const {
        return run_check_in_shell(shell_line, all, {.environment = {{"DUMP", m_bench.dump()}}});
    }
    /// A unit with 17 flips.
    void damage() {
        m_bench.flip(2, 1, 0, 17);
        write_file(m_bench.dump(), m_bench.bytes());
    }

    uint64_t bytes_of_files() const {
        uint64_t bytes = 0;
        for (const auto& [name, file] : m_bench.outputs())
            bytes += file.size();
        return bytes;
    }

    ChipBench m_bench;
};

TEST_P(DumpProgram, ReadsStandardInput) {
    for (const bool damaged : {false, true}) {
        if (damaged)
            damage();
        const RunResult file = run_check_program(with_dump());
        EXPECT_EQ(file.exit_status, damaged ? kDiffers : kSame) << file.out;
        for (const std::string line : {R"(exec "$0" "$@" < "$DUMP")", R"(cat "$DUMP" | "$0" "$@")"}) {
            const RunResult stream = run(line, arguments({"-"}));
            EXPECT_EQ(stream.exit_status, file.exit_status) << line;
            EXPECT_EQ(stream.out, file.out) << line;
        }
    }
}

TEST_P(DumpProgram, OfNothingFromAPipe) {
    const RunResult stream = run(R"(: | "$0" "$@")", arguments({"-"}));
    EXPECT_EQ(stream.exit_status, is_ecc() ? kTrouble : kDiffers) << stream.out;
    EXPECT_EQ(last_line(stream.out), is_ecc()
                                         ? "trouble: the dump has 0 bytes, which is less than a page of 2112"
                                         : "differs: 0 of 5 files, 5 missing; 0 blocks bad or foreign");
}

TEST_P(DumpProgram, ReportThatDoesNotArriveIsTrouble) {
    for (const std::string line : {R"(exec "$0" "$@" > /dev/full)", R"(exec "$0" "$@" >&-)"}) {
        SCOPED_TRACE(line);
        for (const std::string option : {"--json", "--verbose"}) {
            const RunResult lost = run(line, with_dump({option}));
            EXPECT_EQ(lost.exit_status, kTrouble);
            EXPECT_NE(lost.err.find("the report failed to be written"), std::string::npos) << lost.err;
        }
        const RunResult quiet = run(line, with_dump({"-q"}));
        EXPECT_EQ(quiet.exit_status, kSame) << "nothing is to be written";
        EXPECT_EQ(quiet.err, "");
    }
}

TEST_P(DumpProgram, QuietGivesTheStatusAlone) {
    for (const int status : {kSame, kDiffers}) {
        if (status == kDiffers)
            damage();
        const RunResult quiet = run_check_program(with_dump({"-q"}));
        EXPECT_EQ(quiet.exit_status, status);
        EXPECT_EQ(quiet.out + quiet.err, "");
        EXPECT_EQ(parsed(run_check_program(with_dump({"--json"}))).at("status"), status);
    }
}

TEST_P(DumpProgram, DumpThatIsMissingIsTrouble) {
    expect_trouble(arguments({m_bench.directory() / "nothing"}), "No such file or directory");
}

TEST_P(DumpProgram, StandardInputThatIsADirectoryIsTrouble) {
    expect_trouble(arguments({"-"}), "standard input failed to open", R"(exec "$0" "$@" < /)");
}

TEST_P(DumpProgram, UnreadableByteLeavesTheRestJudged) {
    damage();
    const uint64_t byte = 5 * m_bench.block() + 3 * m_bench.page() + 100;
    const TemporaryDirectory reports(memory_directory());
    const RunOptions options = with_unreadable_byte(m_bench.dump(), byte, reports / "report");
    const Json document = parsed(run_check_program(with_dump({"--json"}), options));
    const RunResult text = run_check_program(with_dump(), options);
    EXPECT_EQ(text.exit_status, kTrouble);
    EXPECT_EQ(last_line(text.out), "trouble: " + document.at("error").get<std::string>());
    EXPECT_EQ(document.at("error"), is_ecc() ? "1 page of the dump failed to be read: Input/output error"
                                             : "512 bytes of the target failed to be read");
    EXPECT_EQ(document.at("ecc").at("uncorrectable"), 1);
    // Of the page, or the units that the sector touches.
    const uint64_t all = is_ecc() ? m_bench.bytes().size() : bytes_of_files();
    const uint64_t units = document.at("ecc").at("units");
    EXPECT_GE(units, all / m_bench.page() * 2 - 2);
    EXPECT_LT(units, all / m_bench.page() * 2);
}

TEST_P(DumpProgram, ReadThatFailsOnceIsNeverAnotherAnswer) {
    const TemporaryDirectory reports(memory_directory());
    const Arguments all = with_dump({"--json"});
    const long calls = run_with_failing(all, "read", "EIO", 0, reports / "report").calls;
    ASSERT_GT(calls, 5);
    for (long at = 1; at <= calls; at += 1 + calls / 30) {
        SCOPED_TRACE(at);
        for (const std::string how : {"EINTR,EINTR", "short"})
            EXPECT_EQ(run_with_failing(all, "read", how, at, reports / "report").run.exit_status, kSame)
                << how;
        const FailedRun failed = run_with_failing(all, "read", "EIO,EIO", at, reports / "report");
        EXPECT_GT(failed.failures, 0);
        EXPECT_NE(failed.run.exit_status, kDiffers) << failed.run.out;
        EXPECT_EQ(parsed(failed.run).at("status"), failed.run.exit_status);
    }
}

INSTANTIATE_TEST_SUITE_P(Runs, DumpProgram, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Ecc" : "Firmware"; });

TEST(EccProgram, DirectoryAsDumpIsTrouble) {
    const TemporaryDirectory directory(memory_directory());
    expect_trouble({"--ecc", "-t", "slc", "-b", "16", "-p", "2", "-s", "64", directory.path()},
                   "failed to open: Is a directory");
}

}  // namespace
