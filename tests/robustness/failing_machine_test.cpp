// Every call to the system and every allocation of a run fails in turn. Whatever fails, a run either says so
// and ends with a non-zero status, or its output is complete and right to the byte.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>
#include <tuple>

namespace robustness {
namespace {

using namespace test_support;

struct Fault {
    const char* call_class;
    const char* how;
    bool always;
    bool harmless;  // no failure: the call goes on, and the run succeeds
};

constexpr Fault faults[] = {
    {"open", "EIO", false, false},      {"open", "EIO", true, false},      {"open", "ENOSPC", false, false},
    {"open", "EINTR", false, true},     {"open", "EINTR", true, false},    {"read", "EIO", false, false},
    {"read", "EIO", true, false},       {"read", "EINTR", false, true},    {"read", "EINTR", true, false},
    {"read", "short", false, true},     {"read", "short", true, true},     {"seek", "EIO", false, false},
    {"seek", "EIO", true, false},       {"seek", "EINTR", false, true},    {"write", "EIO", false, false},
    {"write", "EIO", true, false},      {"write", "ENOSPC", false, false}, {"write", "ENOSPC", true, false},
    {"write", "EINTR", false, true},    {"write", "EINTR", true, false},   {"write", "short", false, true},
    {"write", "short", true, true},     {"close", "EIO", false, false},    {"close", "EIO", true, false},
    {"close", "ENOSPC", false, false},  {"close", "EINTR", false, true},   {"close", "EINTR", true, true},
    {"stat", "EIO", false, false},      {"stat", "EIO", true, false},      {"stat", "EINTR", false, true},
    {"stat", "EINTR", true, false},     {"truncate", "EIO", false, false}, {"truncate", "EIO", true, false},
    {"truncate", "EINTR", false, true}, {"unlink", "EIO", false, false},   {"unlink", "EINTR", false, true},
    {"alloc", "ENOMEM", false, false},  {"alloc", "ENOMEM", true, false},
};

std::string text_of(const Fault& fault, long at) {
    return std::string(fault.call_class) + " " + std::to_string(at) + (fault.always ? " and on: " : ": ") +
           fault.how;
}

// Images larger than the reader's block, so that every structure takes a read of its own.
Firmware firmware_of_several_blocks(bool gpt) {
    Firmware firmware = small_firmware({.gpt = gpt});
    // Without a GPT, positions count from 4 MiB on in 32 bits: the sum wraps back to where a GPT has them.
    const uint32_t first = gpt ? 0x500 : 0x500 - 8192U;
    firmware.item("parameter").flash_offset = gpt ? 0 : first - 0x100;
    Item& boot = firmware.item("boot");
    boot.data = patterned(265'000, 1);
    boot.flash_offset = first;
    boot.part_size = 0x240;

    SparseImage sparse;
    sparse.chunks = {SparseChunk::raw(patterned(65 * 4096, 2)), SparseChunk::dont_care(3),
                     SparseChunk::fill(0x00C0FFEE, 5), SparseChunk::raw(patterned(2 * 4096, 3))};
    Item& rootfs = firmware.item("rootfs");
    rootfs.data = sparse.build();
    rootfs.flash_offset = boot.flash_offset + boot.part_size;
    rootfs.part_size = 0x280;

    Item& data = firmware.item("data");
    data.data = patterned(5001, 4);
    data.flash_offset = rootfs.flash_offset + rootfs.part_size;
    return firmware;
}

// Old output of the same names: what of it shines through is seen.
void write_stale_output(const Workplace& place, const Files& wanted) {
    place.empty_output();
    for (const auto& [name, bytes] : wanted)
        write_file(place.output() / name, Bytes(20'000, 0xA5));
    write_file(place.output() / "unsparse_tmp.bin", Bytes(5'000, 0x5A));
}

struct Counts {
    long calls = 0;
    long failures = 0;
};

Counts reported(const std::filesystem::path& path) {
    Counts counts;
    std::ifstream(path) >> counts.calls >> counts.failures;
    return counts;
}

using Parameter = std::tuple<ENUM_FLASH_TYPE, bool>;

std::string parameter_name(const Parameter& parameter) {
    return std::string(type_name(std::get<0>(parameter))) + (std::get<1>(parameter) ? "Gpt" : "Parameter");
}

class FailingMachine : public testing::TestWithParam<Parameter> {
protected:
    FailingMachine()
        : type_(std::get<0>(GetParam())), place_(firmware_of_several_blocks(std::get<1>(GetParam()))),
          wanted_(place_.undisturbed(type_, {})) {}

    RunResult run_with(const Fault& fault, long at) {
        write_stale_output(place_, wanted_);
        std::filesystem::remove(report_path());
        RunOptions options;
        options.environment = {{"LD_PRELOAD", FAILING_CALLS_LIBRARY},
                               {"FAILING_CALLS_CLASS", fault.call_class},
                               {"FAILING_CALLS_AT", std::to_string(at)},
                               {"FAILING_CALLS_HOW", fault.how},
                               {"FAILING_CALLS_ALWAYS", fault.always ? "1" : ""},
                               {"FAILING_CALLS_REPORT", report_path()}};
        if (sanitized)
            options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
        return place_.run(type_, {}, options);
    }

    std::filesystem::path report_path() const { return reports_ / "report"; }

    ENUM_FLASH_TYPE type_;
    Workplace place_;
    ScratchDirectory reports_;
    Files wanted_;
};

TEST_P(FailingMachine, NothingFailsWithoutAPlan) {
    const RunResult run = run_with({"write", "EIO", false, false}, 0);
    EXPECT_TRUE(run.succeeded()) << run.out;
    EXPECT_EQ(difference(wanted_, files_in(place_.output())), "");
    EXPECT_GT(reported(report_path()).calls, 3);
    EXPECT_EQ(reported(report_path()).failures, 0);
}

TEST_P(FailingMachine, EndsInAStatusAndAReasonOrInTheRightBytes) {
    long disturbed_runs = 0;
    long injected = 0;
    int reports = 0;
    for (const Fault& fault : faults) {
        if (sanitized && std::string(fault.call_class) == "alloc")
            continue;  // the sanitizer has an allocator of its own
        for (long at = 1;; ++at) {
            const RunResult run = run_with(fault, at);
            const Counts counts = reported(report_path());
            if (run.exited && counts.failures == 0) {
                ASSERT_EQ(run.exit_status, 0) << text_of(fault, at) << "\n" << run.out << run.err;
                break;
            }
            ++disturbed_runs;
            injected += counts.failures;
            const bool unlink = std::string(fault.call_class) == "unlink";
            std::string wrong = misbehaviour(run, wanted_, place_.output(),
                                             unlink && !fault.harmless ? "unsparse_tmp.bin" : "");
            if (wrong.empty() && fault.harmless && run.exit_status != 0)
                wrong = "fails, but the call could have gone on";
            if (wrong.empty())
                wrong = place_.damage();
            if (!wrong.empty() || !run.err.empty()) {
                ADD_FAILURE() << text_of(fault, at) << ": " << wrong << "\nstatus " << run.exit_status << "\n"
                              << run.out << run.err;
                ASSERT_LT(++reports, 25) << "and maybe more";
            }
        }
    }
    RecordProperty("disturbed_runs", std::to_string(disturbed_runs));
    RecordProperty("injected_faults", std::to_string(injected));
    std::cout << parameter_name(GetParam()) << ": " << injected << " faults injected in " << disturbed_runs
              << " runs\n";
}

INSTANTIATE_TEST_SUITE_P(Types, FailingMachine,
                         testing::Values(std::tuple(FLASH_EMMC, true), std::tuple(FLASH_EMMC, false),
                                         std::tuple(FLASH_NOR, true), std::tuple(FLASH_SPI_NAND, false),
                                         std::tuple(FLASH_SLC_NAND, false)),
                         [](const auto& tested) { return parameter_name(tested.param); });

}  // namespace
}  // namespace robustness
