// Targets, firmware and machines that give no answer: the status is 2, the last line says why, and the
// document is whole.

#include "chip_bench.h"
#include "failing_run.h"
#include "trouble.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace check_test;

// ---- targets ----

class TroubleWithTarget : public testing::TestWithParam<Conversion> {
protected:
    void expect(const std::string& target, const std::string& reason,
                const std::string& shell_line = {}) const {
        expect_trouble(m_bench.arguments_without_target({target}), reason, shell_line);
    }

    const CheckBench m_bench{GetParam()};
};

TEST_P(TroubleWithTarget, ThatIsMissing) {
    expect(m_bench.directory() / "nothing", "failed to access: No such file or directory");
    expect(m_bench.firmware() / "below", "failed to access: Not a directory");
}

TEST_P(TroubleWithTarget, ThatIsANamedPipe) {
    const fs::path pipe = m_bench.directory() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    expect(pipe, "is not a file or a block device");
}

TEST_P(TroubleWithTarget, ThatIsACharacterDevice) {
    for (const std::string device : {"/dev/null", "/dev/zero"})
        expect(device, "is not a file or a block device");
}

TEST_P(TroubleWithTarget, ThatIsATerminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        GTEST_SKIP() << "no terminal can be made here";
    const std::string terminal = ptsname(master);
    expect(terminal, "is not a file or a block device");
    expect("-", "standard input is a terminal", R"(exec "$0" "$@" < )" + terminal);
    close(master);
}

TEST_P(TroubleWithTarget, ThatIsTheFirmwareItself) {
    expect(m_bench.firmware(), "is the firmware itself");
    const fs::path link = m_bench.directory() / "link";
    fs::create_symlink(m_bench.firmware(), link);
    expect(link, "is the firmware itself");
}

TEST_P(TroubleWithTarget, WhoseFileIsTheFirmware) {
    const std::string file = m_bench.main_file();
    fs::remove(m_bench.out(file));
    fs::create_hard_link(m_bench.firmware(), m_bench.out(file));
    const RunResult run = m_bench.check();
    EXPECT_EQ(run.exit_status, kTrouble) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("trouble: ")) << run.out;
}

TEST_P(TroubleWithTarget, ThatIsAClosedStandardInput) {
    Arguments arguments = m_bench.arguments_without_target({"-"});
    const RunResult run = run_check_in_shell(R"(exec "$0" "$@" <&-)", arguments);
    EXPECT_EQ(run.exit_status, kTrouble) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("trouble: ")) << run.out;
}

