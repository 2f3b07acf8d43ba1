#include "free_memory.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint64_t left_alone = uint64_t{1} << 30;  // bytes that are not touched
constexpr uint64_t piece = uint64_t{128} << 10;

uint64_t available_bytes() {
    std::ifstream table("/proc/meminfo");
    std::string name;
    uint64_t kib = 0;
    std::string unit;
    while (table >> name >> kib) {
        std::getline(table, unit);
        if (name == "MemAvailable:") {
            return kib << 10;
        }
    }
    return 0;
}

// Touches that many bytes and gives all but one page of each piece back. False when they cannot be had.
bool take_a_page_of_each_piece(uint64_t bytes) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    madvise(memory, bytes, MADV_NOHUGEPAGE);
    auto* const first = static_cast<char*>(memory);
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    for (uint64_t at = 0; at < bytes; at += page) {
        static_cast<volatile char*>(memory)[at] = 1;
    }
    for (uint64_t at = 0; at + piece <= bytes; at += piece) {
        madvise(first + at + page, piece - page, MADV_DONTNEED);
    }
    return true;
}

[[noreturn]] void hold_memory(int ready) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const uint64_t available = available_bytes();
    const bool taken = take_a_page_of_each_piece(available - std::min(available, left_alone));
    if (!taken || write(ready, "", 1) != 1) {
        _exit(1);
    }
    for (;;) {
        pause();
    }
}

}  // namespace

FreeMemoryKept::FreeMemoryKept() {
    int ready[2];
    if (pipe(ready) != 0) {
        throw std::runtime_error("cannot start the holder of memory");
    }
    holder_ = fork();
    if (holder_ == 0) {
        close(ready[0]);
        hold_memory(ready[1]);
    }
    close(ready[1]);
    char byte = 0;
    const bool taken = holder_ > 0 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!taken) {
        throw std::runtime_error("no memory to measure with");
    }
}

FreeMemoryKept::~FreeMemoryKept() {
    kill(holder_, SIGKILL);
    waitpid(holder_, nullptr, 0);
}
