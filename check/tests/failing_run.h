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

inline FailedRun run_with_failing(const Arguments& arguments, const std::string& call_class,
                                  const std::string& how, long at, const fs::path& report) {
    RunOptions options;
    options.environment = {{"LD_PRELOAD", FAILING_CALLS_LIBRARY},
                           {"FAILING_CALLS_CLASS", call_class},
                           {"FAILING_CALLS_AT", std::to_string(at)},
                           {"FAILING_CALLS_HOW", how},
                           {"FAILING_CALLS_REPORT", report}};
    if (kSanitized)
        options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    FailedRun failed;
    failed.run = run_check_program(arguments, options);
    std::ifstream(report) >> failed.calls >> failed.failures;
    return failed;
}

}  // namespace check_test
