#include "common/common_define.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
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

TEST(Crc32, StartsFromTheValueThatInitPointsTo) {
    const uint32_t zero = 0;
    EXPECT_EQ(boot_crc(kCheckDigits, &zero), boot_crc(kCheckDigits));
    const uint32_t init = 0x12345678;
    Bytes data = patterned(40, 1);
    const uint32_t crc = boot_crc(data, &init);
    // A start value does the same as its bytes added to the first four of the data.
    const Bytes start = {0x12, 0x34, 0x56, 0x78};
    for (std::size_t i = 0; i < start.size(); ++i)
        data[i] = static_cast<uint8_t>(data[i] ^ start[i]);
    EXPECT_EQ(crc, test_support::crc32_boot(data));
    EXPECT_EQ(boot_crc(start, &init), 0U);
    EXPECT_EQ(crc32(nullptr, 0, &init), 0x12345678U);
}

TEST(Crc32, GoesOnWhereAnotherCallStopped) {
    const Bytes data = patterned(777, 2);
    for (const uint32_t cut : {0U, 1U, 4U, 256U, 776U, 777U}) {
        const uint32_t first = crc32(data.data(), cut, nullptr);
        EXPECT_EQ(crc32(data.data() + cut, size_of(data) - cut, &first), test_support::crc32_boot(data))
            << "cut at " << cut;
    }
}

TEST(Crc32, EqualsTheBitByBitDivisionForManyLengths) {
    EXPECT_EQ(boot_crc(kCheckDigits), 0x889A9615U);
    EXPECT_EQ(crc32(nullptr, 0, nullptr), 0U);
    for (uint32_t length = 1; length <= 300; ++length) {
        const Bytes data = patterned(length, length);
        ASSERT_EQ(boot_crc(data), test_support::crc32_boot(data)) << length;
    }
}

TEST(Crc32Table, HoldsTheRemaindersOfTheBootContainerGenerator) {
    EXPECT_EQ(gCrc32Table[1], 0x04C10DB7U);  // not the usual 0x04C11DB7
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        ASSERT_EQ(gCrc32Table[i], test_support::crc32_boot(&byte, 1)) << i;
    }
}

// ---- crc32_le ----

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
    EXPECT_EQ(crc32_le(kCheckDigits.data(), size_of(kCheckDigits), 0), 0xCBF43926U);
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

// ---- tables that are filled ----

// The 256 entries that `fill` writes, and no others.
template <typename Entry, typename Fill>
std::vector<Entry> filled_table(Fill fill) {
    constexpr auto guard = static_cast<Entry>(0xA5A5A5A5U);
    std::vector<Entry> table(258, guard);
    fill(table.data() + 1);
    EXPECT_EQ(table.front(), guard);
    EXPECT_EQ(table.back(), guard);
    return {table.begin() + 1, table.end() - 1};
}

uint32_t msb_first_crc(const std::vector<uint32_t>& table, const Bytes& bytes, uint32_t crc) {
    for (const uint8_t byte : bytes)
        crc = crc << 8 ^ table[crc >> 24 ^ byte];
    return crc;
}

TEST(MakeCrcTable, FillsTheTableOfTheStandardGenerator) {
    const auto table = filled_table<uint32_t>(make_crc_table);
    EXPECT_EQ(table[0], 0U);
    EXPECT_EQ(table[1], 0x04C11DB7U);
    EXPECT_EQ(table[2], 0x09823B6EU);
    EXPECT_EQ(table[255], 0xB1F740B4U);
    // The published check values of the two common CRCs over this table.
    EXPECT_EQ(msb_first_crc(table, kCheckDigits, 0xFFFFFFFFU), 0x0376E6E7U);
    EXPECT_EQ(~msb_first_crc(table, kCheckDigits, 0xFFFFFFFFU), 0xFC891918U);
    for (std::size_t i = 1; i < table.size(); ++i)
        ASSERT_NE(table[i], gCrc32Table[i]) << i;
}

// ---- crc16 and its table ----

std::vector<uint16_t> table_of(uint16_t poly) {
    return filled_table<uint16_t>([poly](uint16_t* table) { BuildCrc16Table(poly, table); });
}

TEST(BuildCrc16Table, HoldsTheRemaindersOfThePolynomial) {
    EXPECT_EQ(table_of(0x8005)[0], 0x0000);
    EXPECT_EQ(table_of(0x8005)[1], 0x8005);
    EXPECT_EQ(table_of(0x8005)[2], 0x800F);
    EXPECT_EQ(table_of(0x8005)[255], 0x0202);
    EXPECT_EQ(table_of(0x1021)[1], 0x1021);
    EXPECT_EQ(table_of(0x1021)[255], 0x1EF0);
}

TEST(BuildCrc16Table, GivesThePublishedCheckValueOfEveryPolynomial) {
    for (const auto& [poly, check_value] :
         {std::pair{0x8005, 0xFEE8}, {0x1021, 0x31C3}, {0x0589, 0x007F}, {0x8BB7, 0xD0DB}}) {
        const std::vector<uint16_t> table = table_of(static_cast<uint16_t>(poly));
        uint16_t crc = 0;
        for (const uint8_t byte : kCheckDigits)
            crc = static_cast<uint16_t>(crc << 8 ^ table[static_cast<std::size_t>(crc >> 8 ^ byte)]);
        EXPECT_EQ(crc, check_value) << poly;
    }
}

TEST(Crc16, GivesTheCheckValue) {
    EXPECT_EQ(crc16(kCheckDigits.data(), size_of(kCheckDigits)), 0xFEE8);
    EXPECT_EQ(crc16(nullptr, 0), 0);
}

TEST(Crc16, OfOneByteIsItsTableEntry) {
    const std::vector<uint16_t> table = table_of(0x8005);
    for (uint32_t i = 0; i < 256; ++i) {
        const auto byte = static_cast<uint8_t>(i);
        ASSERT_EQ(crc16(&byte, 1), table[i]) << i;
    }
}

// ---- crc_ccitt ----

TEST(CrcCcitt, IsOneCalculateStepPerByte) {
    EXPECT_EQ(crc_ccitt(nullptr, 0), 0xFFFF);
    uint16_t crc = 0xFFFF;
    for (uint32_t i = 0; i < size_of(kCheckDigits); ++i) {
        crc = crc_calculate(crc, kCheckDigits[i]);
        EXPECT_EQ(crc_ccitt(kCheckDigits.data(), i + 1), crc);
    }
    EXPECT_EQ(crc, 0x29B1) << "the check value";
}

TEST(CrcCalculate, GoesOnFromAnyValue) {
    EXPECT_EQ(crc_calculate(0x0000, 0x00), 0x0000);
    EXPECT_EQ(crc_calculate(0x0000, 0x01), 0x1021);
    EXPECT_EQ(crc_calculate(0x0100, 0x00), 0x1021);
    EXPECT_EQ(crc_calculate(0x0000, 0xFF), 0x1EF0);
    EXPECT_EQ(crc_calculate(0xFFFF, 0xFF), 0xFF00);
}

}  // namespace
