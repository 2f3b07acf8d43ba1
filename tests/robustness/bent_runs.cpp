#include "bent_runs.h"

#include "program_run.h"
#include "run_reason.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace robustness {

using namespace test_support;

namespace {

constexpr uint64_t largest_output = 8 * 1024 * 1024;
constexpr double cpu_seconds = sanitized ? 10 : 1;
constexpr unsigned wall_seconds =
    sanitized ? 60 : 15;  // a run that waits for something costs no processor time
constexpr long memory_kb = 64 * 1024;
constexpr char success_line[] = "creating programming image ok.\n";

// What the child tells the parent, also when it dies.
struct Shared {
    std::size_t done = 0;  // runs that are behind it
    char problem[4096] = {};
};

class SharedMemory {
public:
    SharedMemory()
        : shared_(static_cast<Shared*>(
              ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (shared_ == MAP_FAILED)
            throw std::runtime_error("no shared memory");
        new (shared_) Shared();
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    ~SharedMemory() { ::munmap(shared_, sizeof(Shared)); }

    Shared* operator->() const { return shared_; }

private:
    Shared* shared_;
};

// Standard output as a file in memory, of which each run's part can be taken out.
class CapturedOutput {
public:
    CapturedOutput() : descriptor_(::memfd_create("output", MFD_CLOEXEC)) {
        std::fflush(stdout);
        if (descriptor_ < 0 || ::dup2(descriptor_, STDOUT_FILENO) < 0)
            throw std::runtime_error("cannot capture the output");
    }

    std::string take() {
        std::fflush(stdout);
        const off_t size = ::lseek(descriptor_, 0, SEEK_END);
        std::string text(static_cast<std::size_t>(size), '\0');
        if (::pread(descriptor_, text.data(), text.size(), 0) != size || ::ftruncate(descriptor_, 0) != 0 ||
            ::lseek(descriptor_, 0, SEEK_SET) != 0)
            throw std::runtime_error("cannot read the captured output");
        return text;
    }

private:
    int descriptor_;
};

double cpu_now() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

long peak_memory_kb() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// What the program prints after a conversion that failed.
const char* last_line_of_main(int status) {
    if (status == status_creation_failed)
        return "Failed to create programming image.\n";
    return status == status_out_of_memory ? "out of memory\n" : "";
}

class Child {
public:
    Child(ENUM_FLASH_TYPE type, const BentRuns& runs)
        : type_(type), runs_(runs), firmware_(top_ / (runs.container ? "loader.bin" : "firmware.img")),
          output_(top_ / "out") {
        std::filesystem::create_directory(output_);
    }

    // Empty, or what is wrong with the run.
    std::string run(const BentFirmware& bent) {
        write_file(firmware_, bent.bytes);
        const double start = cpu_now();
        ::alarm(wall_seconds);
        const int status = limited_conversion();
        ::alarm(0);
        const double spent = cpu_now() - start;
        const std::string out = captured_.take() + last_line_of_main(status);

        std::string problem;
        if (spent > cpu_seconds)
            problem = "takes " + std::to_string(spent) + " seconds";
        else if (status == status_success && !out.ends_with(success_line))
            problem = "succeeds without saying so:\n" + out;
        else if (status != status_success && !wrong_reason(status, out).empty())
            problem = "fails for another reason than it gives: " + wrong_reason(status, out) + "\n" + out;
        else if (read_file(firmware_) != bent.bytes)
            problem = "changes the firmware";
        else
            problem = strangers();
        clear_output();
        return problem;
    }

private:
    int limited_conversion() const {
        const FileSizeLimit limit(largest_output);
        return convert(type_, runs_.geometry, firmware_, output_);
    }

    std::string strangers() const {
        for (const auto& entry : std::filesystem::directory_iterator(top_.path()))
            if (entry.path() != firmware_ && entry.path() != output_)
                return "leaves the output directory: " + entry.path().filename().string();
        return {};
    }

    void clear_output() const {
        for (const auto& entry : std::filesystem::directory_iterator(output_))
            std::filesystem::remove_all(entry.path());
    }

    const ENUM_FLASH_TYPE type_;
    const BentRuns& runs_;
    ScratchDirectory top_;
    const std::filesystem::path firmware_;
    const std::filesystem::path output_;
    CapturedOutput captured_;
};

void report(Shared& shared, const std::string& problem) {
    std::snprintf(shared.problem, sizeof(shared.problem), "%s", problem.c_str());
}

// Runs on until something is wrong.
void run_in_child(ENUM_FLASH_TYPE type, const BentRuns& runs, Shared& shared) {
    Child child(type, runs);
    long memory_before = 0;
    const std::size_t first = shared.done;
    for (; shared.done < runs.count; ++shared.done) {
        const std::string problem = child.run(runs.make(shared.done));
        if (!problem.empty())
            return report(shared, problem);
        if (shared.done == first)
            memory_before = peak_memory_kb();  // with everything that one run needs in any case
        const long grown = peak_memory_kb() - memory_before;
        if (!sanitized && grown > memory_kb)
            return report(shared, "takes " + std::to_string(grown) + " KB of memory");
    }
}

int run_child(ENUM_FLASH_TYPE type, const BentRuns& runs, Shared& shared) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            run_in_child(type, runs, shared);
        } catch (const std::exception& exception) {
            report(shared, std::string("throws: ") + exception.what());
        }
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return status;
}

}  // namespace

void expect_orderly_ends(ENUM_FLASH_TYPE type, const BentRuns& runs) {
    SharedMemory shared;
    for (int reports = 0; shared->done < runs.count; ++shared->done) {
        shared->problem[0] = '\0';
        const int status = run_child(type, runs, *shared.operator->());
        std::string problem = shared->problem;
        if (WIFSIGNALED(status))
            problem =
                WTERMSIG(status) == SIGALRM ? "hangs" : "ends by signal " + std::to_string(WTERMSIG(status));
        else if (WEXITSTATUS(status) != 0)
            problem = "ends by a sanitizer, status " + std::to_string(WEXITSTATUS(status));
        else if (problem.empty())
            break;
        ADD_FAILURE() << type_name(type) << ", " << runs.make(shared->done).what << ": " << problem;
        ASSERT_LT(++reports, 6) << "and maybe more";
    }
    EXPECT_GE(shared->done, runs.count);
}

}  // namespace robustness
