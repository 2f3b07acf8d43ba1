#pragma once

// Random numbers of the chip simulator. They are the same with every standard library and mathematics
// library: nothing in here calls a distribution or a logarithm.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace test_support {

// What a stream of random numbers is for. Streams for different purposes or numbers have nothing in common,
// so the blocks of a chip can be made in any order.
enum class DicePurpose : uint64_t {
    factory_bad = 1,
    failure = 2,
    old_data = 3,
    ageing = 4,
    ruin = 5,
    choice = 6,
};

// The generator splitmix64.
class ChipDice {
public:
    // number: of the block, or whatever else the stream belongs to.
    ChipDice(uint64_t seed, DicePurpose purpose, uint64_t number) : m_state(seed) {
        m_state = next() ^ static_cast<uint64_t>(purpose) << 56;
        m_state = next() ^ number;
        m_state = next();
    }

    uint64_t next() {
        m_state += 0x9E3779B97F4A7C15;
        uint64_t mixed = m_state;
        mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
        return mixed ^ mixed >> 31;
    }

    // 0 to end - 1; end is not 0.
    uint64_t below(uint64_t end) { return next() % end; }
    // 0 or more, less than 1.
    double fraction() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    bool chance(double probability) { return fraction() < probability; }

    void fill(std::span<uint8_t> bytes) {
        uint64_t word = 0;
        for (std::size_t i = 0; i < bytes.size(); ++i, word >>= 8) {
            if (i % 8 == 0)
                word = next();
            bytes[i] = static_cast<uint8_t>(word);
        }
    }

private:
    uint64_t m_state;
};

// Leaps from one rare event to the next, so that the trials without an event cost nothing.
class RareEvents {
public:
    // probability: of the event in each trial, 0 to 1.
    explicit RareEvents(double probability) {
        double none = 1 - probability;
        for (double& power : m_none) {
            power = none;
            none *= none;
        }
    }

    // Trials without the event before the next one. Never more than 2^40 - 1.
    uint64_t trials_without(ChipDice& dice) const {
        // The count is the largest n with (1 - probability)^n >= level. Its bits are found from the highest
        // on.
        const double level = 1 - dice.fraction();
        double none = 1;
        uint64_t trials = 0;
        for (std::size_t bit = m_none.size(); bit-- != 0;) {
            if (none * m_none[bit] < level)
                continue;
            none *= m_none[bit];
            trials |= uint64_t{1} << bit;
        }
        return trials;
    }

private:
    std::array<double, 40> m_none{};  // m_none[k]: the probability of 2^k trials without the event
};

}  // namespace test_support
