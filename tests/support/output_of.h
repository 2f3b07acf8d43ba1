#pragma once

// What a piece of code prints on standard output.

#include <gtest/gtest.h>
#include <string>

namespace test_support {

template <typename Action>
std::string output_of(Action action) {
    ::testing::internal::CaptureStdout();
    action();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace test_support
