#include "bent_runs.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace robustness {

using namespace test_support;

namespace {

constexpr uint64_t kLargestOutput = 8 * kMib;
constexpr double kCpuSeconds = kSanitized ? 10 : 1;
constexpr unsigned kWallSeconds = kSanitized ? 60 : 15;  // a run that waits costs no processor time
constexpr long kMemoryKb = 64 * 1024;

// What the child tells the parent, also when it dies.
struct Shared {
    std::size_t done = 0;  // runs that are done
    char problem[4096] = {};
};

// One object for parent and children, made anew.
Shared& fresh_shared() {
    static void* const memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("no shared memory");
    return *new (memory) Shared();
}

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
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

long peak_memory_kb() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// What the program prints after a conversion that failed.
const char* last_line_of_main(int status) {
    if (status == kCreationFailed)
        return "Failed to create programming image.\n";
    return status == kOutOfMemory ? "out of memory\n" : "";
}

class Child {
public:
    explicit Child(const BentRuns& runs) : m_conversion(runs.conversion) {
        m_place.name_firmware(runs.container ? "loader.bin" : "firmware.img");
    }

    // Empty, or what is wrong with the run.
    std::string run(const BentFirmware& bent) {
        m_place.pack(bent.bytes);
        const double start = cpu_now();
        ::alarm(kWallSeconds);
        const int status = limited_conversion();
        ::alarm(0);
        const double spent = cpu_now() - start;
        const std::string out = m_captured.take() + last_line_of_main(status);
        std::string problem = m_place.damage(bent.bytes);
        if (spent > kCpuSeconds)
            problem = "takes " + std::to_string(spent) + " seconds";
        else if (status == kConverted && !out.ends_with("creating programming image ok.\n"))
            problem = "succeeds without saying so:\n" + out;
        else if (status != kConverted && !wrong_reason(status, out).empty())
            problem = "fails for another reason than it gives: " + wrong_reason(status, out) + "\n" + out;
        m_place.empty_output();
        return problem;
    }

private:
    int limited_conversion() const {
        const FileSizeLimit limit(kLargestOutput);
        return convert_by_call(m_conversion, m_place.firmware(), m_place.out_dir());
    }

    const Conversion m_conversion;
    WorkDirectory m_place{memory_directory()};
    CapturedOutput m_captured;
};

void report(Shared& shared, const std::string& problem) {
    std::snprintf(shared.problem, sizeof(shared.problem), "%s", problem.c_str());
}

// Runs on until something is wrong.
void run_in_child(const BentRuns& runs, Shared& shared) {
    Child child(runs);
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

int run_child(const BentRuns& runs, Shared& shared) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            run_in_child(runs, shared);
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

void expect_orderly_ends(const std::string& type, BentRuns runs) {
    runs.conversion.type = type;
    if (kSanitized) {  // each run takes ten times as long
        runs.count = (runs.count + 2) / 3;
        runs.make = [make = std::move(runs.make)](std::size_t index) { return make(3 * index); };
    }
    Shared& shared = fresh_shared();
    for (int reports = 0; shared.done < runs.count; ++shared.done) {
        shared.problem[0] = '\0';
        const int status = run_child(runs, shared);
        std::string problem = shared.problem;
        if (WIFSIGNALED(status))
            problem =
                WTERMSIG(status) == SIGALRM ? "hangs" : "ends by signal " + std::to_string(WTERMSIG(status));
        else if (WEXITSTATUS(status) != 0)
            problem = "ends by a sanitizer, status " + std::to_string(WEXITSTATUS(status));
        else if (problem.empty())
            break;
        ADD_FAILURE() << type << ", " << runs.make(shared.done).what << ": " << problem;
        ASSERT_LT(++reports, 6) << "and maybe more";
    }
    EXPECT_GE(shared.done, runs.count);
}

}  // namespace robustness
