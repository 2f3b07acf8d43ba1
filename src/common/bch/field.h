#pragma once

#include <array>
#include <cstdint>
#include <vector>

/// An element of GF(2^14). Bit i is the coefficient of alpha^i, where alpha is a root of the primitive
/// polynomial x^14 + x^8 + x^7 + x^6 + x^4 + x^2 + 1.
using BchElement = uint16_t;

/// GF(2^14) as tables of 192 KiB: powers of alpha, logarithms, and solutions of y^2 + y = c.
class BchField {
public:
    static constexpr uint32_t kDegree = 14;
    static constexpr uint32_t kSize = 1U << kDegree;
    static constexpr uint32_t kOrder = kSize - 1;  ///< of alpha
    /// Stands for the logarithm of 0. A sum of two logarithms of which one is this has the power 0.
    static constexpr uint16_t kLogOfZero = 2 * kOrder;

    BchField();

    /// kLogOfZero for 0, else 0 to kOrder - 1.
    uint16_t log(BchElement element) const { return m_log[element]; }

    /// The element of a logarithm, or of a sum of two.
    BchElement power(uint32_t log) const { return m_power[log]; }

    BchElement product(BchElement a, BchElement b) const { return power(uint32_t{log(a)} + log(b)); }

    /// The logarithm of the quotient of two elements that are not 0.
    uint32_t log_of_quotient(BchElement a, BchElement b) const {
        return reduced(uint32_t{log(a)} + kOrder - log(b));
    }

    /// The even element y with y^2 + y = c, which is not 0; 0 when there is none. y + 1 is the other
    /// solution.
    BchElement solution(BchElement c) const { return m_solution[c]; }

    /// The sum of two logarithms of elements that are not 0, as the logarithm of one element.
    static uint32_t reduced(uint32_t log) { return log < kOrder ? log : log - kOrder; }

private:
    std::vector<BchElement> m_power;
    std::vector<uint16_t> m_log;
    std::vector<BchElement> m_solution;
};

constexpr uint32_t kBchMostFlips = 16;  ///< t, wrong bits that are found

/// A polynomial of degree up to t over the field; element i is the coefficient of x^i. Those above the degree
/// mean nothing. The polynomial 0 has the degree 0.
struct BchPolynomial {
    uint32_t degree = 0;
    std::array<BchElement, kBchMostFlips + 1> c{};
};
