#include "check/chip/unit_corrector.h"

#include "check/base/result.h"
#include "dump_maker.h"
#include "support/bch_judge.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace test_support;

UnitVerdict judged(Bytes& unit) {
    static const UnitCorrector corrector;
    uint8_t* place = unit.data();
    UnitVerdict verdict;
    corrector.judge(&place, 1, &verdict);
    return verdict;
}

Bytes right_unit(uint32_t seed) {
    const Bytes message = patterned(kBchMessageBytes, seed);
    return message + bch_slow_parity(message.data(), 16);
}

void invert(Bytes& unit, std::size_t bit) {
    unit.at(bit / 8) ^= static_cast<uint8_t>(1U << bit % 8);
}

TEST(UnitCorrector, CleanUnitStaysAsItIs) {
    const Bytes right = right_unit(1);
    Bytes unit = right;
    const UnitVerdict verdict = judged(unit);
    EXPECT_TRUE(verdict.correctable);
    EXPECT_FALSE(verdict.erased);
    EXPECT_EQ(verdict.flips(), 0u);
    EXPECT_EQ(unit, right);
}

TEST(UnitCorrector, FlipsAreCountedByDirectionAndPutRight) {
    const Bytes right = right_unit(2);
    Bytes unit = right;
    uint32_t cleared = 0;
    for (std::size_t i = 0; i < 16; ++i) {
        const std::size_t bit = i * 563;
        cleared += right[bit / 8] >> bit % 8 & 1;
        invert(unit, bit);
    }
    const UnitVerdict verdict = judged(unit);
    EXPECT_TRUE(verdict.correctable);
    EXPECT_EQ(verdict.cleared, cleared);
    EXPECT_EQ(verdict.set, 16 - cleared);
    EXPECT_NE(cleared, 8u);  // else the directions may be exchanged
    EXPECT_EQ(unit, right);
}

TEST(UnitCorrector, ErasedUnitWithFlipsIsErased) {
    Bytes unit(kUnit, 0xFF);
    EXPECT_TRUE(judged(unit).erased);
    for (std::size_t bit = 0; bit < 16; ++bit)
        invert(unit, bit * 528);
    const UnitVerdict verdict = judged(unit);
    EXPECT_TRUE(verdict.correctable);
    EXPECT_TRUE(verdict.erased);
    EXPECT_EQ(verdict.cleared, 16u);
    EXPECT_EQ(verdict.set, 0u);
    EXPECT_EQ(unit, Bytes(kUnit, 0xFF));
}

TEST(UnitCorrector, SeventeenFlipsAreLeftAlone) {
    for (const Bytes& right : {right_unit(3), Bytes(kUnit, 0xFF)}) {
        Bytes unit = right;
        for (std::size_t bit = 0; bit < 17; ++bit)
            invert(unit, bit * 401 + 7);
        const Bytes before = unit;
        const UnitVerdict verdict = judged(unit);
        EXPECT_FALSE(verdict.correctable);
        EXPECT_FALSE(verdict.erased);
        EXPECT_EQ(verdict.flips(), 0u);
        EXPECT_EQ(unit, before);
    }
}

TEST(UnitCorrector, UnitsOfAGroupKeepTheirVerdicts) {
    std::vector<Bytes> units;
    std::vector<uint8_t*> places;
    for (uint32_t i = 0; i < UnitCorrector::kGroup; ++i) {
        units.push_back(right_unit(i));
        for (uint32_t bit = 0; bit < i; ++bit)
            invert(units.back(), 1000 * bit + i);
    }
    for (Bytes& unit : units)
        places.push_back(unit.data());
    UnitVerdict verdicts[UnitCorrector::kGroup];
    UnitCorrector().judge(places.data(), UnitCorrector::kGroup, verdicts);
    for (uint32_t i = 0; i < UnitCorrector::kGroup; ++i) {
        EXPECT_EQ(verdicts[i].flips(), i);
        EXPECT_EQ(units[i], right_unit(i));
    }
}

}  // namespace
