#include "io/retry.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <sys/types.h>
#include <type_traits>

namespace {

TEST(RetryInterrupted, RepeatsInterruptedCallsAlone) {
    const struct {
        const char* situation;
        int interruptions;
        // What the call gives then, and leaves in errno.
        int64_t result;
        int error;
    } rows[] = {
        {"nothing interrupts", 0, 42, 0},
        {"interrupted", 3, 42, 0},
        {"interrupted, then a count of 0", 1, 0, 0},
        {"another error", 0, -1, EIO},
        {"interrupted, then another error", 2, -1, ENOSPC},
        {"success with a stale code of an interruption", 0, 7, EINTR},
        {"a result below -1", 0, -2, EINTR},
        {"interrupted as often as it may be", 1000, 42, 0},
        {"a count beyond 31 bits", 0, int64_t{1} << 33, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        int calls = 0;
        EXPECT_EQ(retry_interrupted([&] {
                      const bool interrupted = ++calls <= row.interruptions;
                      errno = interrupted ? EINTR : row.error;
                      return interrupted ? int64_t{-1} : row.result;
                  }),
                  row.result);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(calls, row.interruptions + 1);
    }
}

TEST(RetryInterrupted, GivesUpAfterAThousandInterruptions) {
    int calls = 0;
    EXPECT_EQ(retry_interrupted([&] {
                  errno = EINTR;
                  return ++calls <= 1000000 ? -1 : 42;
              }),
              -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(calls, 1001);
}

TEST(RetryInterrupted, KeepsTheTypeOfTheResult) {
    static_assert(std::is_same_v<decltype(retry_interrupted([] { return ssize_t{1}; })), ssize_t>);
    static_assert(std::is_same_v<decltype(retry_interrupted([] { return 1; })), int>);
}

}  // namespace