TEST_P(TroubleWithTarget, ThatMayNotBeRead) {
    const UnprivilegedRun unprivileged_run = unprivileged(m_bench.arguments());
    if (!unprivileged_run.why_not.empty())
        GTEST_SKIP() << unprivileged_run.why_not;
    fs::permissions(m_bench.directory(), fs::perms{0755});
    for (const auto& [path, mode] :
         {std::pair{m_bench.out_dir(), fs::perms{0}}, std::pair{m_bench.out_dir(), fs::perms{0111}},
          std::pair{m_bench.out(m_bench.main_file()), fs::perms{0}}}) {
        SCOPED_TRACE(path);
        const fs::perms before = fs::status(path).permissions();
        fs::permissions(path, mode);
        const RunResult run = unprivileged_run.run();
        fs::permissions(path, before);
        EXPECT_EQ(run.exit_status, kTrouble) << run.out;
        EXPECT_TRUE(last_line(run.out).starts_with("trouble: ")) << run.out;
        EXPECT_EQ(run.err, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Types, TroubleWithTarget, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(TroubleWithStream, ThatIsADirectory) {
    const CheckBench bench(kEmmc);
    expect_trouble(bench.arguments_without_target({"-"}), "standard input failed to open",
                   R"(exec "$0" "$@" < /)");
}

TEST(EmptyTarget, IsADifference) {
    const CheckBench bench(kEmmc);
    write_file(bench.directory() / "empty", {});
    const RunResult run = run_check_program(bench.arguments_without_target({bench.directory() / "empty"}));
    EXPECT_EQ(run.exit_status, kDiffers) << run.out;
    EXPECT_TRUE(last_line(run.out).starts_with("differs: 0 of ")) << run.out;
}

// ---- firmware ----

class TroubleWithFirmware : public testing::TestWithParam<Conversion> {
protected:
    CheckBench m_bench{GetParam()};
};

TEST_P(TroubleWithFirmware, ThatIsMissing) {
    fs::remove(m_bench.firmware());
    expect_trouble(m_bench.arguments(), "failed to access: No such file or directory");
}

TEST_P(TroubleWithFirmware, ThatIsADirectory) {
    fs::remove(m_bench.firmware());
    fs::create_directory(m_bench.firmware());
    expect_trouble(m_bench.arguments(), "is not a file");
}

TEST_P(TroubleWithFirmware, ThatIsCutOff) {
    const Bytes whole = read_file(m_bench.firmware());
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{101}, std::size_t{2048}}) {
        SCOPED_TRACE(size);
        m_bench.pack(slice(whole, 0, size));
        expect_trouble(m_bench.arguments(), "");
    }
}

TEST_P(TroubleWithFirmware, ThatIsDamaged) {
    const Bytes whole = read_file(m_bench.firmware());
    Bytes no_head = whole;
    no_head[0] = '?';
    Bytes no_boot = whole;
    no_boot[head_field::kHeadBytes + 200] ^= 1U;  // the checksum of the boot container
    for (const Bytes& bytes : {no_head, no_boot}) {
        m_bench.pack(bytes);
        expect_trouble(m_bench.arguments(), "");
    }
}

TEST_P(TroubleWithFirmware, WhoseNameIsTooLong) {
    Conversion conversion = GetParam();
    const std::string name(300, 'n');
    expect_trouble(conversion.arguments(name, m_bench.out_dir()), "path of firmware is too long");
}

INSTANTIATE_TEST_SUITE_P(Types, TroubleWithFirmware, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(NamesFromAFirmware, AreEscapedWhateverTheyHold) {
    for (const std::string name : {"es\033[2Jc", "li\nne", "b\xFFyte", "ta\tb", "de\177l"}) {
        Firmware firmware = sample_firmware({.gpt = true});
        firmware.item("misc").name = name;
        const CheckBench bench(kSpiNand, firmware);
        const RunResult same = bench.check();
        EXPECT_EQ(same.exit_status, kSame) << same.out;
        bench.damage("boot.img", 5);
        fs::remove(bench.out("rootfs.img"));
        write_file(bench.out("extra" + name), {1});
        const RunResult run = bench.check({"--verbose"});
        EXPECT_EQ(run.exit_status, kDiffers);
        for (const char byte : run.out)
            EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte < 127)) << static_cast<int>(byte);
        const Json document = bench.document();
        EXPECT_EQ(document.at("extra").size(), 1U);
    }
}

TEST(NamesFromAFirmware, OfDirectoriesAreTrouble) {
    for (const std::string name : {"../up", "/tmp/absolute", "a/b"}) {
        SCOPED_TRACE(name);
        CheckBench bench(kSpiNand);
        Firmware firmware = sample_firmware({.gpt = true});
        firmware.item("misc").name = name;
        bench.pack(firmware);
        const RunResult run = bench.check();
        EXPECT_NE(run.exit_status, kSame) << run.out;
        EXPECT_EQ(bench.output_names().count("misc.img"), 1U);
    }
}

// ---- sizes that give no output ----

TEST(TooSmallSpareArea, IsTroubleAndNeverSame) {
    Conversion small = kSlcNand;
    small.spare_bytes = "2";
    const CheckBench bench(kSlcNand);
    expect_trouble(bench.arguments_as(small), "size of oob is not enough");
    bench.empty_output();
    ASSERT_EQ(bench.call(small).status, kConverted) << "the conversion ends in success";
    expect_trouble(bench.arguments_as(small), "size of oob is not enough");
}

