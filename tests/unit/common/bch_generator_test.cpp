#include "bch_encoding.h"

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

constexpr uint16_t kStrongest = 64;

// ---- field ----

struct FieldPolynomial {
    uint8_t degree;
    uint32_t coefficients;  // bit i is that of x^i
};

// generate_gf for one degree, with tables of its own.
class BchField : public BchTest, public ::testing::WithParamInterface<FieldPolynomial> {
protected:
    BchField()
        : m_order((1U << GetParam().degree) - 1), m_powers(m_order + 1, -7), m_logarithms(m_order + 1, -7) {
        mm = GetParam().degree;
        alpha_to = m_powers.data();
        index_of = m_logarithms.data();
        generate_gf();
        alpha_to = nullptr;
        index_of = nullptr;
    }

    const uint32_t m_order;
    std::vector<int32_t> m_powers;
    std::vector<int32_t> m_logarithms;
};

TEST_P(BchField, UsesThePolynomialOfItsDegree) {
    uint32_t coefficients = 0;
    for (uint32_t i = 0; i < std::size(p); ++i) {
        ASSERT_LE(p[i], 1);
        coefficients |= uint32_t{p[i]} << i;
    }
    EXPECT_EQ(coefficients, GetParam().coefficients);
}

TEST_P(BchField, MultipliesEachPowerByXToGetTheNext) {
    uint32_t element = 1;
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < m_order; ++i) {
        wrong += m_powers[i] == static_cast<int32_t>(element) ? 0U : 1U;
        element <<= 1;
        if (element > m_order)
            element ^= GetParam().coefficients;
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(element, 1U);  // the order of x divides 2^degree - 1
}

TEST_P(BchField, ReachesEveryElementButZero) {
    std::vector<int32_t> sorted(m_powers.begin(), m_powers.begin() + m_order);
    std::sort(sorted.begin(), sorted.end());
    std::vector<int32_t> elements(m_order);
    std::iota(elements.begin(), elements.end(), 1);
    EXPECT_TRUE(sorted == elements);
}

TEST_P(BchField, HasLogarithmsThatInvertThePowers) {
    EXPECT_EQ(m_logarithms[0], -1);
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < m_order; ++i)
        wrong += m_logarithms[static_cast<uint32_t>(m_powers[i])] == static_cast<int32_t>(i) ? 0U : 1U;
    EXPECT_EQ(wrong, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Degrees, BchField,
    ::testing::Values(FieldPolynomial{2, 0x7}, FieldPolynomial{3, 0xB}, FieldPolynomial{4, 0x13},
                      FieldPolynomial{5, 0x25}, FieldPolynomial{6, 0x43}, FieldPolynomial{7, 0x83},
                      FieldPolynomial{8, 0x171}, FieldPolynomial{9, 0x211}, FieldPolynomial{10, 0x409},
                      FieldPolynomial{11, 0x805}, FieldPolynomial{12, 0x1099}, FieldPolynomial{13, 0x25AF},
                      FieldPolynomial{14, 0x41D5}, FieldPolynomial{15, 0x8003}, FieldPolynomial{16, 0x1002D},
                      FieldPolynomial{17, 0x20009}, FieldPolynomial{18, 0x40081},
                      FieldPolynomial{19, 0x80063}, FieldPolynomial{20, 0x100009}),
    [](const auto& test) { return std::to_string(test.param.degree); });

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

TEST_F(BchGenerator, HasDegree14PerCorrectableBit) {
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        bch_init(t);
        ASSERT_EQ(rr, 14U * t);
        ASSERT_EQ(gg[0], 1) << t;
        ASSERT_EQ(gg[rr], 1) << t;
        ASSERT_EQ(*std::max_element(gg, gg + rr), 1) << t;
        ASSERT_EQ(std::count(gg + rr + 1, std::end(gg), 0), std::end(gg) - (gg + rr + 1)) << t;
    }
}

TEST_F(BchGenerator, VanishesAtThe2tPowersAndNotAtTheOneBefore) {
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        bch_init(t);
        ASSERT_NE(generator_at(1), 0U) << t;
        uint32_t power = 1;
        for (uint32_t i = 1; i <= 2U * t; ++i) {
            power = multiply(power, 2);
            ASSERT_EQ(generator_at(power), 0U) << "t = " << t << ", alpha^" << i;
        }
    }
}

TEST_F(BchGenerator, DividesXToTheFieldOrderPlusOne) {
    using Polynomial = std::bitset<14 * kStrongest + 1>;
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        bch_init(t);
        Polynomial generator;
        for (uint32_t i = 0; i <= rr; ++i)
            generator[i] = gg[i] != 0;
        Polynomial remainder(1);
        for (uint32_t i = 0; i < 16383; ++i) {
            remainder <<= 1;
            if (remainder[rr])
                remainder ^= generator;
        }
        ASSERT_EQ(remainder, Polynomial(1)) << t;
    }
}

TEST_F(BchGenerator, IsPackedFromTheHighestPowerDown) {
    // Down from t = 64: nothing of a longer generator may be left.
    for (uint16_t t = kStrongest; t >= 1; --t) {
        bch_init(t);
        for (uint32_t bit = 0; bit < 64 * 32; ++bit) {
            const uint32_t packed = ggx[bit / 32] >> bit % 32 & 1U;
            // The coefficients of x^rr and x^0 are not packed.
            ASSERT_EQ(packed, bit + 1 < rr ? gg[rr - 1 - bit] : 0U) << "t = " << t << ", bit " << bit;
        }
    }
}

}  // namespace
