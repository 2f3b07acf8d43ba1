#pragma once

// Limits and other state of the whole process, changed for as long as the object lives.

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace test_support {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

class SoftLimit {
public:
    SoftLimit(int resource, rlim_t value) : m_resource(resource) {
        if (getrlimit(kind(), &m_before) != 0)
            throw std::runtime_error("getrlimit");
        rlimit changed = m_before;
        changed.rlim_cur = value;
        if (setrlimit(kind(), &changed) != 0)
            throw std::runtime_error("setrlimit");
    }
    ~SoftLimit() { setrlimit(kind(), &m_before); }
    SoftLimit(const SoftLimit&) = delete;
    SoftLimit& operator=(const SoftLimit&) = delete;

private:
    __rlimit_resource kind() const { return static_cast<__rlimit_resource>(m_resource); }

    int m_resource;
    rlimit m_before{};
};

// Allocations beyond `more` bytes on top of what the process has fail.
class MemoryLimit : SoftLimit {
public:
    explicit MemoryLimit(uint64_t more) : SoftLimit(RLIMIT_AS, address_space() + more) {}

private:
    static uint64_t address_space() {
        uint64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    }
};

// An emulator of another processor may take no limit from the program that it runs.
inline bool memory_limit_holds() {
    constexpr std::size_t size = std::size_t{1} << 30;
    const MemoryLimit limit(size / 2);
    void* memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return memory == MAP_FAILED || munmap(memory, size) != 0;
}

// The sanitizer reserves the address space for its shadow memory.
inline const bool kMemoryCanBeLimited = !kSanitized && memory_limit_holds();

// A write beyond `bytes` fails with EFBIG, as on a disk that is full half way through.
class FileSizeLimit : SoftLimit {
public:
    explicit FileSizeLimit(uint64_t bytes)
        : SoftLimit(RLIMIT_FSIZE, bytes), m_handler(std::signal(SIGXFSZ, SIG_IGN)) {}
    ~FileSizeLimit() { std::signal(SIGXFSZ, m_handler); }

private:
    void (*m_handler)(int);
};

// Enters a directory for the time of its life.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::filesystem::path& path) : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(m_before); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    std::filesystem::path m_before;
};

}  // namespace test_support
