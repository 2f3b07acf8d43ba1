// Every call to the system and every allocation of a run fails in turn. Whatever fails, a run either says so
// and ends with a non-zero status, or its output is complete and right to the byte.

#include "fuzz/small_firmware.h"
#include "program_run.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <map>
#include <tuple>

namespace robustness {
namespace {

using namespace test_support;

struct Fault {
    const char* call_class;
    const char* how;
    bool always;
    bool harmless;  // the call can go on, and the run succeeds
};

// A seek is left out: only an output that is not a file takes one.
constexpr Fault kFaults[] = {
    {"open", "EIO", false, false},      {"open", "EIO", true, false},       {"open", "ENOSPC", false, false},
    {"open", "EINTR", false, true},     {"open", "EINTR", true, false},     {"read", "EIO", false, false},
    {"read", "EIO", true, false},       {"read", "EINTR", false, true},     {"read", "EINTR", true, false},
    {"read", "short", false, true},     {"read", "short", true, true},      {"read", "nothing", false, false},
    {"read", "nothing", true, false},   {"write", "EIO", false, false},     {"write", "EIO", true, false},
    {"write", "ENOSPC", false, false},  {"write", "ENOSPC", true, false},   {"write", "EINTR", false, true},
    {"write", "EINTR", true, false},    {"write", "short", false, true},    {"write", "short", true, true},
    {"write", "nothing", false, false}, {"write", "nothing", true, false},  {"close", "EIO", false, false},
    {"close", "EIO", true, false},      {"close", "ENOSPC", false, false},  {"close", "EINTR", false, true},
    {"close", "EINTR", true, true},     {"stat", "EIO", false, false},      {"stat", "EIO", true, false},
    {"stat", "EINTR", false, true},     {"stat", "EINTR", true, false},     {"truncate", "EIO", false, false},
    {"truncate", "EIO", true, false},   {"truncate", "EINTR", false, true}, {"reserve", "ENOSPC", true, true},
    {"reserve", "EINTR", false, true},  {"unlink", "EIO", false, false},    {"unlink", "EINTR", false, true},
    {"alloc", "ENOMEM", false, false},  {"alloc", "ENOMEM", true, false},
};

std::string name_of(const Fault& fault) {
    return std::string(fault.call_class) + "_" + fault.how + (fault.always ? "_always" : "");
}

// A sanitizer has an allocator of its own, in which nothing fails.
std::vector<Fault> faults() {
    std::vector<Fault> faults(std::begin(kFaults), std::end(kFaults));
    if (kSanitized)
        std::erase_if(faults, [](const Fault& fault) { return std::string(fault.call_class) == "alloc"; });
    return faults;
}

// A transfer of nothing has no errno of its own.
int errno_of(const Fault& fault) {
    const std::map<std::string, int> known{{"ENOSPC", ENOSPC}, {"EINTR", EINTR}, {"ENOMEM", ENOMEM}};
    const auto found = known.find(fault.how);
    return found == known.end() ? EIO : found->second;
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
        write_file(place.out(name), Bytes(20'000, 0xA5));
    write_file(place.out("unsparse_tmp.bin"), Bytes(5'000, 0x5A));
}

struct Subject {
    const char* type;
    bool gpt;
};

constexpr Subject kSubjects[] = {
    {"emmc", true}, {"emmc", false}, {"spinor", true}, {"spinand", false}, {"slc", false}};

std::string name_of(const Subject& subject) {
    return std::string(subject.type) + (subject.gpt ? "Gpt" : "Parameter");
}

// One conversion, and what it makes when nothing fails.
class Disturbed {
public:
    explicit Disturbed(const Subject& subject)
        : m_type(subject.type), m_place(firmware_of_several_blocks(subject.gpt)),
          m_wanted(m_place.undisturbed(small_blocks(m_type))) {}

    FailingRun run(const FailingCalls& failing) const {
        write_stale_output(m_place, m_wanted);
        return run_failing(m_place, m_type, failing);
    }

    // Empty, or what is wrong with the run.
    std::string problem(const RunResult& run, const Fault& fault) const {
        const bool leaves_file = std::string(fault.call_class) == "unlink" && !fault.harmless;
        std::string wrong = misbehaviour(run, m_wanted, m_place.out_dir(),
                                         leaves_file ? "unsparse_tmp.bin" : "", errno_of(fault));
        if (wrong.empty() && fault.harmless && run.exit_status != 0)
            wrong = "fails, but the call could have gone on";
        if (wrong.empty() && !run.err.empty())
            wrong = "says something on the error stream";
        return wrong.empty() ? m_place.damage() : wrong;
    }

    std::string difference_now() const { return difference(m_wanted, m_place.outputs()); }

private:
    std::string m_type;
    Workplace m_place;
    Files m_wanted;
};

TEST(FailingCallsLibrary, LetsNothingFailWithoutAPlan) {
    for (const Subject& subject : kSubjects) {
        SCOPED_TRACE(name_of(subject));
        const Disturbed disturbed(subject);
        const FailingRun run = disturbed.run({"write", "EIO", 0});
        EXPECT_TRUE(run.result.succeeded()) << run.result.out;
        EXPECT_EQ(disturbed.difference_now(), "");
        EXPECT_GT(run.calls, 3);
        EXPECT_EQ(run.failures, 0);
    }
}

class FailingMachine : public testing::TestWithParam<std::tuple<Subject, Fault>> {};

TEST_P(FailingMachine, EndsInAStatusAndAReasonOrInTheRightBytes) {
    const auto& [subject, fault] = GetParam();
    const Disturbed disturbed(subject);
    long injected = 0;
    int reports = 0;
    for (long at = 1;; ++at) {
        const FailingRun failing = disturbed.run({fault.call_class, fault.how, at, fault.always});
        const RunResult& run = failing.result;
        if (run.exited && failing.failures == 0) {
            EXPECT_EQ(run.exit_status, 0) << "call " << at << "\n" << run.out << run.err;
            EXPECT_GT(injected, 0) << "no run makes such a call";
            std::cout << injected << " faults injected in " << at - 1 << " runs\n";
            return;
        }
        injected += failing.failures;
        if (const std::string wrong = disturbed.problem(run, fault); !wrong.empty()) {
            ADD_FAILURE() << "call " << at << ": " << wrong << "\nstatus " << run.exit_status << "\n"
                          << run.out << run.err;
            ASSERT_LT(++reports, 3) << "and maybe more";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingMachine,
                         testing::Combine(testing::ValuesIn(kSubjects), testing::ValuesIn(faults())),
                         [](const auto& tested) {
                             return name_of(std::get<0>(tested.param)) + "_" +
                                    name_of(std::get<1>(tested.param));
                         });

}  // namespace
}  // namespace robustness
