#pragma once

#include <sys/types.h>

// A virtual machine may give free memory back to its host, in large pieces; whoever gets such a piece next
// waits for it up to ten times as long as the write takes that it is for. As long as the object lives, a
// process holds half of the available memory in such a way that the other half is free in small pieces, which
// stay.
class FreeMemoryKept {
public:
    // Takes half a minute where the host has to give memory back. std::runtime_error when it cannot be had.
    FreeMemoryKept();
    FreeMemoryKept(const FreeMemoryKept&) = delete;
    FreeMemoryKept& operator=(const FreeMemoryKept&) = delete;
    ~FreeMemoryKept();

private:
    pid_t holder_ = -1;
};
