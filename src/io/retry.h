#pragma once

#include <cerrno>

/// Repeats a system call that a signal interrupted. An interruption is not a failure. One that comes back
/// 1000 times without any progress does not come from a signal: the call then fails with EINTR, so that
/// nothing hangs.
template <typename Call>
auto retry_interrupted(Call call) {
    constexpr int kMostInterruptions = 1000;
    auto result = call();
    for (int i = 0; result == -1 && errno == EINTR && i < kMostInterruptions; ++i)
        result = call();
    return result;
}
