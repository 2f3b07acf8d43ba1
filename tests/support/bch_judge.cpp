#include "bch_judge.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

namespace test_support {

namespace {

// ---- the slow encoder ----

namespace slow {

int times_alpha(int element) {
    constexpr int low_polynomial = 0x1D5;  // x^14 = x^8 + x^7 + x^6 + x^4 + x^2 + 1
    return (element & 0x2000) != 0 ? low_polynomial ^ ((element ^ 0x2000) << 1) : element << 1;
}

int multiply(int a, int b) {
    int product = 0;
    for (; b != 0; b >>= 1, a = times_alpha(a))
        product ^= (b & 1) != 0 ? a : 0;
    return product;
}

// The generator's roots: alpha^1 to alpha^2t and their conjugates.
std::set<int> roots(unsigned t) {
    std::set<int> roots;
    int element = 1;
    for (unsigned exponent = 1; exponent <= 2 * t; ++exponent) {
        element = times_alpha(element);
        for (int conjugate = element; roots.insert(conjugate).second;)
            conjugate = multiply(conjugate, conjugate);
    }
    return roots;
}

class Encoder {
public:
    explicit Encoder(unsigned t) {
        std::vector<int> generator{1};  // index = power of x; the coefficients all come out as 0 or 1
        for (const int root : roots(t)) {
            std::vector<int> product(generator.size() + 1, 0);
            for (std::size_t k = 0; k < generator.size(); ++k) {
                product[k + 1] ^= generator[k];
                product[k] ^= multiply(generator[k], root);
            }
            generator = std::move(product);
        }
        m_taps.assign(generator.rbegin() + 1, generator.rend());
        m_correction.assign(m_taps.size(), 0);
        if (t == 16 || t == 24 || t == 60) {
            const Bytes erased(kBchMessageBytes, 0xFF);
            m_correction = remainder(erased.data());
            for (uint8_t& bit : m_correction)
                bit ^= 1U;
        }
    }

    Bytes parity(const uint8_t* message) const {
        const Bytes bits = remainder(message);
        Bytes bytes((bits.size() + 7) / 8, 0);
        for (std::size_t b = 0; b < bits.size(); ++b) {
            const unsigned bit = static_cast<unsigned>(bits[b] ^ m_correction[b]);
            bytes[b / 8] = static_cast<uint8_t>(bytes[b / 8] | (bit << (b % 8)));
        }
        return bytes;
    }

private:
    // The register after the last message bit: element b is the coefficient of x^(degree - 1 - b).
    Bytes remainder(const uint8_t* message) const {
        Bytes shift_register(m_taps.size(), 0);
        for (std::size_t i = 0; i < kBchMessageBits; ++i) {
            const unsigned input = static_cast<unsigned>(message[i / 8]) >> (i % 8) & 1U;
            const bool feedback = (input ^ shift_register[0]) != 0;
            std::copy(shift_register.begin() + 1, shift_register.end(), shift_register.begin());
            shift_register.back() = 0;
            for (std::size_t b = 0; feedback && b < m_taps.size(); ++b)
                shift_register[b] ^= m_taps[b];
        }
        return shift_register;
    }

    Bytes m_taps{};
    Bytes m_correction{};
};

}  // namespace slow

// ---- the decoder ----

namespace textbook {

constexpr uint32_t kOrder = 16383;                 // of the multiplicative group of GF(2^14)
constexpr uint32_t kPrimitivePolynomial = 0x41D5;  // x^14 + x^8 + x^7 + x^6 + x^4 + x^2 + 1

using Element = uint16_t;

class GaloisField {
public:
    GaloisField() {
        uint32_t element = 1;
        for (uint32_t i = 0; i < kOrder; ++i) {
            m_exp[i] = m_exp[i + kOrder] = static_cast<Element>(element);
            m_log[element] = static_cast<Element>(i);
            element <<= 1;
            if (element > kOrder)
                element ^= kPrimitivePolynomial;
        }
    }

