#include "program_run.h"

#include "run_reason.h"

namespace robustness {

using namespace test_support;

Files files_in(const std::filesystem::path& directory) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.is_regular_file())
            files[entry.path().filename()] = read_file(entry.path());
    return files;
}

std::string difference(const Files& wanted, const Files& got) {
    std::string text;
    for (const auto& [name, bytes] : wanted) {
        const auto other = got.find(name);
        if (other == got.end())
            text += "missing: " + name + "\n";
        else if (other->second != bytes)
            text += "other bytes: " + name + "\n";
    }
    for (const auto& [name, bytes] : got)
        if (!wanted.contains(name))
            text += "not wanted: " + name + "\n";
    return text;
}

std::vector<std::string> program_arguments(ENUM_FLASH_TYPE type, const Geometry& geometry,
                                           const std::filesystem::path& firmware,
                                           const std::filesystem::path& output) {
    std::vector<std::string> arguments = {"-i", firmware,
                                          "-o", output,
                                          "-t", type_name(type),
                                          "-b", std::to_string(geometry.block_kb),
                                          "-p", std::to_string(geometry.page_kb),
                                          "-s", std::to_string(geometry.oob_bytes)};
    if (geometry.page_2k)
        arguments.emplace_back("-2");
    if (geometry.page_list)
        arguments.emplace_back("--page_list");
    return arguments;
}

Workplace::Workplace(const Firmware& firmware) : m_firmware_bytes(firmware.build()) {
    write_file(this->firmware(), m_firmware_bytes);
    std::filesystem::create_directory(output());
}

void Workplace::empty_output() const {
    std::filesystem::remove_all(output());
    std::filesystem::create_directory(output());
}

RunResult Workplace::run(ENUM_FLASH_TYPE type, const Geometry& geometry, RunOptions options) const {
    if (!options.timeout_seconds)
        options.timeout_seconds = kSanitized ? 60 : 20;
    return run_program(NANDSMITH_PROGRAM, program_arguments(type, geometry, firmware(), output()), options);
}

Files Workplace::undisturbed(ENUM_FLASH_TYPE type, const Geometry& geometry) const {
    empty_output();
    const RunResult result = run(type, geometry);
    if (!result.succeeded())
        throw std::runtime_error("the undisturbed run fails:\n" + result.out);
    Files files = files_in(output());
    empty_output();
    return files;
}

std::string Workplace::damage() const {
    if (read_file(firmware()) != m_firmware_bytes)
        return "the firmware was changed";
    for (const auto& entry : std::filesystem::directory_iterator(top()))
        if (entry.path() != firmware() && entry.path() != output())
            return "outside the output directory: " + entry.path().string();
    return {};
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

}  // namespace robustness
