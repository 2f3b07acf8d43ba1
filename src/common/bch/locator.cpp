#include "locator.h"

#include <algorithm>

namespace {

/// A recurrence of the syndromes: the sum of c[i] S_(n - i) for i = 0 to length is 0, and c[0] is 1.
struct Recurrence {
    uint32_t length = 0;
    std::array<BchElement, kBchMostFlips + 1> c{1};
};

/// What the recurrence gives for syndrome n in place of 0.
BchElement discrepancy(const BchField& field, const BchSyndromes& syndromes, const Recurrence& recurrence,
                       uint32_t n) {
    BchElement sum = syndromes[n];
    for (uint32_t i = 1; i <= recurrence.length; ++i)
        sum ^= field.product(recurrence.c[i], syndromes[n - i]);
    return sum;
}

}  // namespace

// The algorithm of Berlekamp and Massey. The discrepancies of even syndromes are 0 in a binary code.
bool bch_find_locator(const BchField& field, const BchSyndromes& syndromes, BchPolynomial& locator) {
    Recurrence current;
    Recurrence before;                  // the last one that was shorter
    BchElement before_discrepancy = 1;  // where it failed
    uint32_t distance = 1;              // from there to syndrome n
    for (uint32_t n = 1; n < 2 * kBchMostFlips; n += 2, distance += 2) {
        const BchElement wrong = discrepancy(field, syndromes, current, n);
        if (wrong == 0)
            continue;
        const uint32_t length = std::max(current.length, n - current.length);
        if (length > kBchMostFlips)
            return false;
        const Recurrence last = current;
        const uint32_t factor = field.log_of_quotient(wrong, before_discrepancy);
        for (uint32_t i = 0; i + distance <= length; ++i)
            current.c[i + distance] ^= field.power(factor + field.log(before.c[i]));
        current.length = length;
        if (length > last.length) {
            before = last;
            before_discrepancy = wrong;
            distance = 0;
        }
    }
    // A recurrence with a last coefficient of 0 stands for fewer roots than its length.
    if (current.c[current.length] == 0)
        return false;
    locator.degree = current.length;
    std::reverse_copy(current.c.begin(), current.c.begin() + current.length + 1, locator.c.begin());
    return true;
}
