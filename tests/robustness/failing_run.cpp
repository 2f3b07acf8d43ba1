#include "failing_run.h"

#include <fstream>

namespace robustness {

FailingRun FailingProgram::run(ENUM_FLASH_TYPE type, const FailingCalls& failing) const {
    std::filesystem::remove(report_path());
    test_support::RunOptions options;
    options.environment = {{"LD_PRELOAD", FAILING_CALLS_LIBRARY},
                           {"FAILING_CALLS_CLASS", failing.call_class},
                           {"FAILING_CALLS_AT", std::to_string(failing.at)},
                           {"FAILING_CALLS_HOW", failing.how},
                           {"FAILING_CALLS_ALWAYS", failing.always ? "1" : ""},
                           {"FAILING_CALLS_NO_POOL", failing.no_pool ? "1" : ""},
                           {"FAILING_CALLS_REPORT", report_path()}};
    if (kSanitized)
        options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    FailingRun run;
    run.result = m_place.run(type, {}, options);
    std::ifstream report(report_path());
    run.reported = static_cast<bool>(report >> run.calls >> run.failures);
    return run;
}

}  // namespace robustness
