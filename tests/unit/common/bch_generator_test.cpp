#include "bch_encoding.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

// ---- field ----

// Bit i is the coefficient of x^i.
constexpr uint32_t kFirstDegree = 2;
constexpr uint32_t kPolynomials[] = {0x7,     0xB,     0x13,    0x25,    0x43,    0x83,   0x171,
                                     0x211,   0x409,   0x805,   0x1099,  0x25AF,  0x41D5, 0x8003,
                                     0x1002D, 0x20009, 0x40081, 0x80063, 0x100009};

// generate_gf for one degree, with tables of its own.
class BchField : public BchTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    BchField() : m_order((1U << GetParam()) - 1), m_powers(m_order + 1, -7), m_logarithms(m_order + 1, -7) {
        mm = static_cast<uint8_t>(GetParam());
        alpha_to = m_powers.data();
        index_of = m_logarithms.data();
        generate_gf();
        alpha_to = index_of = nullptr;
    }

    const uint32_t m_polynomial = kPolynomials[GetParam() - kFirstDegree];
    const uint32_t m_order;
    std::vector<int32_t> m_powers;
    std::vector<int32_t> m_logarithms;
};

TEST_P(BchField, UsesThePolynomialOfItsDegree) {
    for (uint32_t i = 0; i < std::size(p); ++i)
        EXPECT_EQ(p[i], m_polynomial >> i & 1) << "x^" << i;
}

TEST_P(BchField, MultipliesEachPowerByXToGetTheNext) {
    uint32_t element = 1;
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < m_order; ++i) {
        wrong += m_powers[i] == static_cast<int32_t>(element) ? 0U : 1U;
        element <<= 1;
        if (element > m_order)
            element ^= m_polynomial;
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(element, 1U);  // the order of x divides 2^degree - 1
}

// So the powers of x are all elements but zero.
TEST_P(BchField, HasLogarithmsThatInvertThePowers) {
    EXPECT_EQ(m_logarithms[0], -1);
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < m_order; ++i)
        wrong += m_logarithms.at(static_cast<uint32_t>(m_powers[i])) == static_cast<int32_t>(i) ? 0U : 1U;
    EXPECT_EQ(wrong, 0U);
}

INSTANTIATE_TEST_SUITE_P(Degrees, BchField,
                         ::testing::Range(kFirstDegree, kFirstDegree + uint32_t{std::size(kPolynomials)}),
                         [](const auto& test) { return std::to_string(test.param); });

// ---- generator ----

// Multiplication in the field of 2^14 elements, without tables.
uint32_t multiply(uint32_t a, uint32_t b) {
    uint32_t product = 0;
    for (; b != 0; b >>= 1) {
        product ^= (b & 1U) != 0 ? a : 0U;
        a <<= 1;
        a ^= (a & 0x4000U) != 0 ? 0x41D5U : 0U;
    }
    return product;
}

// The generator's value at a field element.
uint32_t generator_at(uint32_t element) {
    uint32_t value = 0;
    for (uint32_t i = rr + 1; i-- > 0;)
        value = multiply(value, element) ^ gg[i];
    return value;
}

using BchGenerator = BchTest;

// Of this degree only the product of the minimal polynomials vanishes there.
TEST_F(BchGenerator, HasDegree14tAndThe2tPowersForRoots) {
    for (uint16_t t = 1; t <= kLargestBchStrength; ++t) {
        bch_init(t);
        ASSERT_EQ(rr, 14U * t);
        ASSERT_EQ(gg[0], 1) << t;
        ASSERT_EQ(gg[rr], 1) << t;
        ASSERT_EQ(*std::max_element(gg, gg + rr), 1) << t;
        ASSERT_EQ(std::count(gg + rr + 1, std::end(gg), 0), std::end(gg) - (gg + rr + 1)) << t;
        ASSERT_NE(generator_at(1), 0U) << t;
        uint32_t power = 1;
        for (uint32_t i = 1; i <= 2U * t; ++i) {
            power = multiply(power, 2);
            ASSERT_EQ(generator_at(power), 0U) << "t = " << t << ", alpha^" << i;
        }
    }
}

TEST_F(BchGenerator, IsPackedFromTheHighestPowerDown) {
    // Down from t = 64: nothing of a longer generator may be left.
    for (uint16_t t = kLargestBchStrength; t >= 1; --t) {
        bch_init(t);
        for (uint32_t bit = 0; bit < 64 * 32; ++bit) {
            const uint32_t packed = ggx[bit / 32] >> bit % 32 & 1U;
            // The coefficients of x^rr and x^0 are not packed.
            ASSERT_EQ(packed, bit + 1 < rr ? gg[rr - 1 - bit] : 0U) << "t = " << t << ", bit " << bit;
        }
    }
}

}  // namespace
