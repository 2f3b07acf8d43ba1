#pragma once

// Bends inputs where it counts: numbers of the format get numbers that are wild, or fit each other almost.
// After a checksum that does not fit nothing would be reached, so it is repaired nearly always.

#include "fuzz_target.h"
#include "support/bytes.h"

#include <cstddef>
#include <functional>
#include <random>

namespace robustness {

// Changes bytes without knowing what they are, and leaves at most `largest` of them.
using BlindMutation = std::function<void(test_support::Bytes& bytes, std::size_t largest)>;

class Mutation {
public:
    Mutation(const FuzzTarget& target, unsigned seed, BlindMutation blind)
        : m_target(target), m_random(seed), m_blind(std::move(blind)) {}

    void apply(test_support::Bytes& input, std::size_t largest);

private:
    bool one_in(unsigned count) { return m_random() % count == 0; }
    std::size_t below(std::size_t count) { return m_random() % count; }
    void bend_numbers(test_support::Bytes& input, const Structure& structure);
    uint64_t number_for(const test_support::Bytes& input, const Field& field, const std::vector<Field>& all);
    void change_region(test_support::Bytes& input, const Structure& structure);
    void insert_word(test_support::Bytes& input);

    const FuzzTarget& m_target;
    std::minstd_rand m_random;
    BlindMutation m_blind;
};

}  // namespace robustness
