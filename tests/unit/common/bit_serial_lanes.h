#pragma once

#include "support/bch_judge.h"
#include "support/bytes.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bch_tests {

// The shift register of the slow encoder for 64 codewords at once, so that ten thousand of them take seconds.
// Each word of the register holds one register bit of all 64. It is clocked once for every input bit. Its
// taps come from the slow encoder, with which a test compares it.
class BitSerialLanes {
public:
    using Bytes = test_support::Bytes;

    static constexpr std::size_t kLanes = 64;

    explicit BitSerialLanes(unsigned t) : m_degree(14 * std::size_t{t}) {
        // A message whose last bit alone is set leaves the register as the feedback taps.
        Bytes message(test_support::kBchMessageBytes, 0);
        m_correction = test_support::bch_slow_parity(message.data(), t);
        message.back() = 0x80;
        const Bytes taps = test_support::bch_slow_parity(message.data(), t);
        for (std::size_t bit = 0; bit < m_degree; ++bit)
            if (((taps[bit / 8] ^ m_correction[bit / 8]) >> (bit % 8) & 1) != 0)
                m_taps.push_back(bit);
    }

    // The parity of each of up to 64 messages.
    std::vector<Bytes> parities(const std::vector<Bytes>& messages) const {
        std::vector<uint64_t> ring(m_degree, 0);  // the register; its bit 0 is at `head`
        std::size_t head = 0;
        for (std::size_t bit = 0; bit < test_support::kBchMessageBits; ++bit) {
            const uint64_t feedback = ring[head] ^ input_bits(messages, bit);
            ring[head] = 0;
            head = head + 1 == m_degree ? 0 : head + 1;
            add_taps(ring.data(), head, feedback);
        }
        std::vector<Bytes> result;
        for (std::size_t lane = 0; lane < messages.size(); ++lane)
            result.push_back(parity_of_lane(ring, head, lane));
        return result;
    }

private:
    // Bit `bit` of every message, message 0 in bit 0.
    static uint64_t input_bits(const std::vector<Bytes>& messages, std::size_t bit) {
        uint64_t bits = 0;
        const Bytes* message = messages.data();
        for (std::size_t lane = messages.size(); lane-- > 0;)
            bits = bits << 1 | (message[lane].data()[bit / 8] >> (bit % 8) & 1U);
        return bits;
    }

    void add_taps(uint64_t* ring, std::size_t head, uint64_t feedback) const {
        const std::size_t after_head = m_degree - head;
        const std::size_t* tap = m_taps.data();
        const std::size_t* end = tap + m_taps.size();
        for (; tap != end && *tap < after_head; ++tap)
            ring[head + *tap] ^= feedback;
        for (; tap != end; ++tap)
            ring[*tap - after_head] ^= feedback;
    }

    Bytes parity_of_lane(const std::vector<uint64_t>& ring, std::size_t head, std::size_t lane) const {
        Bytes parity = m_correction;
        for (std::size_t bit = 0; bit < m_degree; ++bit) {
            const uint64_t value = ring[(head + bit) % m_degree] >> lane & 1U;
            parity[bit / 8] = static_cast<uint8_t>(parity[bit / 8] ^ (value << bit % 8));
        }
        return parity;
    }

    std::size_t m_degree;
    Bytes m_correction{};
    std::vector<std::size_t> m_taps{};
};

}  // namespace bch_tests