TEST(CommandLine, ThatIsWrongIsTrouble) {
    const CheckBench bench(kEmmc);
    const std::string fw = bench.firmware();
    const std::vector<std::pair<Arguments, std::string>> cases{
        {{}, "flash type is none"},
        {{"-i", fw}, "flash type"},
        {{"-i", fw, "-t", "disk"}, "flash type 'disk' is not supported"},
        {{"-i", fw, "-t", "emmc", "-b", "x", "-p", "2"}, "block size is not a number: 'x'"},
        {{"-i", fw, "-t", "emmc", "-b", "512", "-p", "2", "--nothing"}, "unknown option '--nothing'"},
        {{"-i", fw, "-t", "emmc", "-b", "512", "-p", "2", "--max-differences=x"}, "is not a number"},
        {{"-i", fw, "-t", "emmc", "-b", "512", "-p", "2", "a", "b"}, "more than one target"},
        {{"-i", fw, "-t", "slc", "-b", "128", "-p", "2"}, "oob"},
    };
    for (const auto& [arguments, reason] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        expect_trouble(arguments, reason);
    }
}

// ---- reports that do not arrive ----

class ReportThatDoesNotArrive : public testing::TestWithParam<std::string> {};

TEST_P(ReportThatDoesNotArrive, IsTrouble) {
    const CheckBench bench(kEmmc);
    for (const Arguments& more : {Arguments{}, Arguments{"--json"}, Arguments{"--verbose"}}) {
        const RunResult run = run_check_in_shell(GetParam(), bench.arguments(more));
        EXPECT_EQ(run.exit_status, kTrouble);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("failed to be written"), std::string::npos) << run.err;
    }
    const RunResult help = run_check_in_shell(GetParam(), {"--help"});
    EXPECT_EQ(help.exit_status, kTrouble);
    const RunResult quiet = run_check_in_shell(GetParam(), bench.arguments({"-q"}));
    EXPECT_EQ(quiet.exit_status, kSame) << "nothing is to be written";
    EXPECT_EQ(quiet.err, "");
}

INSTANTIATE_TEST_SUITE_P(Outputs, ReportThatDoesNotArrive,
                         testing::Values(R"(exec "$0" "$@" >&-)", R"(exec "$0" "$@" > /dev/full)"));

TEST(ClosedStreams, OfAllKindsGiveTheStatusAlone) {
    const CheckBench bench(kEmmc);
    const std::string line = R"(exec "$0" "$@" <&- >&- 2>&-)";
    EXPECT_EQ(run_check_in_shell(line, bench.arguments({"-q"})).exit_status, kSame);
    EXPECT_EQ(run_check_in_shell(line, bench.arguments()).exit_status, kTrouble);
    bench.damage("out_image.img", 3);
    EXPECT_EQ(run_check_in_shell(line, bench.arguments({"-q"})).exit_status, kDiffers);
}

TEST(ReadersThatLeave, AreTroubleAndNoSignal) {
    const CheckBench bench(kEmmc);
    const RunResult run = run_check_in_shell(
        R"(exec 3>&1; { "$0" "$@"; echo "status $?" >&3; } 2>/dev/null | :)", bench.arguments({"--verbose"}));
    EXPECT_TRUE(run.out == "status 2\n" || run.out == "status 0\n") << run.out;
}

TEST(JsonFile, IsWrittenBesideTheText) {
    const CheckBench bench(kEmmc);
    const fs::path file = bench.directory() / "report.json";
    const RunResult run = bench.check({"--json=" + file.string()});
    EXPECT_EQ(run.exit_status, kSame);
    EXPECT_TRUE(last_line(run.out).starts_with("same: ")) << run.out;
    EXPECT_EQ(Json::parse(to_text(read_file(file))).at("verdict"), "same");
    const RunResult nowhere = bench.check({"--json=" + (bench.directory() / "no" / "where").string()});
    EXPECT_EQ(nowhere.exit_status, kTrouble);
    EXPECT_NE(nowhere.err.find("failed to be written"), std::string::npos) << nowhere.err;
}

TEST(JsonOfARun, IsReadByAnotherParser) {
    if (!run_program("python3", {"-c", "import json"}).succeeded())
        GTEST_SKIP() << "missing tool: python3";
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.item("misc").name = "m\xFF\"\\\n";
    const CheckBench bench(kSpiNand, firmware);
    bench.damage("boot.img", 7);
    for (const Arguments& more : {Arguments{"--json"}, Arguments{"--json", "--only=nothing"},
                                  Arguments{"--json", "--list"}, Arguments{"--json", "--wrong\xFF"}}) {
        const RunResult read =
            run_check_in_shell(R"("$0" "$@" | python3 -m json.tool)", bench.arguments(more));
        EXPECT_EQ(read.exit_status, 0) << read.err;
        EXPECT_EQ(read.err, "");
    }
}

