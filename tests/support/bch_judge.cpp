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

constexpr int field_degree = 14;
constexpr int field_order = (1 << field_degree) - 1;
constexpr int low_polynomial = 0x1D5;  // x^14 = x^8 + x^7 + x^6 + x^4 + x^2 + 1

struct Field {
    std::vector<int> power;      // power[i] = alpha^i
    std::vector<int> logarithm;  // the inverse, -1 for 0

    Field() : power(field_order), logarithm(field_order + 1, -1) {
        int value = 1;
        for (int i = 0; i < field_order; ++i) {
            power[static_cast<std::size_t>(i)] = value;
            logarithm[static_cast<std::size_t>(value)] = i;
            const bool overflows = (value & 0x2000) != 0;
            value = overflows ? low_polynomial ^ ((value ^ 0x2000) << 1) : value << 1;
        }
    }

    int times_power(int value, int exponent) const {
        if (value == 0)
            return 0;
        const int sum = logarithm[static_cast<std::size_t>(value)] + exponent;
        return power[static_cast<std::size_t>(sum % field_order)];
    }
};

// Exponents of the generator's roots: the cyclotomic cosets of 1 to 2t.
std::set<int> root_exponents(unsigned t) {
    std::set<int> exponents;
    for (int first = 1; first <= static_cast<int>(2 * t); ++first) {
        int exponent = first;
        for (int j = 0; j < field_degree; ++j) {
            exponents.insert(exponent);
            exponent = exponent * 2 % field_order;
        }
    }
    return exponents;
}

// Coefficients of the generator, index = power of x. They all come out as 0 or 1.
std::vector<int> generator_polynomial(unsigned t) {
    const Field field;
    std::vector<int> generator{1};
    for (const int root : root_exponents(t)) {
        std::vector<int> product(generator.size() + 1, 0);
        for (std::size_t k = 0; k < generator.size(); ++k) {
            product[k + 1] ^= generator[k];
            product[k] ^= field.times_power(generator[k], root);
        }
        generator = std::move(product);
    }
    return generator;
}

class Encoder {
public:
    explicit Encoder(unsigned t) {
        const std::vector<int> generator = generator_polynomial(t);
        degree_ = generator.size() - 1;
        for (std::size_t b = 0; b < degree_; ++b)
            taps_.push_back(static_cast<uint8_t>(generator[degree_ - 1 - b]));
        correction_.assign(degree_, 0);
        if (t == 16 || t == 24 || t == 60) {
            const Bytes erased(bch_message_bytes, 0xFF);
            correction_ = remainder(erased.data());
            for (uint8_t& bit : correction_)
                bit ^= 1U;
        }
    }

    Bytes parity(const uint8_t* message) const {
        const std::vector<uint8_t> bits = remainder(message);
        Bytes bytes((degree_ + 7) / 8, 0);
        for (std::size_t b = 0; b < degree_; ++b) {
            const unsigned bit = static_cast<unsigned>(bits[b] ^ correction_[b]);
            bytes[b / 8] = static_cast<uint8_t>(bytes[b / 8] | (bit << (b % 8)));
        }
        return bytes;
    }

private:
    // The register after the last message bit: element b is the coefficient of x^(degree - 1 - b).
    std::vector<uint8_t> remainder(const uint8_t* message) const {
        std::vector<uint8_t> shift_register(degree_, 0);
        for (std::size_t i = 0; i < bch_message_bits; ++i) {
            const unsigned input = static_cast<unsigned>(message[i / 8]) >> (i % 8) & 1U;
            const bool feedback = (input ^ shift_register[0]) != 0;
            std::copy(shift_register.begin() + 1, shift_register.end(), shift_register.begin());
            shift_register.back() = 0;
            for (std::size_t b = 0; feedback && b < degree_; ++b)
                shift_register[b] ^= taps_[b];
        }
        return shift_register;
    }

    std::size_t degree_ = 0;
    std::vector<uint8_t> taps_{};
    std::vector<uint8_t> correction_{};
};

}  // namespace slow

// ---- the decoder ----

namespace textbook {

constexpr uint32_t order = 16383;                  // of the multiplicative group of GF(2^14)
constexpr uint32_t primitive_polynomial = 0x41D5;  // x^14 + x^8 + x^7 + x^6 + x^4 + x^2 + 1

using Element = uint16_t;

class GaloisField {
public:
    GaloisField() {
        uint32_t element = 1;
        for (uint32_t i = 0; i < order; ++i) {
            exp_[i] = exp_[i + order] = static_cast<Element>(element);
            log_[element] = static_cast<Element>(i);
            element <<= 1;
            if (element > order)
                element ^= primitive_polynomial;
        }
    }

