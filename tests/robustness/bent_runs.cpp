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

constexpr uint64_t kLargestOutput = 8 * 1024 * 1024;
constexpr double kCpuSeconds = kSanitized ? 10 : 1;
constexpr unsigned kWallSeconds =
    kSanitized ? 60 : 15;  // a run that waits for something costs no processor time
constexpr long kMemoryKb = 64 * 1024;
constexpr char kSuccessLine[] = "creating programming image ok.\n";

// What the child tells the parent, also when it dies.
struct Shared {
    std::size_t done = 0;  // runs that are done
    char problem[4096] = {};
};

class SharedMemory {
public:
    SharedMemory()
        : m_shared(static_cast<Shared*>(
              ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (m_shared == MAP_FAILED)
            throw std::runtime_error("no shared memory");
        new (m_shared) Shared();
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    ~SharedMemory() { ::munmap(m_shared, sizeof(Shared)); }

    Shared* operator->() const { return m_shared; }

private:
    Shared* m_shared;
};

// Standard output as a file in memory, of which each run's part can be taken out.
class CapturedOutput {
public:
    CapturedOutput() : m_descriptor(::memfd_create("output", MFD_CLOEXEC)) {
        std::fflush(stdout);
        if (m_descriptor < 0 || ::dup2(m_descriptor, STDOUT_FILENO) < 0)
            throw std::runtime_error("cannot capture the output");
    }

    std::string take() {
        std::fflush(stdout);
        const off_t size = ::lseek(m_descriptor, 0, SEEK_END);
        std::string text(static_cast<std::size_t>(size), '\0');
        if (::pread(m_descriptor, text.data(), text.size(), 0) != size || ::ftruncate(m_descriptor, 0) != 0 ||
            ::lseek(m_descriptor, 0, SEEK_SET) != 0)
            throw std::runtime_error("cannot read the captured output");
        return text;
    }

private:
    int m_descriptor;
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
    if (status == kStatusCreationFailed)
        return "Failed to create programming image.\n";
    return status == kStatusOutOfMemory ? "out of memory\n" : "";
}

class Child {
public:
    Child(ENUM_FLASH_TYPE type, const BentRuns& runs)
        : m_type(type), m_runs(runs), m_firmware(m_top / (runs.container ? "loader.bin" : "firmware.img")),
          m_output(m_top / "out") {
        std::filesystem::create_directory(m_output);
    }

    // Empty, or what is wrong with the run.
    std::string run(const BentFirmware& bent) {
        write_file(m_firmware, bent.bytes);
        const double start = cpu_now();
        ::alarm(kWallSeconds);
        const int status = limited_conversion();
        ::alarm(0);
        const double spent = cpu_now() - start;
        const std::string out = m_captured.take() + last_line_of_main(status);

        std::string problem;
        if (spent > kCpuSeconds)
            problem = "takes " + std::to_string(spent) + " seconds";
        else if (status == kStatusSuccess && !out.ends_with(kSuccessLine))
            problem = "succeeds without saying so:\n" + out;
        else if (status != kStatusSuccess && !wrong_reason(status, out).empty())
            problem = "fails for another reason than it gives: " + wrong_reason(status, out) + "\n" + out;
        else if (read_file(m_firmware) != bent.bytes)
            problem = "changes the firmware";
        else
            problem = strangers();
        clear_output();
        return problem;
    }

private:
    int limited_conversion() const {
        const FileSizeLimit limit(kLargestOutput);
        return convert(m_type, m_runs.geometry, m_firmware, m_output);
    }

    std::string strangers() const {
        for (const auto& entry : std::filesystem::directory_iterator(m_top.path()))
            if (entry.path() != m_firmware && entry.path() != m_output)
                return "leaves the output directory: " + entry.path().filename().string();
        return {};
    }

    void clear_output() const {
        for (const auto& entry : std::filesystem::directory_iterator(m_output))
            std::filesystem::remove_all(entry.path());
    }

    const ENUM_FLASH_TYPE m_type;
    const BentRuns& m_runs;
    ScratchDirectory m_top;
    const std::filesystem::path m_firmware;
    const std::filesystem::path m_output;
    CapturedOutput m_captured;
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
        if (!kSanitized && grown > kMemoryKb)
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