// ---- a medium with sectors that cannot be read ----

class UnreadableSectors : public testing::TestWithParam<Conversion> {};

TEST_P(UnreadableSectors, AreTroubleAndTheRestIsCounted) {
    const CheckBench bench(GetParam());
    bench.damage(bench.main_file(), 0);
    const Arguments arguments = bench.arguments({"--json"});
    const TemporaryDirectory reports(memory_directory());
    const long calls = run_with_failing(arguments, "read", "EIO", 0, reports / "report").calls;
    ASSERT_GT(calls, 10);
    std::size_t with_a_lost_sector = 0;
    const long step = 1 + calls / 40;
    for (long at = 1; at <= calls; at += step) {
        SCOPED_TRACE(at);
        const FailedRun failed = run_with_failing(arguments, "read", "EIO,EIO", at, reports / "report");
        const Json document = parsed(failed.run);
        ASSERT_GT(failed.failures, 0);
        EXPECT_NE(failed.run.exit_status, kSame);
        const uint64_t lost = sum_of(document, "unreadable_bytes");
        if (lost == 0)
            continue;
        ++with_a_lost_sector;
        EXPECT_EQ(failed.run.exit_status, kTrouble);
        EXPECT_LE(lost, test_support::kSectorSize);
        EXPECT_EQ(document.at("error"), std::to_string(lost) + " bytes of the target failed to be read");
        EXPECT_LE(sum_of(document, "differing_bytes"), 1U);
    }
    EXPECT_GT(with_a_lost_sector, 0U);
}

TEST_P(UnreadableSectors, ThatStaySoLeaveTheOthersCompared) {
    const CheckBench bench(GetParam());
    const std::string file = bench.main_file();
    const uint64_t last_sector = (fs::file_size(bench.out(file)) - 1) / test_support::kSectorSize;
    const uint64_t sector = last_sector - 9;  // of the last item
    const std::vector<uint64_t> damaged{0, sector * test_support::kSectorSize - 1,
                                        (sector + 1) * test_support::kSectorSize};
    for (const uint64_t place : damaged)
        bench.damage(file, place);
    const TemporaryDirectory reports(memory_directory());
    const RunOptions options =
        with_unreadable_byte(bench.out(file), sector * test_support::kSectorSize + 100, reports / "report");
    const Json document = parsed(run_check_program(bench.arguments({"--json"}), options));
    EXPECT_EQ(document.at("error"), "512 bytes of the target failed to be read");
    EXPECT_EQ(sum_of(document, "unreadable_bytes"), test_support::kSectorSize);
    std::vector<uint64_t> listed;
    const Json parts = document.at("parts");
    for (const Json& part : parts)
        for (const Json& run : part.at("differences"))
            listed.push_back(run.at("offset"));
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(listed, damaged);
    const RunResult text = run_check_program(bench.arguments(), options);
    EXPECT_EQ(text.exit_status, kTrouble);
    EXPECT_NE(text.out.find("512 bytes unreadable"), std::string::npos) << text.out;
    EXPECT_EQ(last_line(text.out), "trouble: 512 bytes of the target failed to be read");
}

TEST_P(UnreadableSectors, ThatAreReadAtTheSecondTryAreSame) {
    const CheckBench bench(GetParam());
    const Arguments arguments = bench.arguments({"--json"});
    const TemporaryDirectory reports(memory_directory());
    const long calls = run_with_failing(arguments, "read", "EINTR", 0, reports / "report").calls;
    for (long at = 1; at <= calls; at += 1 + calls / 20) {
        SCOPED_TRACE(at);
        for (const std::string how : {"EINTR,EINTR", "short"})
            EXPECT_EQ(run_with_failing(arguments, "read", how, at, reports / "report").run.exit_status, kSame)
                << how;
        const RunResult once = run_with_failing(arguments, "read", "EIO", at, reports / "report").run;
        EXPECT_TRUE(once.exit_status == kSame || once.exit_status == kTrouble) << once.out;
    }
}

