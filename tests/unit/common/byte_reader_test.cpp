#include "common/byte_reader.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

namespace {

constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

const std::array<uint8_t, 10> kBytes = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x10, 0x32};

ByteReader reader() {
    return {kBytes.data(), kBytes.size()};
}

TEST(ByteReader, HoldsRangesUpToItsEnd) {
    EXPECT_TRUE(reader().holds(0, 10));
    EXPECT_TRUE(reader().holds(9, 1));
    EXPECT_TRUE(reader().holds(3, 0));
    EXPECT_FALSE(reader().holds(0, 11));
    EXPECT_FALSE(reader().holds(9, 2));
    EXPECT_FALSE(reader().holds(10, 1));
}

TEST(ByteReader, HoldsNothingAtItsEndButNotAfterIt) {
    EXPECT_TRUE(reader().holds(10, 0));
    EXPECT_FALSE(reader().holds(11, 0));
    EXPECT_FALSE(reader().holds(kLargest, 0));
}

TEST(ByteReader, DoesNotWrapWhereOffsetAndLengthExceed64Bits) {
    EXPECT_FALSE(reader().holds(1, kLargest));
    EXPECT_FALSE(reader().holds(5, kLargest - 4));
    EXPECT_FALSE(reader().holds(kLargest, 1));
    EXPECT_FALSE(reader().holds(kLargest - 1, 12));
}

TEST(ByteReader, ReadsLittleEndianValues) {
    uint8_t byte = 0;
    uint16_t half = 0;
    uint32_t word = 0;
    uint64_t wide = 0;
    ASSERT_TRUE(reader().read(9, byte));
    ASSERT_TRUE(reader().read(0, half));
    ASSERT_TRUE(reader().read(1, word));  // at an odd offset
    ASSERT_TRUE(reader().read(2, wide));  // up to the last byte
    EXPECT_EQ(byte, 0x32);
    EXPECT_EQ(half, 0x2301);
    EXPECT_EQ(word, 0x89674523U);
    EXPECT_EQ(wide, 0x3210EFCDAB896745ULL);
}

TEST(ByteReader, LeavesTheValueUntouchedWhenItDoesNotFit) {
    uint32_t word = 0xA5A5A5A5;
    EXPECT_FALSE(reader().read(7, word));
    EXPECT_FALSE(reader().read(10, word));
    EXPECT_FALSE(reader().read(kLargest, word));
    EXPECT_FALSE(reader().read(kLargest - 3, word));
    EXPECT_EQ(word, 0xA5A5A5A5U);
    EXPECT_TRUE(reader().read(6, word));
    EXPECT_EQ(word, 0x3210EFCDU);
}

TEST(ByteReader, CopiesRangesWhole) {
    std::array<uint8_t, 4> out = {0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_TRUE(reader().read(7, out.data() + 1, 2));
    EXPECT_EQ(out, (std::array<uint8_t, 4>{0xEE, 0xEF, 0x10, 0xEE}));
    EXPECT_FALSE(reader().read(8, out.data(), 3));
    EXPECT_EQ(out, (std::array<uint8_t, 4>{0xEE, 0xEF, 0x10, 0xEE}));
}

TEST(ByteReader, ReadsPackedRecords) {
#pragma pack(push, 1)
    struct Record {
        uint8_t kind;
        uint32_t length;
    };
#pragma pack(pop)
    Record record{};
    ASSERT_TRUE(reader().read(5, record));
    EXPECT_EQ(record.kind, 0xAB);
    const uint32_t length = record.length;
    EXPECT_EQ(length, 0x3210EFCDU);
    EXPECT_FALSE(reader().read(6, record));
}

TEST(ByteReader, WithoutBytesHoldsNothingButEmptyRanges) {
    const ByteReader empty(nullptr, 0);
    uint8_t byte = 0xA5;
    EXPECT_TRUE(empty.holds(0, 0));
    EXPECT_TRUE(empty.read(0, &byte, 0));
    EXPECT_FALSE(empty.read(0, byte));
    EXPECT_EQ(byte, 0xA5);
}

TEST(ByteReader, TakesSizesBeyond32Bits) {
    // holds() is arithmetic alone and looks at no byte.
    const ByteReader large(kBytes.data(), uint64_t{1} << 40);
    EXPECT_TRUE(large.holds((uint64_t{1} << 40) - 1, 1));
    EXPECT_FALSE(large.holds((uint64_t{1} << 40) - 1, 2));
    EXPECT_TRUE(large.holds(uint64_t{1} << 32, uint64_t{1} << 32));
}

TEST(LittleEndianAt, ReadsAtAnyAlignment) {
    EXPECT_EQ(little_endian_at<uint16_t>(kBytes.data() + 1), 0x4523);
    EXPECT_EQ(little_endian_at<uint32_t>(kBytes.data() + 3), 0xCDAB8967U);
    EXPECT_EQ(little_endian_at<uint64_t>(kBytes.data() + 1), 0x10EFCDAB89674523ULL);
    EXPECT_EQ(little_endian_at<int8_t>(kBytes.data() + 7), -17);
}

}  // namespace
