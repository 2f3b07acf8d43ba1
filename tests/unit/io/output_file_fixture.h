#pragma once

// An output file in a directory of its own.

#include "io/output_file.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace storage_test {

using namespace test_support;

// No more than this is gathered before it is written.
inline constexpr uint64_t kLargestBlock = 512 * 1024;

// To open a file without emptying it.
inline constexpr auto kInOut = std::ios_base::in | std::ios_base::out | std::ios_base::binary;

inline void put(OutputFile& file, const Bytes& bytes) {
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

class OutputFileTest : public ::testing::Test {
protected:
    std::string path(const std::string& name = "out.img") const { return (m_directory / name).string(); }

    void expect_open_fails_with(OutputFile& file, const std::string& target, int error) {
        errno = 0;
        file.open(target);
        EXPECT_EQ(errno, error) << target;
        EXPECT_FALSE(file.is_open()) << target;
        EXPECT_TRUE(file.fail()) << target;
    }

    TemporaryDirectory m_directory{};
    WriteFailure m_failure{};
    OutputFile m_file{&m_failure};
};

}  // namespace storage_test
