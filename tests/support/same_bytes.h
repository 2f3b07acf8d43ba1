#pragma once

// Comparison that fails with a short text instead of megabytes of numbers.

#include "support/bytes.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace test_support {

inline ::testing::AssertionResult same_bytes(const Bytes& found, const Bytes& expected) {
    if (found == expected)
        return ::testing::AssertionSuccess();
    const auto [at, other] = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
    auto result = ::testing::AssertionFailure();
    result << found.size() << " bytes instead of " << expected.size() << ", the first difference at "
           << at - found.begin();
    if (at != found.end() && other != expected.end())
        result << ": " << int{*at} << " instead of " << int{*other};
    return result;
}

}  // namespace test_support
