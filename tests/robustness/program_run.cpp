#include "program_run.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace robustness {

using namespace test_support;

namespace {

// -9 to -12 and -14 to -16 as an exit status: the ends that a run with good options can come to.
constexpr std::array<int, 7> failure_statuses = {247, 246, 245, 244, 242, 241, 240};

std::string without_colours(std::string line) {
    for (const std::string_view colour : {"\033[30;41m", "\033[37;40m"}) {
        const std::size_t at = line.find(colour);
        if (at != std::string::npos)
            line.erase(at, colour.size());
    }
    return line;
}

}  // namespace

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

Workplace::Workplace(const Firmware& firmware) : firmware_bytes_(firmware.build()) {
    write_file(this->firmware(), firmware_bytes_);
    std::filesystem::create_directory(output());
}

void Workplace::empty_output() const {
    std::filesystem::remove_all(output());
    std::filesystem::create_directory(output());
}

RunResult Workplace::run(ENUM_FLASH_TYPE type, const Geometry& geometry, RunOptions options) const {
    if (!options.timeout_seconds)
        options.timeout_seconds = sanitized ? 60 : 20;
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
    if (read_file(firmware()) != firmware_bytes_)
        return "the firmware was changed";
    for (const auto& entry : std::filesystem::directory_iterator(top()))
        if (entry.path() != firmware() && entry.path() != output())
            return "outside the output directory: " + entry.path().string();
    return {};
}

std::vector<std::string> plain_lines(const std::string& out) {
    std::vector<std::string> lines;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);)
        lines.push_back(without_colours(line));
    return lines;
}

bool says_what_failed(const std::string& out) {
    constexpr std::array<std::string_view, 6> reasons = {"failed to ", "out of memory", "not found ",
                                                         " is not a ", "is too small",  "too many "};
    const std::vector<std::string> lines = plain_lines(out);
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return std::any_of(reasons.begin(), reasons.end(),
                           [&](std::string_view reason) { return line.find(reason) != std::string::npos; });
    });
}

std::string misbehaviour(const RunResult& run, const Files& wanted, const std::filesystem::path& output,
                         const std::string& tolerated) {
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
    if (std::find(failure_statuses.begin(), failure_statuses.end(), run.exit_status) ==
        failure_statuses.end())
        return "unknown exit status " + std::to_string(run.exit_status);
    return says_what_failed(run.out) ? "" : "fails without a line that says what failed";
}

}  // namespace robustness
