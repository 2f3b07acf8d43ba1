#include "measured_process.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

std::string text_of(const Command& command) {
    std::string text;
    for (const std::string& word : command.words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// What the command says on standard error, kept in memory: it matters only when the command fails.
class ErrorText {
public:
    ErrorText() : m_descriptor(memfd_create("error_text", MFD_CLOEXEC)) {
        if (m_descriptor < 0)
            throw std::runtime_error("cannot keep error messages");
    }
    ErrorText(const ErrorText&) = delete;
    ErrorText& operator=(const ErrorText&) = delete;
    ~ErrorText() { close(m_descriptor); }

    int descriptor() const { return m_descriptor; }
    std::string text() const {
        std::string text(4096, '\0');
        const ssize_t got = pread(m_descriptor, text.data(), text.size(), 0);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return text;
    }

private:
    int m_descriptor;
};

// Not fork: a child would begin with the pages of this process, and they would count as its peak.
pid_t start(const Command& command, const ErrorText& errors) {
    std::vector<char*> words;
    for (const std::string& word : command.words)
        words.push_back(const_cast<char*>(word.c_str()));  // posix_spawn leaves them as they are
    words.push_back(nullptr);

    const std::string output = command.output_file.empty() ? "/dev/null" : command.output_file.string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, errors.descriptor(), STDERR_FILENO);
    pid_t child = -1;
    const int error = posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot run " + text_of(command) + ": " + std::strerror(error));
    return child;
}

double in_seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

Measurement run_measured(const Command& command) {
    const ErrorText errors;
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = start(command, errors);
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child)
        throw std::runtime_error("lost " + text_of(command));
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("failed: " + text_of(command) + "\n" + errors.text());
    return {.seconds = wall.count(),
            .user_seconds = in_seconds(usage.ru_utime),
            .system_seconds = in_seconds(usage.ru_stime),
            .peak_mib = static_cast<double>(usage.ru_maxrss) / 1024};
}

std::optional<uint64_t> count_system_calls(const Command& command, const std::filesystem::path& scratch) {
    // A trial of its own: a failure of the command is an error, a machine that forbids tracing is none.
    if (!have_tool("strace"))
        return std::nullopt;
    Command traced{{"strace", "-f", "-c", "-o", scratch.string(), "true"}, {}};
    try {
        run_measured(traced);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
    traced.words.pop_back();
    traced.words.insert(traced.words.end(), command.words.begin(), command.words.end());
    traced.output_file = command.output_file;
    run_measured(traced);

    // A line per call: share of time, seconds, microseconds each, calls, sometimes errors, name.
    std::ifstream report(scratch);
    std::string line;
    uint64_t sum = 0;
    while (std::getline(report, line)) {
        std::istringstream fields(line);
        double share = 0, seconds = 0, each = 0;
        uint64_t calls = 0;
        if (fields >> share >> seconds >> each >> calls && !line.ends_with(" total"))
            sum += calls;
    }
    return sum;
}

bool have_tool(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    std::string directory;
    while (std::getline(directories, directory, ':'))
        if (access((directory + "/" + name).c_str(), X_OK) == 0)
            return true;
    return false;
}
