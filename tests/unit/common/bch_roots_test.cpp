#include "common/bch/roots.h"

#include "bch_encoding.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace {

const BchField& field() {
    static const BchField instance;
    return instance;
}

using Logs = std::vector<uint16_t>;

// The product of x + alpha^log over the logs.
BchPolynomial with_roots(const Logs& logs) {
    BchPolynomial product{.degree = 0, .c = {1}};
    for (const uint16_t log : logs) {
        const BchElement root = field().power(log);
        product.c[product.degree + 1] = 0;
        for (uint32_t i = ++product.degree; i > 0; --i)
            product.c[i] = product.c[i - 1] ^ field().product(product.c[i], root);
        product.c[0] = field().product(product.c[0], root);
    }
    return product;
}

Logs random_logs(uint32_t count, std::mt19937& generator) {
    Logs logs;
    while (logs.size() < count) {
        const auto log = static_cast<uint16_t>(generator() % BchField::kOrder);
        if (std::ranges::find(logs, log) == logs.end())
            logs.push_back(log);
    }
    std::ranges::sort(logs);
    return logs;
}

// Empty when they are refused.
Logs found_roots(const BchPolynomial& polynomial) {
    BchLogs logs;
    if (!bch_find_roots(field(), polynomial, logs))
        return {};
    Logs found(logs.begin(), logs.begin() + polynomial.degree);
    std::ranges::sort(found);
    return found;
}

uint32_t slow_product(uint32_t a, uint32_t b) {
    uint32_t product = 0;
    for (uint32_t bit = 1U << 13; bit != 0; bit >>= 1) {
        product <<= 1;
        if ((product >> 14) != 0)
            product ^= 0x41D5;
        if ((b & bit) != 0)
            product ^= a;
    }
    return product;
}

TEST(BchDecoderField, MultipliesAsPolynomialsDo) {
    std::mt19937 generator(1);
    for (uint32_t i = 0; i < 100'000; ++i) {
        const auto a = static_cast<BchElement>(generator() % BchField::kSize);
        const auto b = static_cast<BchElement>(i < BchField::kSize ? i : generator() % BchField::kSize);
        ASSERT_EQ(field().product(a, b), slow_product(a, b)) << a << " * " << b;
        if (a == 0 || b == 0)
            continue;
        ASSERT_EQ(slow_product(field().power(field().log_of_quotient(a, b)), b), a) << a << " / " << b;
    }
    EXPECT_EQ(field().product(0, 0), 0);
}

TEST(BchDecoderField, SolvesEachQuadraticThatHasASolution) {
    std::vector<BchElement> expected(BchField::kSize, 0);
    for (uint32_t y = 2; y < BchField::kSize; y += 2)
        expected[slow_product(y, y) ^ y] = static_cast<BchElement>(y);
    for (uint32_t c = 1; c < BchField::kSize; ++c)
        ASSERT_EQ(field().solution(static_cast<BchElement>(c)), expected[c]) << c;
}

class BchRoots : public ::testing::TestWithParam<int> {
protected:
    uint32_t degree() const { return static_cast<uint32_t>(GetParam()); }

    std::mt19937 m_generator{static_cast<uint32_t>(GetParam())};
};

TEST_P(BchRoots, AreFoundWhereverTheyLie) {
    for (uint32_t i = 0; i < 2000; ++i) {
        const Logs logs = random_logs(degree(), m_generator);
        ASSERT_EQ(found_roots(with_roots(logs)), logs);
    }
}

// From degree 2 on.
class BchRootsOfSeveral : public BchRoots {};

TEST_P(BchRootsOfSeveral, AreRefusedWhenTwoAreEqual) {
    for (uint32_t i = 0; i < 200; ++i) {
        Logs logs = random_logs(degree(), m_generator);
        logs[0] = logs[1];
        ASSERT_EQ(found_roots(with_roots(logs)), Logs{});
    }
}

TEST_P(BchRootsOfSeveral, AreRefusedWhenSomeAreMissing) {
    std::vector<bool> is_value(BchField::kSize);
    for (uint32_t x = 1; x < BchField::kSize; ++x)
        is_value[slow_product(x, x) ^ x] = true;
    const auto missing =
        static_cast<BchElement>(std::find(is_value.begin() + 1, is_value.end(), false) - is_value.begin());
    // x^2 + x + missing has no root in the field. It is multiplied by x + alpha^log for the others.
    for (uint32_t i = 0; i < 200; ++i) {
        const BchPolynomial others = with_roots(random_logs(degree() - 2, m_generator));
        BchPolynomial product{.degree = degree()};
        for (uint32_t k = 0; k <= others.degree; ++k) {
            product.c[k] ^= field().product(others.c[k], missing);
            product.c[k + 1] ^= others.c[k];
            product.c[k + 2] ^= others.c[k];
        }
        ASSERT_EQ(found_roots(product), Logs{});
    }
}

INSTANTIATE_TEST_SUITE_P(Degrees, BchRoots, ::testing::Range(1, 17),
                         [](const auto& test) { return bch_tests::numbered("degree", test.param); });
INSTANTIATE_TEST_SUITE_P(Degrees, BchRootsOfSeveral, ::testing::Range(2, 17),
                         [](const auto& test) { return bch_tests::numbered("degree", test.param); });

}  // namespace
