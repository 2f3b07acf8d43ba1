#include "io/retry.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/types.h>
#include <type_traits>

namespace {

// A system call that is interrupted a number of times and then gives `result` with `error` in errno.
class FlakyCall {
public:
    FlakyCall(int interruptions, ssize_t result, int error = 0)
        : m_interruptions(interruptions), m_result(result), m_error(error) {}

    ssize_t operator()() {
        ++calls;
        if (calls <= m_interruptions) {
            errno = EINTR;
            return -1;
        }
        errno = m_error;
        return m_result;
    }

    int calls = 0;

private:
    int m_interruptions;
    ssize_t m_result;
    int m_error;
};

ssize_t result_of(FlakyCall& call) {
    return retry_interrupted([&call] { return call(); });
}

TEST(RetryInterrupted, CallsOnceWhenNothingInterrupts) {
    FlakyCall call(0, 42);
    EXPECT_EQ(result_of(call), 42);
    EXPECT_EQ(call.calls, 1);
}

TEST(RetryInterrupted, RepeatsAnInterruptedCall) {
    FlakyCall call(3, 42);
    EXPECT_EQ(result_of(call), 42);
    EXPECT_EQ(call.calls, 4);
}

TEST(RetryInterrupted, PassesOnAShortCount) {
    FlakyCall call(1, 0);
    EXPECT_EQ(result_of(call), 0);
    EXPECT_EQ(call.calls, 2);
}

TEST(RetryInterrupted, PassesOnAnyOtherErrorAtOnce) {
    FlakyCall call(0, -1, EIO);
    EXPECT_EQ(result_of(call), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(call.calls, 1);
}

TEST(RetryInterrupted, PassesOnAnErrorThatFollowsAnInterruption) {
    FlakyCall call(2, -1, ENOSPC);
    EXPECT_EQ(result_of(call), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(call.calls, 3);
}

TEST(RetryInterrupted, IgnoresAStaleInterruptionCodeOfASuccess) {
    FlakyCall call(0, 7, EINTR);
    EXPECT_EQ(result_of(call), 7);
    EXPECT_EQ(call.calls, 1);
}

TEST(RetryInterrupted, TakesOnlyMinusOneForAFailure) {
    FlakyCall call(0, -2, EINTR);
    EXPECT_EQ(result_of(call), -2);
    EXPECT_EQ(call.calls, 1);
}

TEST(RetryInterrupted, GoesOnAfterManyInterruptions) {
    FlakyCall call(1000, 42);
    EXPECT_EQ(result_of(call), 42);
    EXPECT_EQ(call.calls, 1001);
}

TEST(RetryInterrupted, GivesUpACallThatIsInterruptedWithoutEnd) {
    FlakyCall call(1000000, 42);
    EXPECT_EQ(result_of(call), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(call.calls, 1001);
}

TEST(RetryInterrupted, KeepsTheTypeOfTheResult) {
    static_assert(std::is_same_v<decltype(retry_interrupted([] { return ssize_t{1}; })), ssize_t>);
    static_assert(std::is_same_v<decltype(retry_interrupted([] { return 1; })), int>);
    // A count beyond 31 bits arrives whole.
    FlakyCall call(0, ssize_t{1} << 33);
    EXPECT_EQ(result_of(call), ssize_t{1} << 33);
}

}  // namespace
