#pragma once

// Limits and other state of the whole process, changed for as long as the object lives.

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>

namespace storage_test {

// With a sanitizer the address space is reserved by its shadow memory and cannot be limited.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool memory_can_be_limited = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool memory_can_be_limited = false;
#else
inline constexpr bool memory_can_be_limited = true;
#endif
#else
inline constexpr bool memory_can_be_limited = true;
#endif

// A lowered soft limit, put back at the end.
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
class MemoryLimit {
public:
    explicit MemoryLimit(uint64_t more) : m_limit(RLIMIT_AS, address_space() + more) {}

private:
    static uint64_t address_space() {
        uint64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    }

    SoftLimit m_limit;
};

// A write beyond `bytes` fails with EFBIG, as on a disk that is full half way through.
class FileSizeLimit {
public:
    explicit FileSizeLimit(uint64_t bytes)
        : m_handler(std::signal(SIGXFSZ, SIG_IGN)), m_limit(RLIMIT_FSIZE, bytes) {}
    ~FileSizeLimit() { std::signal(SIGXFSZ, m_handler); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*m_handler)(int);
    SoftLimit m_limit;
};

}  // namespace storage_test
