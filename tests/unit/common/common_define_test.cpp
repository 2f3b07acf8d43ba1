#include "common/common_define.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

using test_support::Bytes;
using test_support::patterned;
using test_support::to_bytes;

const Bytes kCheckDigits = to_bytes("123456789");

uint32_t size_of(const Bytes& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

uint32_t boot_crc(const Bytes& bytes, const uint32_t* init = nullptr) {
    return crc32(bytes.data(), size_of(bytes), init);
}

// ---- crc32 ----

TEST(Crc32, GivesTheCheckValueOfTheBootContainer) {
    EXPECT_EQ(boot_crc(kCheckDigits), 0x889A9615U);
}

TEST(Crc32, StartsFromZeroWithoutInit) {
    const uint32_t zero = 0;
    EXPECT_EQ(boot_crc(kCheckDigits, &zero), boot_crc(kCheckDigits));
    EXPECT_EQ(boot_crc({0, 0, 0}), 0U);
}

TEST(Crc32, StartsFromTheValueThatInitPointsTo) {
    const uint32_t init = 0x12345678;
    Bytes data = patterned(40, 1);
    const uint32_t crc = boot_crc(data, &init);
    // A start value does the same as its bytes added to the first four of the data.
    const Bytes start = {0x12, 0x34, 0x56, 0x78};
    for (std::size_t i = 0; i < start.size(); ++i)
        data[i] = static_cast<uint8_t>(data[i] ^ start[i]);
    EXPECT_EQ(crc, test_support::crc32_boot(data));
    EXPECT_EQ(boot_crc(start, &init), 0U);
}

TEST(Crc32, LeavesTheInitWordUnchanged) {
    uint32_t init = 0x12345678;
    EXPECT_EQ(boot_crc(kCheckDigits, &init), boot_crc(kCheckDigits, &init));
    EXPECT_EQ(init, 0x12345678U);
}

TEST(Crc32, GoesOnWhereAnotherCallStopped) {
    const Bytes data = patterned(777, 2);
    for (const std::size_t cut : {0U, 1U, 4U, 256U, 776U, 777U}) {
        const uint32_t first = crc32(data.data(), static_cast<uint32_t>(cut), nullptr);
        EXPECT_EQ(crc32(data.data() + cut, size_of(data) - static_cast<uint32_t>(cut), &first),
                  test_support::crc32_boot(data))
            << "cut at " << cut;
    }
}

TEST(Crc32, OfNothingIsTheStartValue) {
    const uint32_t init = 0x12345678;
    EXPECT_EQ(crc32(nullptr, 0, nullptr), 0U);
    EXPECT_EQ(crc32(nullptr, 0, &init), 0x12345678U);
}

TEST(Crc32, EqualsTheBitByBitDivisionForManyLengths) {
    for (uint32_t length = 1; length <= 300; ++length) {
        const Bytes data = patterned(length, length);
        ASSERT_EQ(boot_crc(data), test_support::crc32_boot(data)) << length;
    }
}

TEST(Crc32Table, HoldsTheRemaindersOfTheBootContainerGenerator) {
    EXPECT_EQ(gCrc32Table[0], 0U);
    EXPECT_EQ(gCrc32Table[1], 0x04C10DB7U);  // not the usual 0x04C11DB7
    EXPECT_EQ(gCrc32Table[2], 0x09821B6EU);
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        ASSERT_EQ(gCrc32Table[i], test_support::crc32_boot(&byte, 1)) << i;
    }
}

// ---- crc32_le ----

TEST(Crc32Le, GivesTheCommonCheckValue) {
    EXPECT_EQ(crc32_le(kCheckDigits.data(), size_of(kCheckDigits), 0), 0xCBF43926U);
}

TEST(Crc32Le, OfNothingReturnsTheSeedItself) {
    for (const uint32_t seed : {0U, 1U, 0x12345678U, 0xFFFFFFFFU})
        EXPECT_EQ(crc32_le(nullptr, 0, seed), seed);
}

TEST(Crc32Le, RunsOverSeveralBuffersThroughTheSeed) {
    const Bytes data = patterned(513, 3);
    for (const uint32_t cut : {0U, 1U, 92U, 512U, 513U}) {
        const uint32_t first = crc32_le(data.data(), cut, 0);
        EXPECT_EQ(crc32_le(data.data() + cut, size_of(data) - cut, first), test_support::crc32_standard(data))
            << "cut at " << cut;
    }
}

TEST(Crc32Le, EqualsTheBitByBitDivisionForManyLengths) {
    for (uint32_t length = 1; length <= 300; ++length) {
        const Bytes data = patterned(length, length);
        ASSERT_EQ(crc32_le(data.data(), length, 0), test_support::crc32_standard(data)) << length;
    }
}

TEST(Crc32LeTable, IsTheOrdinaryReflectedTable) {
    EXPECT_EQ(crc32table_le[0], 0U);
    EXPECT_EQ(crc32table_le[1], 0x77073096U);
    EXPECT_EQ(crc32table_le[128], 0xEDB88320U);
    EXPECT_EQ(crc32table_le[255], 0x2D02EF8DU);
    for (uint32_t i = 0; i < 256; ++i) {
        // A zero byte from the seed whose complement is i looks up entry i and nothing else.
        const uint8_t zero = 0;
        ASSERT_EQ(crc32_le(&zero, 1, ~i), ~crc32table_le[i]) << i;
    }
}

// ---- make_crc_table ----

