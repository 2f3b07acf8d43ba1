#include "unit_parity.h"

#include <bit>
#include <cstring>
#include <set>
#include <vector>

namespace {

static_assert(std::endian::native == std::endian::little, "words of units are taken as they lie");

// The field GF(2^14): x^14 + x^8 + x^7 + x^6 + x^4 + x^2 + 1 is primitive, and x is the element alpha.
constexpr uint32_t kFieldDegree = 14;
constexpr uint32_t kPrimitive = 0x41D5;
constexpr uint32_t kOrder = (1U << kFieldDegree) - 1;

constexpr uint32_t kCorrectable = 16;  // t
constexpr std::size_t kDegree = 224;   // of the generator
constexpr std::size_t kBatchBytes = kUnit + UnitParity::kBatch - 1;

constexpr uint32_t product(uint32_t a, uint32_t b) {
    uint32_t result = 0;
    for (; b != 0; b >>= 1) {
        if ((b & 1) != 0)
            result ^= a;
        a <<= 1;
        if ((a >> kFieldDegree) != 0)
            a ^= kPrimitive;
    }
    return result;
}

constexpr uint32_t power_of_alpha(uint32_t exponent) {
    uint32_t result = 1;
    for (uint32_t square = 2; exponent != 0; exponent >>= 1, square = product(square, square))
        if ((exponent & 1) != 0)
            result = product(result, square);
    return result;
}

// Coefficients from x^0 on of the product of x + alpha^r over the cyclotomic cosets of 1 to 2t.
std::vector<uint32_t> generator() {
    std::set<uint32_t> roots;
    for (uint32_t i = 1; i <= 2 * kCorrectable; ++i)
        for (uint32_t j = 0, exponent = i; j < kFieldDegree; ++j, exponent = 2 * exponent % kOrder)
            roots.insert(exponent);

    std::vector<uint32_t> coefficients{1};
    for (const uint32_t exponent : roots) {
        const uint32_t root = power_of_alpha(exponent);
        coefficients.insert(coefficients.begin(), 0);
        for (std::size_t i = 0; i + 1 < coefficients.size(); ++i)
            coefficients[i] ^= product(coefficients[i + 1], root);
    }
    return coefficients;
}

template <typename Remainder>
Remainder moved_right(const Remainder& value, unsigned bits) {
    return {value[0] >> bits | value[1] << (64 - bits), value[1] >> bits | value[2] << (64 - bits),
            value[2] >> bits | value[3] << (64 - bits), value[3] >> bits};
}

template <typename Remainder>
void add(Remainder& sum, const Remainder& value) {
    for (std::size_t i = 0; i < sum.size(); ++i)
        sum[i] ^= value[i];
}

constexpr std::array<uint8_t, kUnit> kErased = [] {
    std::array<uint8_t, kUnit> bytes{};
    bytes.fill(0xFF);
    return bytes;
}();

}  // namespace

// The two sums of a batch. Unit i is added to moved from its byte i on.
struct UnitParity::Sums {
    std::array<uint8_t, kUnit> plain{};
    std::array<uint8_t, kBatchBytes> moved{};

    explicit Sums(const Batch& units) {
        for (std::size_t i = 0; i < units.size(); ++i)
            add_unit(units[i], moved.data() + i);
    }

    void add_unit(const uint8_t* unit, uint8_t* place) {
        for (std::size_t k = 0; k < kUnit; k += sizeof(uint64_t)) {
            uint64_t word = 0;
            std::memcpy(&word, unit + k, sizeof word);
            uint64_t sum = 0;
            std::memcpy(&sum, plain.data() + k, sizeof sum);
            sum ^= word;
            std::memcpy(plain.data() + k, &sum, sizeof sum);
            std::memcpy(&sum, place + k, sizeof sum);
            sum ^= word;
            std::memcpy(place + k, &sum, sizeof sum);
        }
    }
};

UnitParity::UnitParity() {
    const std::vector<uint32_t> coefficients = generator();
    Remainder bits{};  // the generator without x^224
    for (std::size_t power = 0; power < kDegree; ++power) {
        const std::size_t bit = kDegree - 1 - power;
        bits[bit / 64] |= uint64_t{coefficients[power]} << (bit % 64);
    }

    // A byte's least significant bit comes first, which is its highest power.
    for (std::size_t byte = 0; byte < m_table.size(); ++byte) {
        Remainder value{byte};
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = (value[0] & 1) != 0;
            value = moved_right(value, 1);
            if (feedback)
                add(value, bits);
        }
        m_table[byte] = value;
    }

    m_erased = remainder(erased_unit(), kUnit);
    Batch erased{};
    erased.fill(erased_unit());
    const Sums sums(erased);
    m_erased_sum = remainder(sums.plain.data(), sums.plain.size());
    m_erased_moved = remainder(sums.moved.data(), sums.moved.size());
}

bool UnitParity::is_right(const uint8_t* unit) const {
    return remainder(unit, kUnit) == m_erased;
}

bool UnitParity::are_right(const Batch& units) const {
    const Sums sums(units);
    return remainder(sums.plain.data(), sums.plain.size()) == m_erased_sum &&
           remainder(sums.moved.data(), sums.moved.size()) == m_erased_moved;
}

const uint8_t* UnitParity::erased_unit() {
    return kErased.data();
}

UnitParity::Remainder UnitParity::remainder(const uint8_t* bytes, std::size_t count) const {
    Remainder value{};
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t index = (value[0] ^ bytes[i]) & 0xFF;
        value = moved_right(value, 8);
        add(value, m_table[index]);
    }
    return value;
}
