#include "program_run.h"

#include <fstream>

namespace robustness {

using namespace test_support;

std::string difference(const Files& wanted, const Files& got) {
    std::string text;
    for (const auto& [name, bytes] : wanted)
        if (!got.contains(name))
            text += "missing: " + name + "\n";
        else if (got.at(name) != bytes)
            text += "other bytes: " + name + "\n";
    for (const auto& [name, bytes] : got)
        if (!wanted.contains(name))
            text += "not wanted: " + name + "\n";
    return text;
}

Workplace::Workplace(const Firmware& packed) : WorkDirectory(memory_directory()), m_packed(packed.build()) {
    pack(m_packed);
}

RunResult Workplace::run(const Conversion& conversion, RunOptions options) const {
    if (!options.timeout_seconds)
        options.timeout_seconds = kSanitized ? 60 : 20;
    return run_program(NANDSMITH_PROGRAM, conversion.arguments(firmware(), out_dir()), options);
}

Files Workplace::undisturbed(const Conversion& conversion) const {
    empty_output();
    const RunResult result = run(conversion);
    if (!result.succeeded())
        throw std::runtime_error("the undisturbed run fails:\n" + result.out);
    Files files = outputs();
    empty_output();
    return files;
}

std::string misbehaviour(const RunResult& run, const Files& wanted, const std::filesystem::path& output,
                         const std::string& tolerated, std::optional<int> error) {
    if (run.timed_out)
        return "hangs";
    if (!run.exited)
        return "ended by signal " + std::to_string(run.signal);
    if (run.exit_status == 0) {
        Files got = files_in(output);
        got.erase(tolerated);
        const std::string different = difference(wanted, got);
        return different.empty() ? "" : "false success: " + different;
    }
    if (std::string wrong = wrong_reason(run.exit_status, run.out); !wrong.empty())
        return wrong;
    const std::optional<int> told = errno_of_reason(run.out);
    return !error || !told || *told == *error ? "" : "err=" + std::to_string(*told) + " is not what failed";
}

FailingRun run_failing(const Workplace& place, const std::string& type, const FailingCalls& failing) {
    const TemporaryDirectory reports(memory_directory());
    const fs::path report_path = reports / "report";
    RunOptions options;
    options.environment = {{"LD_PRELOAD", FAILING_CALLS_LIBRARY},
                           {"FAILING_CALLS_CLASS", failing.call_class},
                           {"FAILING_CALLS_AT", std::to_string(failing.at)},
                           {"FAILING_CALLS_HOW", failing.how},
                           {"FAILING_CALLS_ALWAYS", failing.always ? "1" : ""},
                           {"FAILING_CALLS_NO_POOL", failing.no_pool ? "1" : ""},
                           {"FAILING_CALLS_REPORT", report_path}};
    if (kSanitized)
        options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    FailingRun run;
    run.result = place.run(small_blocks(type), options);
    std::ifstream report(report_path);
    run.reported = static_cast<bool>(report >> run.calls >> run.failures);
    return run;
}

}  // namespace robustness