    Element alpha(uint64_t exponent) const { return exp_[exponent % order]; }
    uint32_t log(Element a) const { return log_[a]; }
    Element multiply(Element a, Element b) const {
        return a == 0 || b == 0 ? Element{0} : exp_[uint32_t{log_[a]} + log_[b]];
    }
    Element divide(Element a, Element b) const {
        return a == 0 ? Element{0} : exp_[uint32_t{log_[a]} + order - log_[b]];
    }

private:
    std::array<Element, 2 * order> exp_{};
    std::array<Element, order + 1> log_{};
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
        for (uint32_t value = 0; value < byte.size(); ++value) {
            for (uint32_t bit = 0; bit < 8; ++bit)
                if ((value >> bit & 1U) != 0)  // bit 0 comes first, so it has the highest power
                    byte[value] = static_cast<Element>(byte[value] ^ field().alpha(uint64_t{7 - bit} * j));
        }
    }

    Element after(Element syndrome, uint8_t next) const {
        return static_cast<Element>(low[syndrome & 127U] ^ high[syndrome >> 7] ^ byte[next]);
    }
};

using Polynomial = std::vector<Element>;  // index = power

class Decoder {
public:
    explicit Decoder(unsigned t) : t_(t), parity_bits_(14 * std::size_t{t}) {
        for (uint32_t j = 1; j < 2 * t; j += 2)
            tables_.emplace_back(j);
    }

    DecodeResult decode(const uint8_t* message, const uint8_t* parity) const {
        const Bytes word = received_word(message, parity);
        const std::vector<Element> odd = odd_syndromes(word);
        DecodeResult result;
        if (std::all_of(odd.begin(), odd.end(), [](Element syndrome) { return syndrome == 0; })) {
            result.status = DecodeResult::Status::clean;
            return result;
        }
        const Polynomial locator = error_locator(all_syndromes(odd));
        const std::size_t errors = locator.size() - 1;
        if (errors > t_)
            return result;
        result.wrong_bits = roots(locator);
        if (result.wrong_bits.size() == errors)
            result.status = DecodeResult::Status::corrected;
        else
            result.wrong_bits.clear();
        return result;
    }

private:
    std::size_t word_bits() const { return bch_message_bits + parity_bits_; }

    // Where an erased page has to be valid, the words that are stored are the complements of plain codewords:
    // the parity was XORed with a constant that makes the all-ones word one of them, and the code is linear.
    Bytes received_word(const uint8_t* message, const uint8_t* parity) const {
        Bytes word(message, message + bch_message_bytes);
        word.insert(word.end(), parity, parity + bch_parity_bytes(t_));
        if (t_ == 16 || t_ == 24 || t_ == 60) {
            std::transform(word.begin(), word.end(), word.begin(),
                           [](uint8_t byte) { return static_cast<uint8_t>(~byte); });
        }
        return word;
    }

    // S_1, S_3, S_5, ...: the received polynomial at alpha^1, alpha^3, ...
    std::vector<Element> odd_syndromes(const Bytes& word) const {
        std::vector<Element> syndromes(tables_.size(), 0);
        const std::size_t whole_bytes = word_bits() / 8;
        for (std::size_t i = 0; i < whole_bytes; ++i)
            for (std::size_t k = 0; k < syndromes.size(); ++k)
                syndromes[k] = tables_[k].after(syndromes[k], word[i]);
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
            for (std::size_t i = 0; i < current.size() && i < n; ++i) {
                discrepancy =
                    static_cast<Element>(discrepancy ^ field().multiply(current[i], syndromes[n - i]));
            }
            if (discrepancy == 0) {
                ++gap;
                continue;
            }
            const Polynomial before = current;
            const Element factor = field().divide(discrepancy, previous_discrepancy);
            current.resize(std::max(current.size(), previous.size() + gap), 0);
            for (std::size_t i = 0; i < previous.size(); ++i) {
                const Element term = field().multiply(factor, previous[i]);
                current[i + gap] = static_cast<Element>(current[i + gap] ^ term);
            }
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
            const uint64_t inverse = (order - power % order) % order;
            Element value = 0;
            for (std::size_t i = 0; i < locator.size(); ++i) {
                value =
                    static_cast<Element>(value ^ field().multiply(locator[i], field().alpha(inverse * i)));
            }
            if (value == 0)
                positions.push_back(position);
        }
        return positions;
    }

    const unsigned t_;
    const std::size_t parity_bits_;
    std::vector<SyndromeTable> tables_{};
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