    Element alpha(uint64_t exponent) const { return m_exp[exponent % kOrder]; }
    uint32_t log(Element a) const { return m_log[a]; }
    Element multiply(Element a, Element b) const {
        return a == 0 || b == 0 ? Element{0} : m_exp[uint32_t{m_log[a]} + m_log[b]];
    }
    Element divide(Element a, Element b) const {
        return a == 0 ? Element{0} : m_exp[uint32_t{m_log[a]} + kOrder - m_log[b]];
    }

private:
    std::array<Element, 2 * kOrder> m_exp{};
    std::array<Element, kOrder + 1> m_log{};
};

const GaloisField& field() {
    static const GaloisField instance;
    return instance;
}

// One step of Horner's rule over a whole byte, S -> S * alpha^(8j) + byte(alpha^j), as three table look-ups.
struct SyndromeTable {
    std::array<Element, 128> low{};
    std::array<Element, 128> high{};
    std::array<Element, 256> byte{};

    explicit SyndromeTable(uint32_t j) {
        const Element step = field().alpha(8 * uint64_t{j});
        for (uint32_t k = 0; k < low.size(); ++k) {
            low[k] = field().multiply(static_cast<Element>(k), step);
            high[k] = field().multiply(static_cast<Element>(k << 7), step);
        }
        for (uint32_t value = 0; value < byte.size(); ++value)
            for (uint32_t bit = 0; bit < 8; ++bit)
                if ((value >> bit & 1U) != 0)  // bit 0 comes first, so it has the highest power
                    byte[value] ^= field().alpha(uint64_t{7 - bit} * j);
    }

    Element after(Element syndrome, uint8_t next) const {
        return static_cast<Element>(low[syndrome & 127U] ^ high[syndrome >> 7] ^ byte[next]);
    }
};

using Polynomial = std::vector<Element>;  // index = power

class Decoder {
public:
    explicit Decoder(unsigned t) : m_t(t), m_parity_bits(14 * std::size_t{t}) {
        for (uint32_t j = 1; j < 2 * t; j += 2)
            m_tables.emplace_back(j);
    }

    DecodeResult decode(const uint8_t* message, const uint8_t* parity) const {
        const Bytes word = received_word(message, parity);
        const std::vector<Element> odd = odd_syndromes(word);
        if (odd == std::vector<Element>(odd.size(), 0))
            return {DecodeResult::Status::clean, {}};
        const Polynomial locator = error_locator(all_syndromes(odd));
        const std::size_t errors = locator.size() - 1;
        const std::vector<std::size_t> positions = errors > m_t ? std::vector<std::size_t>{} : roots(locator);
        if (positions.size() != errors)
            return {};
        return {DecodeResult::Status::corrected, positions};
    }

private:
    std::size_t word_bits() const { return kBchMessageBits + m_parity_bits; }

    // Where an erased page has to be valid, the words that are stored are the complements of plain codewords:
    // the parity was XORed with a constant that makes the all-ones word one of them, and the code is linear.
    Bytes received_word(const uint8_t* message, const uint8_t* parity) const {
        Bytes word(message, message + kBchMessageBytes);
        word.insert(word.end(), parity, parity + bch_parity_bytes(m_t));
        if (m_t == 16 || m_t == 24 || m_t == 60) {
            std::transform(word.begin(), word.end(), word.begin(),
                           [](uint8_t byte) { return static_cast<uint8_t>(~byte); });
        }
        return word;
    }

    // S_1, S_3, S_5, ...: the received polynomial at alpha^1, alpha^3, ...
    std::vector<Element> odd_syndromes(const Bytes& word) const {
        std::vector<Element> syndromes(m_tables.size(), 0);
        const std::size_t whole_bytes = word_bits() / 8;
        for (std::size_t i = 0; i < whole_bytes; ++i)
            for (std::size_t k = 0; k < syndromes.size(); ++k)
                syndromes[k] = m_tables[k].after(syndromes[k], word[i]);
        for (std::size_t i = 8 * whole_bytes; i < word_bits(); ++i) {
            const unsigned bit = static_cast<unsigned>(word[i / 8]) >> (i % 8) & 1U;
            for (std::size_t k = 0; k < syndromes.size(); ++k) {
                const Element shifted = field().multiply(syndromes[k], field().alpha(2 * k + 1));
                syndromes[k] = static_cast<Element>(shifted ^ bit);
            }
        }
        return syndromes;
    }

