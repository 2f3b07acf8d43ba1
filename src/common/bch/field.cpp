#include "field.h"

namespace {

constexpr uint32_t kPrimitivePolynomial = 0x41D5;

}  // namespace

BchField::BchField() : m_power(2 * kLogOfZero + 1), m_log(kSize), m_solution(kSize) {
    uint32_t element = 1;
    for (uint32_t log = 0; log < kOrder; ++log) {
        m_power[log] = m_power[log + kOrder] = static_cast<BchElement>(element);
        m_log[element] = static_cast<uint16_t>(log);
        element <<= 1;
        if (element >= kSize)
            element ^= kPrimitivePolynomial;
    }
    m_log[0] = kLogOfZero;
    for (uint32_t y = 2; y < kSize; y += 2) {
        const auto even = static_cast<BchElement>(y);
        m_solution[product(even, even) ^ y] = even;
    }
}
