#include "common/byte_reader.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <utility>

namespace {

constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

const std::array<uint8_t, 10> kBytes = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x10, 0x32};
const ByteReader kReader(kBytes.data(), kBytes.size());

using Range = std::pair<uint64_t, uint64_t>;  // offset and length

TEST(ByteReader, HoldsRangesUpToItsEnd) {
    for (const auto& [offset, length] : {Range{0, 10}, {9, 1}, {3, 0}, {10, 0}})
        EXPECT_TRUE(kReader.holds(offset, length)) << offset << "+" << length;
    for (const auto& [offset, length] : {Range{0, 11}, {9, 2}, {10, 1}, {11, 0}, {kLargest, 0}})
        EXPECT_FALSE(kReader.holds(offset, length)) << offset << "+" << length;
}

TEST(ByteReader, DoesNotWrapWhereOffsetAndLengthExceed64Bits) {
    for (const auto& [offset, length] :
         {Range{1, kLargest}, {5, kLargest - 4}, {kLargest, 1}, {kLargest - 1, 12}})
        EXPECT_FALSE(kReader.holds(offset, length)) << offset << "+" << length;
}

TEST(ByteReader, TakesSizesBeyond32Bits) {
    // holds() is arithmetic alone and looks at no byte.
    const ByteReader large(kBytes.data(), uint64_t{1} << 40);
    EXPECT_TRUE(large.holds((uint64_t{1} << 40) - 1, 1));
    EXPECT_FALSE(large.holds((uint64_t{1} << 40) - 1, 2));
    EXPECT_TRUE(large.holds(uint64_t{1} << 32, uint64_t{1} << 32));
}

template <typename Value>
Value value_at(uint64_t offset) {
    Value value{};
    EXPECT_TRUE(kReader.read(offset, value)) << offset;
    return value;
}

TEST(ByteReader, ReadsLittleEndianValues) {
    EXPECT_EQ(value_at<uint8_t>(9), 0x32);
    EXPECT_EQ(value_at<uint16_t>(0), 0x2301);
    EXPECT_EQ(value_at<uint32_t>(1), 0x89674523U);  // at an odd offset
    EXPECT_EQ(value_at<uint32_t>(6), 0x3210EFCDU);
    EXPECT_EQ(value_at<uint64_t>(2), 0x3210EFCDAB896745ULL);  // up to the last byte
}

TEST(ByteReader, LeavesTheValueUntouchedWhenItDoesNotFit) {
    uint32_t word = 0xA5A5A5A5;
    for (const uint64_t offset : {uint64_t{7}, uint64_t{10}, kLargest, kLargest - 3})
        EXPECT_FALSE(kReader.read(offset, word)) << offset;
    EXPECT_EQ(word, 0xA5A5A5A5U);
}

TEST(ByteReader, CopiesRangesWhole) {
    std::array<uint8_t, 4> out = {0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_TRUE(kReader.read(7, out.data() + 1, 2));
    EXPECT_FALSE(kReader.read(8, out.data(), 3));
    EXPECT_EQ(out, (std::array<uint8_t, 4>{0xEE, 0xEF, 0x10, 0xEE}));
}

TEST(ByteReader, ReadsPackedRecords) {
#pragma pack(push, 1)
    struct Record {
        uint8_t kind;
        uint32_t length;
    };
#pragma pack(pop)
    Record record = value_at<Record>(5);
    EXPECT_EQ(record.kind, 0xAB);
    EXPECT_EQ(uint32_t{record.length}, 0x3210EFCDU);
    EXPECT_FALSE(kReader.read(6, record));
}

TEST(ByteReader, WithoutBytesHoldsNothingButEmptyRanges) {
    const ByteReader empty(nullptr, 0);
    uint8_t byte = 0xA5;
    EXPECT_TRUE(empty.holds(0, 0));
    EXPECT_TRUE(empty.read(0, &byte, 0));
    EXPECT_FALSE(empty.read(0, byte));
    EXPECT_EQ(byte, 0xA5);
}

TEST(LittleEndianAt, ReadsAtAnyAlignment) {
    EXPECT_EQ(little_endian_at<uint16_t>(kBytes.data() + 1), 0x4523);
    EXPECT_EQ(little_endian_at<uint32_t>(kBytes.data() + 3), 0xCDAB8967U);
    EXPECT_EQ(little_endian_at<uint64_t>(kBytes.data() + 1), 0x10EFCDAB89674523ULL);
    EXPECT_EQ(little_endian_at<int8_t>(kBytes.data() + 7), -17);
}

}  // namespace
