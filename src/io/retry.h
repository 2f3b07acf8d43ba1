#pragma once

#include <cerrno>

/// Repeats a system call that a signal interrupted. After 1000 interruptions in a row the call fails with
/// EINTR, so that the program cannot hang.
template <typename Call>
auto retry_interrupted(Call call) {
    constexpr int kLargestRetryCount = 1000;
    auto result = call();
    for (int i = 0; result == -1 && errno == EINTR && i < kLargestRetryCount; ++i)
        result = call();
    return result;
}
