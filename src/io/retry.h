#pragma once

#include <cerrno>

/// Repeats a system call that a signal interrupted. An interruption is no failure, but one that comes back
/// this often without any progress is not a signal: the call is then given up with EINTR, so that nothing
/// hangs.
template <typename Call>
auto retry_interrupted(Call call) {
    constexpr int kMostInterruptions = 1000;
    auto result = call();
    for (int i = 0; result == -1 && errno == EINTR && i < kMostInterruptions; ++i)
        result = call();
    return result;
}