TEST_P(UnreadableSectors, AndOtherFailedCallsAreNeverSame) {
    const CheckBench bench(GetParam());
    bench.damage(bench.main_file(), 0);
    const Arguments arguments = bench.arguments({"--json", "--no-second-opinion"});
    const TemporaryDirectory reports(memory_directory());
    for (const std::string call_class : {"open", "stat", "seek"}) {
        const long calls = run_with_failing(arguments, call_class, "EIO", 0, reports / "report").calls;
        for (long at = 1; at <= calls; at += 1 + calls / 12) {
            SCOPED_TRACE(call_class + " " + std::to_string(at));
            const RunResult run = run_with_failing(arguments, call_class, "EIO", at, reports / "report").run;
            EXPECT_NE(run.exit_status, kSame) << run.out;
            parsed(run);
        }
    }
}

TEST(UnreadableRest, IsTroubleWhereItCounts) {
    const CheckBench bench(kEmmc);
    const fs::path image = bench.out("out_image.img");
    const uint64_t end = fs::file_size(image);
    Bytes padded = bench.output("out_image.img");
    padded.resize(end + 100000, 0xFF);
    write_file(image, padded);
    const TemporaryDirectory reports(memory_directory());
    const RunOptions options = with_unreadable_byte(image, end + 70000, reports / "report");
    Arguments arguments = bench.arguments_without_target({image.string()});
    EXPECT_EQ(run_check_program(arguments, options).exit_status, kSame);
    arguments.emplace_back("--strict");
    const RunResult run = run_check_program(arguments, options);
    EXPECT_EQ(run.exit_status, kTrouble);
    EXPECT_EQ(last_line(run.out), "trouble: the rest of the target failed to be read") << run.out;
    arguments.emplace_back("--ignore=rest");
    EXPECT_EQ(run_check_program(arguments, options).exit_status, kSame);
}

TEST(UnreadableDump, IsTroubleAndTheRestIsCounted) {
    for (const Conversion& conversion : {kSmallSlc, kSmallSpiNand}) {
        ChipBench bench(conversion);
        bench.place_all();
        bench.flip(0, 1, 0, 17);
        write_file(bench.dump(), bench.bytes());
        const Arguments arguments = bench.arguments_without_target({"--json", bench.dump()});
        const TemporaryDirectory reports(memory_directory());
        const long calls = run_with_failing(arguments, "read", "EIO", 0, reports / "report").calls;
        std::size_t with_a_lost_sector = 0;
        for (long at = 1; at <= calls; at += 1 + calls / 150) {
            SCOPED_TRACE(at);
            const FailedRun failed = run_with_failing(arguments, "read", "EIO,EIO", at, reports / "report");
            const Json document = parsed(failed.run);
            EXPECT_NE(failed.run.exit_status, kSame);
            const uint64_t lost = sum_of(document, "unreadable_bytes");
            if (lost == 0)
                continue;
            ++with_a_lost_sector;
            EXPECT_EQ(failed.run.exit_status, kTrouble);
            EXPECT_LE(lost, test_support::kSectorSize);
            EXPECT_EQ(document.at("error"), std::to_string(lost) + " bytes of the target failed to be read");
            EXPECT_LE(sum_of(document, "differing_pages"), 1U);
        }
        EXPECT_GT(with_a_lost_sector, 0U);
    }
}

INSTANTIATE_TEST_SUITE_P(Types, UnreadableSectors, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(OutOfMemory, IsNoDifferenceAndNoSignal) {
    if (kSanitized)
        GTEST_SKIP() << "a sanitizer takes memory of its own";
    const CheckBench bench(kSlcNand);
    const Arguments arguments = bench.arguments();
    const TemporaryDirectory reports(memory_directory());
    const long calls = run_with_failing(arguments, "alloc", "EIO", 0, reports / "report").calls;
    ASSERT_GT(calls, 10);
    for (long at = 1; at <= calls; at += 1 + calls / 100) {
        SCOPED_TRACE(at);
        const RunResult run = run_with_failing(arguments, "alloc", "EIO", at, reports / "report").run;
        EXPECT_TRUE(run.exited) << "ended by signal " << run.signal;
        EXPECT_TRUE(run.exit_status == kTrouble || run.exit_status == kSame) << run.exit_status;
    }
}

}  // namespace
