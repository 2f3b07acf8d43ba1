#pragma once

// Runs a command as a process of its own and measures it.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

struct Command {
    std::vector<std::string> words{};     // the first is looked up in PATH
    std::filesystem::path output_file{};  // standard output; empty: nowhere
};

struct Measurement {
    double seconds = 0;         // from the start of the process to its end
    double user_seconds = 0;    // in the processes themselves, descendants included
    double system_seconds = 0;  // in the kernel for them
    double peak_mib = 0;        // resident

    double processor_seconds() const { return user_seconds + system_seconds; }
};

// std::runtime_error when the command cannot be started or does not end with status 0.
Measurement run_measured(const Command& command);

// System calls of the command and its descendants, counted by strace, which writes its report to the scratch
// file. Empty where strace is missing or may not trace.
std::optional<uint64_t> count_system_calls(const Command& command, const std::filesystem::path& scratch);

bool have_tool(const std::string& name);
