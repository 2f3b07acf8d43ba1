#pragma once

// Runs of nandsmith-check in which calls of the system fail.

#include "check_bench.h"

#include <fstream>
#include <string>

namespace check_test {

struct FailedRun {
    RunResult run;
    long failures = 0;
    long calls = 0;
};

/// For a run in which a call fails. Its report goes to a file.
inline RunOptions with_failing(const std::string& call_class, long at, const fs::path& report) {
    RunOptions options;
    options.environment = {{"LD_PRELOAD", FAILING_CALLS_LIBRARY},
                           {"FAILING_CALLS_CLASS", call_class},
                           {"FAILING_CALLS_AT", std::to_string(at)},
                           {"FAILING_CALLS_REPORT", report}};
    if (kSanitized)
        options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    return options;
}

/// For a run in which all reads of one byte of a file fail.
inline RunOptions with_unreadable_byte(const fs::path& file, uint64_t byte, const fs::path& report) {
    RunOptions options = with_failing("read", 0, report);
    options.environment.emplace_back("FAILING_CALLS_FILE", file);
    options.environment.emplace_back("FAILING_CALLS_BYTES", std::to_string(byte) + " 1");
    return options;
}

inline FailedRun run_with_failing(const Arguments& arguments, const std::string& call_class,
                                  const std::string& how, long at, const fs::path& report) {
    RunOptions options = with_failing(call_class, at, report);
    options.environment.emplace_back("FAILING_CALLS_HOW", how);
    FailedRun failed;
    failed.run = run_check_program(arguments, options);
    std::ifstream(report) >> failed.calls >> failed.failures;
    return failed;
}

}  // namespace check_test
