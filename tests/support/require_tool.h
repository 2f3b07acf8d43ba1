#pragma once

#include "run_program.h"

#include <gtest/gtest.h>

// Skips a test whose tool is not installed.
#define REQUIRE_TOOL(name)                                                                                   \
    if (test_support::find_program(name).empty()) {                                                          \
        GTEST_SKIP() << "missing tool: " << (name);                                                          \
    }                                                                                                        \
    static_assert(true)