uint32_t msb_first_crc(const std::array<uint32_t, 256>& table, const Bytes& bytes, uint32_t crc) {
    for (const uint8_t byte : bytes)
        crc = crc << 8 ^ table[crc >> 24 ^ byte];
    return crc;
}

TEST(MakeCrcTable, FillsTheTableOfTheStandardGenerator) {
    std::array<uint32_t, 256> table{};
    make_crc_table(table.data());
    EXPECT_EQ(table[0], 0U);
    EXPECT_EQ(table[1], 0x04C11DB7U);
    EXPECT_EQ(table[2], 0x09823B6EU);
    EXPECT_EQ(table[255], 0xB1F740B4U);
    // The published check values of the two common CRCs over this table.
    EXPECT_EQ(msb_first_crc(table, kCheckDigits, 0xFFFFFFFFU), 0x0376E6E7U);
    EXPECT_EQ(~msb_first_crc(table, kCheckDigits, 0xFFFFFFFFU), 0xFC891918U);
}

TEST(MakeCrcTable, WritesExactly256Entries) {
    std::vector<uint32_t> table(258, 0xA5A5A5A5U);
    make_crc_table(table.data() + 1);
    EXPECT_EQ(table.front(), 0xA5A5A5A5U);
    EXPECT_EQ(table[256], 0xB1F740B4U);
    EXPECT_EQ(table.back(), 0xA5A5A5A5U);
}

TEST(MakeCrcTable, DiffersFromTheTableOfTheBootContainer) {
    std::array<uint32_t, 256> table{};
    make_crc_table(table.data());
    for (std::size_t i = 1; i < table.size(); ++i)
        ASSERT_NE(table[i], gCrc32Table[i]) << i;
}

// ---- crc16 and its table ----

uint16_t check_value(uint16_t poly) {
    std::array<uint16_t, 256> table{};
    BuildCrc16Table(poly, table.data());
    uint16_t crc = 0;
    for (const uint8_t byte : kCheckDigits)
        crc = static_cast<uint16_t>(crc << 8 ^ table[static_cast<std::size_t>(crc >> 8 ^ byte)]);
    return crc;
}

TEST(BuildCrc16Table, HoldsTheRemaindersOfThePolynomial) {
    std::array<uint16_t, 256> table{};
    BuildCrc16Table(0x8005, table.data());
    EXPECT_EQ(table[0], 0x0000);
    EXPECT_EQ(table[1], 0x8005);
    EXPECT_EQ(table[2], 0x800F);
    EXPECT_EQ(table[255], 0x0202);
    BuildCrc16Table(0x1021, table.data());
    EXPECT_EQ(table[1], 0x1021);
    EXPECT_EQ(table[255], 0x1EF0);
}

TEST(BuildCrc16Table, GivesThePublishedCheckValueOfEveryPolynomial) {
    EXPECT_EQ(check_value(0x8005), 0xFEE8);
    EXPECT_EQ(check_value(0x1021), 0x31C3);
    EXPECT_EQ(check_value(0x0589), 0x007F);
    EXPECT_EQ(check_value(0x8BB7), 0xD0DB);
}

TEST(BuildCrc16Table, WritesExactly256Entries) {
    std::vector<uint16_t> table(258, 0xA5A5);
    BuildCrc16Table(0x1021, table.data() + 1);
    EXPECT_EQ(table.front(), 0xA5A5);
    EXPECT_EQ(table[256], 0x1EF0);
    EXPECT_EQ(table.back(), 0xA5A5);
}

TEST(Crc16, GivesTheCheckValue) {
    EXPECT_EQ(crc16(kCheckDigits.data(), size_of(kCheckDigits)), 0xFEE8);
}

TEST(Crc16, OfNothingIsZero) {
    EXPECT_EQ(crc16(nullptr, 0), 0);
}

TEST(Crc16, OfOneByteIsItsTableEntry) {
    std::array<uint16_t, 256> table{};
    BuildCrc16Table(0x8005, table.data());
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        ASSERT_EQ(crc16(&byte, 1), table[i]) << i;
    }
}

// ---- crc_ccitt ----

TEST(CrcCcitt, GivesTheCheckValue) {
    EXPECT_EQ(crc_ccitt(kCheckDigits.data(), size_of(kCheckDigits)), 0x29B1);
}

TEST(CrcCcitt, OfNothingIsAllOnes) {
    EXPECT_EQ(crc_ccitt(nullptr, 0), 0xFFFF);
}

TEST(CrcCcitt, IsOneCalculateStepPerByte) {
    uint16_t crc = 0xFFFF;
    for (std::size_t i = 0; i < kCheckDigits.size(); ++i) {
        crc = crc_calculate(crc, kCheckDigits[i]);
        EXPECT_EQ(crc, crc_ccitt(kCheckDigits.data(), static_cast<uint32_t>(i + 1)));
    }
    EXPECT_EQ(crc, 0x29B1);
}

TEST(CrcCalculate, GoesOnFromAnyValue) {
    EXPECT_EQ(crc_calculate(0x0000, 0x00), 0x0000);
    EXPECT_EQ(crc_calculate(0x0000, 0x01), 0x1021);
    EXPECT_EQ(crc_calculate(0x0100, 0x00), 0x1021);
    EXPECT_EQ(crc_calculate(0x0000, 0xFF), 0x1EF0);
    EXPECT_EQ(crc_calculate(0xFFFF, 0xFF), 0xFF00);
    uint16_t crc = 0;
    for (const uint8_t byte : kCheckDigits)
        crc = crc_calculate(crc, byte);
    EXPECT_EQ(crc, 0x31C3);
}

}  // namespace
