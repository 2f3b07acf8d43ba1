#pragma once

// Runs of the program over a firmware in a directory of their own, and what has to be true after each of
// them.

#include "support/conversion.h"
#include "support/process_limits.h"
#include "support/run_program.h"
#include "support/work_directory.h"

#include <optional>
#include <string>

namespace robustness {

// Small erase blocks, so that the images stay small.
inline test_support::Conversion small_blocks(const std::string& type) {
    return {type, "8", "2", "64"};
}

// Which files differ, one a line; empty when the directories are equal.
std::string difference(const test_support::Files& wanted, const test_support::Files& got);

// A firmware and an output directory under one top directory that holds nothing else.
class Workplace : public test_support::WorkDirectory {
public:
    explicit Workplace(const test_support::Firmware& packed);

    test_support::RunResult run(const test_support::Conversion& conversion,
                                test_support::RunOptions options = {}) const;
    // What a run that nothing disturbs leaves in the output directory.
    test_support::Files undisturbed(const test_support::Conversion& conversion) const;
    std::string damage() const { return WorkDirectory::damage(m_packed); }

private:
    test_support::Bytes m_packed;
};

// Empty when a run that may have failed ended as it should: success with exactly the wanted files in the
// output directory, or a known exit status and the lines that belong to it as the reason. A reason that ends
// in an errno has this one, when it is given. `tolerated` may be left over beside the wanted files.
std::string misbehaviour(const test_support::RunResult& run, const test_support::Files& wanted,
                         const std::filesystem::path& output, const std::string& tolerated = {},
                         std::optional<int> error = {});

// How the output of a run has to end that failed: the last lines name the reason, in the form that belongs to
// the exit status, which is not 0. Empty when it does; else what is wrong with it.
std::string wrong_reason(int exit_status, const std::string& out);

// The errno that the last reason of the output ends in, if it ends in one.
std::optional<int> errno_of_reason(const std::string& out);

// ---- runs in which calls or allocations fail, by the library that failing_calls.cpp makes ----

// What is to fail, in the words of failing_calls.cpp.
struct FailingCalls {
    std::string call_class{};
    std::string how{};
    long at = 0;  // 0: nothing fails
    bool always = false;
    bool no_pool = false;
};

// A run in which it failed.
struct FailingRun {
    test_support::RunResult result{};
    bool reported = false;  // the program came back from main()
    long calls = 0;         // of the class
    long failures = 0;
};

FailingRun run_failing(const Workplace& place, const std::string& type, const FailingCalls& failing);

}  // namespace robustness
