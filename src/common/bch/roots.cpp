#include "roots.h"

#include <algorithm>
#include <cassert>

namespace {

/// Divides a by b, which is not 0. The remainder takes the coefficients of a below the degree of b, the
/// quotient those from there on. The degree of a stays.
void divide(const BchField& field, BchPolynomial& a, const BchPolynomial& b) {
    BchLogs b_logs;
    for (uint32_t i = 0; i < b.degree; ++i)
        b_logs[i] = field.log(b.c[i]);
    for (uint32_t top = a.degree + 1; top-- > b.degree;) {
        if (a.c[top] == 0)
            continue;
        const uint32_t factor = field.log_of_quotient(a.c[top], b.c[b.degree]);
        a.c[top] = field.power(factor);
        for (uint32_t i = 0; i < b.degree; ++i)
            a.c[top - b.degree + i] ^= field.power(factor + b_logs[i]);
    }
}

BchPolynomial remainder(const BchField& field, BchPolynomial a, const BchPolynomial& b) {
    if (a.degree >= b.degree) {
        divide(field, a, b);
        a.degree = b.degree - 1;
    }
    while (a.degree != 0 && a.c[a.degree] == 0)
        --a.degree;
    return a;
}

BchPolynomial quotient(const BchField& field, BchPolynomial a, const BchPolynomial& b) {
    divide(field, a, b);
    BchPolynomial result{.degree = a.degree - b.degree};
    std::copy_n(a.c.begin() + b.degree, result.degree + 1, result.c.begin());
    return result;
}

/// The monic greatest common divisor of a, which has a degree of 1 at least, and b.
BchPolynomial common_divisor(const BchField& field, BchPolynomial a, BchPolynomial b) {
    while (b.degree != 0) {
        const BchPolynomial rest = remainder(field, a, b);
        a = b;
        b = rest;
    }
    if (b.c[0] != 0)
        return {.c = {1}};
    const uint32_t inverse = field.log_of_quotient(1, a.c[a.degree]);
    for (uint32_t i = 0; i <= a.degree; ++i)
        a.c[i] = field.power(inverse + field.log(a.c[i]));
    return a;
}

/// The polynomials x^(2^k) modulo a monic polynomial f of degree 3 or more, for k = 0 to 14. Their
/// coefficients are kept as logarithms.
class Squares {
public:
    Squares(const BchField& field, const BchPolynomial& f) : m_field(field), m_degree(f.degree) {
        find_even_powers(f);
        m_squares[0].fill(BchField::kLogOfZero);
        m_squares[0][1] = 0;
        for (uint32_t k = 0; k < BchField::kDegree; ++k)
            square(m_squares[k], m_squares[k + 1]);
    }

    /// x^(2^14) - x is the product of x - r over all r in the field. So f divides it, and the remainders of
    /// its two terms are equal, only when f is a product of some of these.
    bool f_has_all_its_roots() const {
        const auto end = m_squares[0].begin() + m_degree;
        return std::equal(m_squares[0].begin(), end, m_squares[BchField::kDegree].begin());
    }

    /// The trace of b x modulo f, b = alpha^log: the sum of (b x)^(2^k) for k = 0 to 13. At an element of the
    /// field its value is 0 or 1.
    BchPolynomial trace(uint32_t log) const {
        BchPolynomial sum{.degree = m_degree - 1};
        for (uint32_t k = 0; k < BchField::kDegree; ++k) {
            for (uint32_t i = 0; i < m_degree; ++i)
                sum.c[i] ^= m_field.power(log + m_squares[k][i]);
            log = BchField::reduced(2 * log);
        }
        return sum;
    }

private:
    using Elements = std::array<BchElement, kBchMostFlips>;

    void take_logs(const Elements& elements, BchLogs& logs) const {
        for (uint32_t i = 0; i < m_degree; ++i)
            logs[i] = m_field.log(elements[i]);
    }

