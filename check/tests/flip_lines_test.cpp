#include "check/report/flip_lines.h"

#include <gtest/gtest.h>

namespace {

UnitCounts counts_of(std::initializer_list<std::pair<std::size_t, uint64_t>> flips) {
    UnitCounts counts;
    for (const auto& [n, units] : flips) {
        counts.flips.at(n) = units;
        counts.units += units;
    }
    return counts;
}

TEST(FlipLines, PutEqualNumbersOfFlipsTogether) {
    EXPECT_EQ(flips_per_unit(counts_of({{0, 16301}, {1, 80}, {2, 3}})),
              "flips per unit   0: 16301   1: 80   2: 3   3 to 16: 0   beyond: 0");
    EXPECT_EQ(flips_per_unit(counts_of({{0, 7}, {2, 1}, {15, 2}})),
              "flips per unit   0: 7   1: 0   2: 1   3 to 14: 0   15: 2   16: 0   beyond: 0");
}

TEST(FlipLines, OfNoUnits) {
    EXPECT_EQ(flips_per_unit({}), "flips per unit   0 to 16: 0   beyond: 0");
    EXPECT_EQ(directions({}), "1 to 0: 0   0 to 1: 0");
    EXPECT_FALSE(bit_error_rate({}));
}

TEST(FlipLines, OfUnitsBeyondAlone) {
    UnitCounts counts;
    counts.units = counts.beyond = 3;
    EXPECT_EQ(flips_per_unit(counts), "flips per unit   0 to 16: 0   beyond: 3");
    EXPECT_EQ(directions(counts), "1 to 0: 0   0 to 1: 0");
}

TEST(FlipLines, RateIsOfWrittenUnits) {
    UnitCounts counts = counts_of({{0, 198}, {1, 2}});
    counts.cleared = 2;
    EXPECT_EQ(directions(counts), "1 to 0: 2   0 to 1: 0   bit error rate 1.2e-06");
    counts.erased = counts.erased_right = 100;
    EXPECT_EQ(directions(counts), "1 to 0: 2   0 to 1: 0   bit error rate 2.4e-06");
    counts.erased_flips = 1;
    EXPECT_EQ(directions(counts), "1 to 0: 2   0 to 1: 0   bit error rate 1.2e-06");
    EXPECT_DOUBLE_EQ(bit_error_rate(counts).value_or(0), 1.0 / (100 * 8448));
}

TEST(FlipLines, RateOfCleanUnitsIsZero) {
    EXPECT_EQ(directions(counts_of({{0, 5}})), "1 to 0: 0   0 to 1: 0   bit error rate 0");
}

}  // namespace
