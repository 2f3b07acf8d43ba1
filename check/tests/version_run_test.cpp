#include "check_bench.h"

#include <gtest/gtest.h>

namespace {

using namespace check_test;

// The tests are built with the development key.
TEST(Version, SaysWhichKindOfKeyIsBuiltIn) {
    const RunResult result = run_check_program({"--version"});
    EXPECT_EQ(result.exit_status, kSame);
    EXPECT_EQ(result.out, "nandsmith-check 1.0\nRC4 key: development\n");
}

}  // namespace