    /// Fills m_even_powers by multiplying by x.
    void find_even_powers(const BchPolynomial& f) {
        BchLogs f_logs;
        Elements value;  // x^power modulo f
        std::copy_n(f.c.begin(), m_degree, value.begin());
        take_logs(value, f_logs);
        for (uint32_t power = m_degree; power + 1 < 2 * m_degree; ++power) {
            if (power % 2 == 0)
                take_logs(value, m_even_powers[power / 2]);
            const uint32_t top = m_field.log(value[m_degree - 1]);
            for (uint32_t i = m_degree; --i > 0;)
                value[i] = value[i - 1] ^ m_field.power(top + f_logs[i]);
            value[0] = m_field.power(top + f_logs[0]);
        }
    }

    /// The square of a sum is the sum of the squares.
    void square(const BchLogs& value, BchLogs& result) const {
        Elements sum{};
        for (uint32_t i = 0; i < m_degree; ++i) {
            if (value[i] == BchField::kLogOfZero)
                continue;
            const uint32_t factor = BchField::reduced(2 * value[i]);
            if (2 * i < m_degree)
                sum[2 * i] ^= m_field.power(factor);
            else
                for (uint32_t j = 0; j < m_degree; ++j)
                    sum[j] ^= m_field.power(factor + m_even_powers[i][j]);
        }
        take_logs(sum, result);
    }

    const BchField& m_field;
    const uint32_t m_degree;
    std::array<BchLogs, kBchMostFlips> m_even_powers;  ///< element i: x^2i, where 2i is the degree or more
    std::array<BchLogs, BchField::kDegree + 1> m_squares;
};

/// Monic polynomials whose product is a polynomial with distinct roots in the field.
class Factors {
public:
    Factors(const BchField& field, const BchPolynomial& polynomial) : m_field(field) {
        m_factors[0] = polynomial;
    }

    bool are_small() const {
        return std::all_of(m_factors.begin(), m_factors.begin() + m_count,
                           [](const BchPolynomial& factor) { return factor.degree <= 2; });
    }

    /// Splits the factors of degree 3 and more into those roots where the trace is 0 and those where it is 1.
    void split(const BchPolynomial& trace) {
        for (uint32_t i = 0, count = m_count; i < count; ++i) {
            BchPolynomial& factor = m_factors[i];
            if (factor.degree <= 2)
                continue;
            const BchPolynomial part = common_divisor(m_field, factor, remainder(m_field, trace, factor));
            if (part.degree == 0 || part.degree == factor.degree)
                continue;
            m_factors[m_count++] = quotient(m_field, factor, part);
            factor = part;
        }
    }

    bool find_roots(BchLogs& logs) const {
        uint32_t found = 0;
        for (uint32_t i = 0; i < m_count; ++i)
            if (m_factors[i].degree == 1)
                logs[found++] = m_field.log(m_factors[i].c[0]);
            else if (!solve_quadratic(m_factors[i], logs[found], logs[found + 1]))
                return false;
            else
                found += 2;
        return true;
    }

private:
    /// x^2 + a x + b with x = a y is a^2 (y^2 + y + b / a^2).
    bool solve_quadratic(const BchPolynomial& f, uint16_t& first, uint16_t& second) const {
        const BchElement a = f.c[1];
        if (a == 0)  // the roots are equal
            return false;
        const BchElement y =
            m_field.solution(m_field.power(m_field.log_of_quotient(f.c[0], m_field.product(a, a))));
        if (y == 0)
            return false;
        const BchElement root = m_field.product(a, y);
        first = m_field.log(root);
        second = m_field.log(root ^ a);
        return true;
    }

    const BchField& m_field;
    uint32_t m_count = 1;
    std::array<BchPolynomial, kBchMostFlips> m_factors;
};

}  // namespace

// Berlekamp's trace algorithm. Distinct elements differ in the trace of alpha^log times them for a log below
// 14, because these powers are a basis of the field.
bool bch_find_roots(const BchField& field, const BchPolynomial& polynomial, BchLogs& logs) {
    Factors factors(field, polynomial);
    if (polynomial.degree > 2) {
        const Squares squares(field, polynomial);
        if (!squares.f_has_all_its_roots())
            return false;
        for (uint32_t log = 0; !factors.are_small(); ++log) {
            assert(log < BchField::kDegree);
            factors.split(squares.trace(log));
        }
    }
    return factors.find_roots(logs);
}
