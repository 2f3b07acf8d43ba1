#include "free_memory.h"

#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool touch_pages(uint64_t bytes) {
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    for (uint64_t at = 0; at < bytes; at += page) {
        static_cast<volatile char*>(memory)[at] = 1;
    }
    return true;
}

}  // namespace

void make_memory_ready(uint64_t bytes) {
    // In a child: the peak of this process counts for what it starts.
    const pid_t child = fork();
    if (child == 0) {
        _exit(touch_pages(bytes) ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("no memory to measure with");
    }
}
