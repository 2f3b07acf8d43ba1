#pragma once

// Runs a program as a user would and keeps everything a test may want to look at.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

struct RunOptions {
    std::filesystem::path working_directory{};                       // empty: this process's
    std::vector<std::pair<std::string, std::string>> environment{};  // added to this process's
    // RLIMIT_FSIZE in bytes. A write beyond it raises SIGXFSZ, which ends a program that does not ignore it.
    std::optional<uint64_t> file_size_limit{};
    std::optional<uint64_t> address_space_limit{};  // RLIMIT_AS in bytes
    std::optional<double> timeout_seconds{};        // afterwards the program is killed
    std::string kill_after_output{};  // not empty: the program is killed once its output ends in this
};

struct RunResult {
    bool exited = false;     // false: ended by a signal
    int exit_status = -1;    // 0 to 255, when it exited; 127 also when the program could not be started
    int signal = 0;          // when it did not exit
    bool timed_out = false;  // killed at the end of its time
    std::string out{};
    std::string err{};
    // Peak resident set. The kernel counts in what the caller held when it started the program, so measure
    // before loading big files into the test.
    long max_rss_kb = 0;

    bool succeeded() const { return exited && exit_status == 0; }
};

// `program` is a path, or a name that is looked up in PATH. std::runtime_error when no process can be made.
RunResult run_program(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options = {});

// Full path of an executable that PATH (or /sbin, /usr/sbin) offers, empty when there is none.
std::filesystem::path find_program(const std::string& name);

}  // namespace test_support
