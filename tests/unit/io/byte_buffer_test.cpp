#include "io/byte_buffer.h"

#include "support/process_limits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace {

// More than any machine has. Volatile, so that the compiler does not refuse it on sight.
const volatile uint64_t kBeyondMemory = uint64_t{1} << 62;
const volatile uint64_t kLargestSize = UINT64_MAX;

bool all_bytes_are(const ByteBuffer& buffer, uint8_t value) {
    return std::all_of(buffer.data(), buffer.data() + buffer.size(),
                       [value](uint8_t byte) { return byte == value; });
}

ByteBuffer filled(uint64_t size, uint8_t value) {
    ByteBuffer buffer(size);
    std::fill_n(buffer.data(), size, value);
    return buffer;
}

TEST(ByteBuffer, HoldsNothingAtFirst) {
    const ByteBuffer buffer;
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_FALSE(buffer);
}

TEST(ByteBuffer, StartsWithZeros) {
    for (const uint64_t size : {0U, 5000U}) {
        const ByteBuffer buffer(size);
        ASSERT_TRUE(buffer);
        EXPECT_EQ(buffer.size(), size);
        EXPECT_TRUE(all_bytes_are(buffer, 0));
    }
}

TEST(ByteBuffer, ResetDropsTheContent) {
    ByteBuffer buffer = filled(100, 0xEE);
    ASSERT_TRUE(buffer.reset(100));
    EXPECT_TRUE(all_bytes_are(buffer, 0));
    ASSERT_TRUE(buffer.reset(10));
    EXPECT_EQ(buffer.size(), 10U);
}

TEST(ByteBuffer, MovesItsBytes) {
    ByteBuffer first = filled(64, 0x5A);
    const uint8_t* bytes = first.data();
    const ByteBuffer second(std::move(first));
    EXPECT_EQ(second.data(), bytes);
    EXPECT_EQ(second.size(), 64U);
    EXPECT_TRUE(all_bytes_are(second, 0x5A));
}

TEST(ByteBuffer, WithoutMemoryIsEmptyInsteadOfThrowing) {
    if (test_support::kSanitized)
        GTEST_SKIP() << "AddressSanitizer ends the program at such an allocation";
    for (const uint64_t size : {uint64_t{kBeyondMemory}, uint64_t{kLargestSize}}) {
        ByteBuffer buffer(size);
        EXPECT_FALSE(buffer) << size;
        EXPECT_EQ(buffer.data(), nullptr);
        EXPECT_TRUE(buffer.reset(3));
        EXPECT_EQ(buffer.size(), 3U);
        EXPECT_FALSE(buffer.reset(size));
        EXPECT_FALSE(buffer);
        EXPECT_EQ(buffer.size(), 0U);
    }
}

}  // namespace