    // Index = power, 1 to 2t. In a binary code S_2k is the square of S_k.
    static std::vector<Element> all_syndromes(const std::vector<Element>& odd) {
        std::vector<Element> syndromes(2 * odd.size() + 1, 0);
        for (std::size_t i = 1; i < syndromes.size(); ++i) {
            const Element half = syndromes[i / 2];
            syndromes[i] = i % 2 == 1 ? odd[i / 2] : field().multiply(half, half);
        }
        return syndromes;
    }

    // Berlekamp-Massey: the shortest recurrence that produces the syndromes.
    static Polynomial error_locator(const std::vector<Element>& syndromes) {
        Polynomial current{1};
        Polynomial previous{1};
        std::size_t length = 0;
        std::size_t gap = 1;
        Element previous_discrepancy = 1;
        for (std::size_t n = 1; n < syndromes.size(); ++n) {
            Element discrepancy = 0;
            for (std::size_t i = 0; i < current.size() && i < n; ++i)
                discrepancy ^= field().multiply(current[i], syndromes[n - i]);
            if (discrepancy == 0) {
                ++gap;
                continue;
            }
            const Polynomial before = current;
            const Element factor = field().divide(discrepancy, previous_discrepancy);
            current.resize(std::max(current.size(), previous.size() + gap), 0);
            for (std::size_t i = 0; i < previous.size(); ++i)
                current[i + gap] ^= field().multiply(factor, previous[i]);
            if (2 * length < n) {
                length = n - length;
                previous = before;
                previous_discrepancy = discrepancy;
                gap = 1;
            } else {
                ++gap;
            }
        }
        // A locator whose degree is not the recurrence's length has a root at infinity; reporting one error
        // too many makes the root count disagree, as it has to.
        while (current.size() > 1 && current.back() == 0)
            current.pop_back();
        current.resize(std::max(current.size(), length + 1), 0);
        return current;
    }

    // Chien search over the positions that the shortened code has, as bit positions in stream order.
    std::vector<std::size_t> roots(const Polynomial& locator) const {
        std::vector<std::size_t> positions;
        for (std::size_t position = 0; position < word_bits(); ++position) {
            const std::size_t power = word_bits() - 1 - position;
            const uint64_t inverse = (kOrder - power % kOrder) % kOrder;
            Element value = 0;
            for (std::size_t i = 0; i < locator.size(); ++i)
                value ^= field().multiply(locator[i], field().alpha(inverse * i));
            if (value == 0)
                positions.push_back(position);
        }
        return positions;
    }

    const unsigned m_t;
    const std::size_t m_parity_bits;
    std::vector<SyndromeTable> m_tables{};
};

}  // namespace textbook

// One codec per t, made when it is first asked for.
template <typename Codec>
const Codec& codec_for(unsigned t) {
    static std::map<unsigned, std::unique_ptr<const Codec>> codecs;
    if (t < 1 || t > 64)
        throw std::invalid_argument("the code corrects 1 to 64 bits");
    std::unique_ptr<const Codec>& codec = codecs[t];
    if (!codec)
        codec = std::make_unique<const Codec>(t);
    return *codec;
}

}  // namespace

Bytes bch_slow_parity(const uint8_t* message, unsigned t) {
    return codec_for<slow::Encoder>(t).parity(message);
}

DecodeResult bch_decode(const uint8_t* message, const uint8_t* parity, unsigned t) {
    return codec_for<textbook::Decoder>(t).decode(message, parity);
}

std::string to_string(const DecodeResult& result) {
    switch (result.status) {
    case DecodeResult::Status::clean:
        return "clean";
    case DecodeResult::Status::corrected:
        return std::to_string(result.wrong_bits.size()) + " wrong bits";
    case DecodeResult::Status::failed:
        break;
    }
    return "not correctable";
}

}  // namespace test_support
