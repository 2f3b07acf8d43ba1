#include "run_program.h"

#include "bytes.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace test_support {

namespace {

using Clock = std::chrono::steady_clock;

void close_end(int& end) {
    if (end >= 0)
        close(end);
    end = -1;
}

struct Pipe {
    int ends[2] = {-1, -1};
    int& read_end = ends[0];
    int& write_end = ends[1];

    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close_end(read_end);
        close_end(write_end);
    }
};

[[noreturn]] void give_up(const std::string& what) {
    const std::string line = "cannot " + what + ": " + std::strerror(errno) + "\n";
    const ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
    static_cast<void>(ignored);
    _exit(127);
}

void limit(decltype(RLIMIT_AS) resource, const std::optional<uint64_t>& bytes) {
    const rlimit both{bytes.value_or(0), bytes.value_or(0)};
    if (bytes && setrlimit(resource, &both) != 0)
        give_up("set a limit");
}

[[noreturn]] void become_program(const std::string& program, const std::vector<std::string>& arguments,
                                 const RunOptions& options, const Pipe& out, const Pipe& err) {
    setpgid(0, 0);  // so that a timeout reaches the program's own children as well
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(out.write_end, STDOUT_FILENO);
    dup2(err.write_end, STDERR_FILENO);
    if (!options.working_directory.empty() && chdir(options.working_directory.c_str()) != 0)
        give_up("enter " + options.working_directory.string());
    for (const auto& [name, value] : options.environment)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    std::signal(SIGXFSZ, SIG_DFL);  // an ignored signal stays ignored in the program, whatever it does itself
    limit(RLIMIT_FSIZE, options.file_size_limit);
    limit(RLIMIT_AS, options.address_space_limit);
    execvp(program.c_str(), argv.data());
    give_up("run " + program);
}

using Deadline = std::optional<Clock::time_point>;

// Time left until the deadline, for poll(): -1 without a deadline.
int milliseconds_left(const Deadline& deadline) {
    if (!deadline)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Appends what is there to read. False at the end of the stream.
bool take_available(int from, std::string& to) {
    std::array<char, 65536> buffer;
    const ssize_t count = read(from, buffer.data(), buffer.size());
    if (count > 0)
        to.append(buffer.data(), static_cast<std::size_t>(count));
    return count > 0 || (count < 0 && errno == EINTR);
}

enum class Drained { all, up_to_the_deadline, up_to_the_text };

// Reads both streams to their end, up to the deadline, or until the output ends in the text.
Drained drain(Pipe& out, Pipe& err, const Deadline& deadline, const std::string& text, RunResult& result) {
    while (out.read_end >= 0 || err.read_end >= 0) {
        std::array<pollfd, 2> streams{{{out.read_end, POLLIN, 0}, {err.read_end, POLLIN, 0}}};
        const int ready = poll(streams.data(), streams.size(), milliseconds_left(deadline));
        if (ready == 0)
            return Drained::up_to_the_deadline;
        if (ready < 0)
            continue;
        if (streams[0].revents != 0 && !take_available(out.read_end, result.out))
            close_end(out.read_end);
        if (streams[1].revents != 0 && !take_available(err.read_end, result.err))
            close_end(err.read_end);
        if (!text.empty() && result.out.ends_with(text))
            return Drained::up_to_the_text;
    }
    return Drained::all;
}

// Waits for a program that has closed its streams. False when the deadline came first.
bool reap(pid_t pid, const Deadline& deadline, int& status, rusage& usage) {
    for (;;) {
        const pid_t ended = wait4(pid, &status, deadline ? WNOHANG : 0, &usage);
        if (ended == pid)
            return true;
        if (ended < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for a program");
        if (deadline && milliseconds_left(deadline) == 0)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

RunResult run_program(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options) {
    Pipe out;
    Pipe err;
    const Clock::time_point start = Clock::now();
    const pid_t pid = fork();
    if (pid < 0)
        throw std::system_error(errno, std::generic_category(), "cannot fork");
    if (pid == 0)
        become_program(program, arguments, options, out, err);
    setpgid(pid, pid);
    close_end(out.write_end);
    close_end(err.write_end);

    Deadline deadline;
    if (options.timeout_seconds) {
        deadline = start + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(*options.timeout_seconds));
    }
    RunResult result;
    int status = 0;
    rusage usage{};
    const Drained drained = drain(out, err, deadline, options.kill_after_output, result);
    result.timed_out = drained == Drained::up_to_the_deadline ||
                       (drained == Drained::all && !reap(pid, deadline, status, usage));
    if (drained != Drained::all || result.timed_out) {
        kill(-pid, SIGKILL);
        drain(out, err, std::nullopt, {}, result);
        reap(pid, std::nullopt, status, usage);
    }
    result.max_rss_kb = usage.ru_maxrss;
    result.exited = WIFEXITED(status);
    if (result.exited)
        result.exit_status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

std::filesystem::path find_program(const std::string& name) {
    const char* path = std::getenv("PATH");
    for (const std::string& directory :
         split(std::string(path == nullptr ? "" : path) + ":/usr/sbin:/sbin", ':')) {
        const std::filesystem::path candidate = std::filesystem::path(directory) / name;
        if (!directory.empty() && access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return {};
}

}  // namespace test_support
