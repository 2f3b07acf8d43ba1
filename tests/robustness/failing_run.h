#pragma once

// Runs of the program in which calls to the system or allocations fail, by the library that
// failing_calls.cpp makes.

#include "fuzz/scratch_directory.h"
#include "program_run.h"

#include <string>

namespace robustness {

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

class FailingProgram {
public:
    explicit FailingProgram(const Workplace& place) : m_place(place) {}

    FailingRun run(ENUM_FLASH_TYPE type, const FailingCalls& failing) const;

private:
    std::filesystem::path report_path() const { return m_reports / "report"; }

    const Workplace& m_place;
    ScratchDirectory m_reports;
};

}  // namespace robustness
