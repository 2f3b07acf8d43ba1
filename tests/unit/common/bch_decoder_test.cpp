#include "bch_decoding.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <vector>

namespace {

using namespace bch_tests;

using test_support::available_bch_paths;
using test_support::bch_decode;
using test_support::DecodeResult;

// What the textbook decoder makes of a unit.
DecodeResult judged(const Bytes& unit) {
    return bch_decode(unit.data(), unit.data() + test_support::kBchMessageBytes, 16);
}

bool judge_finds(const Bytes& unit, const Bits& bits) {
    const DecodeResult result = judged(unit);
    return result.status == (bits.empty() ? DecodeResult::Status::clean : DecodeResult::Status::corrected) &&
           std::equal(bits.begin(), bits.end(), result.wrong_bits.begin(), result.wrong_bits.end());
}

Bytes with_wrong_bits(Bytes unit, const Bits& bits) {
    for (const uint16_t bit : bits)
        flip_bit(unit, bit);
    return unit;
}

// ---- remainders ----

Bytes random_unit(uint32_t seed) {
    return test_support::patterned(BchDecoder::kUnitBytes, seed);
}

// Bit for bit the difference between the parity that belongs to the message and the one that is there.
Remainder slow_remainder(const Bytes& unit) {
    const Bytes parity = test_support::bch_slow_parity(unit.data(), 16);
    Remainder remainder{};
    for (std::size_t i = 0; i < parity.size(); ++i)
        remainder.word[i / 8] |= uint64_t{static_cast<uint8_t>(parity[i] ^ unit[1028 + i])} << i % 8 * 8;
    return remainder;
}

TEST_F(BchDecoding, LeavesNothingOfAValidUnitOnAnyPath) {
    for (const BchPath& path : available_bch_paths()) {
        bch_select_path(path);
        for (const Bytes& message : {random_message(1), Bytes(1028, 0), Bytes(1028, 0xFF)})
            EXPECT_EQ(remainder_of(encoded(message)), Remainder{}) << path.name;
        EXPECT_EQ(remainder_of(Bytes(BchDecoder::kUnitBytes, 0xFF)), Remainder{}) << path.name;
    }
}

TEST_F(BchDecoding, LeavesTheSameRemainderOnEveryPath) {
    constexpr uint32_t most = 2 * kBchUnitsTogether + 1;
    constexpr Remainder untouched{{1, 2, 3, 4}};
    std::vector<Bytes> units;
    std::vector<const uint8_t*> addresses;
    std::vector<Remainder> expected;
    for (uint32_t seed = 0; seed < most; ++seed) {
        units.push_back(random_unit(seed));
        expected.push_back(slow_remainder(units.back()));
    }
    for (const Bytes& unit : units)
        addresses.push_back(unit.data());
    for (const BchPath& path : available_bch_paths()) {
        bch_select_path(path);
        for (uint32_t count = 0; count <= most; ++count) {
            std::vector<Remainder> remainders(most, untouched);
            m_decoder.remainders(addresses.data(), count, remainders.data());
            std::vector<Remainder> wanted(expected.begin(), expected.begin() + count);
            wanted.resize(most, untouched);
            ASSERT_EQ(remainders, wanted) << path.name << ", " << count << " units";
        }
    }
}

TEST_F(BchDecoding, CountsNoCodewordsAsEncoded) {
    const uint64_t before = bch_encoded_codewords();
    remainder_of(random_unit(1));
    EXPECT_EQ(bch_encoded_codewords(), before);
}

TEST_F(BchDecoding, ConfiguresTheCodeThatItNeeds) {
    const Bytes unit = with_wrong_bits(encoded(random_message(1)), {0, 4000, 8447});
    bch_init(24);
    const BchDecoder decoder;
    EXPECT_EQ(MaxBitsNum, 16U);
    EXPECT_EQ(bits_of(decoder.find_flips(remainder_of(unit))), (Bits{0, 4000, 8447}));
}

TEST_F(BchDecoding, KeepsThePathOfTheCodeThatItNeeds) {
    bch_select_path(kBchPortable);
    const BchDecoder decoder;
    EXPECT_EQ(bch_selected_path().name, "portable");
}

using BchDecodingDeathTest = BchDecoding;

TEST_F(BchDecodingDeathTest, RefusesRemaindersOfAnotherCode) {
    bch_init(24);
    EXPECT_DEATH(remainder_of(random_unit(1)), "remainders.*Assertion");
}

// ---- up to 16 wrong bits ----

TEST_F(BchDecoding, FindsNothingInAValidUnit) {
    EXPECT_EQ(bits_of(m_decoder.find_flips(Remainder{})), Bits{});
}

TEST_F(BchDecoding, CorrectsEverySingleBit) {
    const Bytes valid = encoded(random_message(2));
    Bytes unit = valid;
    for (uint16_t bit = 0; bit < kUnitBits; ++bit) {
        flip_bit(unit, bit);
        const Flips flips = m_decoder.find_flips(remainder_of(unit));
        ASSERT_EQ(bits_of(flips), Bits{bit}) << bit;
        ASSERT_TRUE(judge_finds(unit, {bit})) << bit;
        BchDecoder::correct(unit.data(), flips);
        ASSERT_EQ(unit, valid) << bit;
    }
}

TEST_F(BchDecoding, FindsAllPairsInAWindow) {
    const Bytes valid = encoded(random_message(3));
    for (uint16_t first = 8192; first < 8192 + 64; ++first) {
        for (auto second = static_cast<uint16_t>(first + 1); second < 8192 + 64; ++second) {
            ASSERT_EQ(find({first, second}), (Bits{first, second}));
            ASSERT_TRUE(judge_finds(with_wrong_bits(valid, {first, second}), {first, second}));
        }
    }
}

TEST_F(BchDecoding, FindsAllPairsThatHaveACertainBit) {
    for (const uint16_t bit : Bits{0, 8191, 8192, 8223, 8224, 8447}) {
        for (uint16_t other = 0; other < kUnitBits; ++other) {
            if (other == bit)
                continue;
            ASSERT_EQ(find({bit, other}), (Bits{std::min(bit, other), std::max(bit, other)}));
        }
    }
}

TEST_F(BchDecoding, FindsPairsAcrossTheEndsOfAUnit) {
    const Bytes valid = encoded(random_message(4));
    for (uint16_t first = 0; first < 32; ++first) {
        for (auto last = static_cast<uint16_t>(kUnitBits - 32); last < kUnitBits; ++last) {
            ASSERT_EQ(find({first, last}), (Bits{first, last}));
            ASSERT_TRUE(judge_finds(with_wrong_bits(valid, {first, last}), {first, last}));
        }
    }
}

// 2 to 16 bits that follow one another at each distance of 1 to 64.
TEST_F(BchDecoding, FindsBitsAtEqualDistances) {
    std::mt19937 generator(5);
    for (uint32_t count = 2; count <= 16; ++count) {
        for (uint32_t distance = 1; distance <= 64; ++distance) {
            const uint32_t most = static_cast<uint32_t>(kUnitBits) - (count - 1) * distance;
            for (const uint32_t first : {0U, static_cast<uint32_t>(generator()) % most, most - 1}) {
                Bits bits(count);
                for (uint32_t i = 0; i < count; ++i)
                    bits[i] = static_cast<uint16_t>(first + i * distance);
                ASSERT_EQ(find(bits), bits)
                    << count << " bits from " << first << ", " << distance << " apart";
            }
        }
    }
}

struct RandomCase {
    uint32_t flips;
    uint32_t seed;
};

class BchDecodingOfFlips : public BchDecoding, public ::testing::WithParamInterface<RandomCase> {};

TEST_P(BchDecodingOfFlips, AreFoundInRandomPatterns) {
    constexpr uint32_t patterns = 1'000'000 / (15 * 4) + 1;
    std::mt19937 generator(16 * GetParam().seed + GetParam().flips);
    for (uint32_t i = 0; i < patterns; ++i) {
        const Bits bits = random_bits(GetParam().flips, generator);
        ASSERT_EQ(find(bits), bits) << "pattern " << i;
    }
}

TEST_P(BchDecodingOfFlips, AreCorrectedInUnitsOnEveryPath) {
    std::mt19937 generator(16 * GetParam().seed + GetParam().flips);
    for (uint32_t i = 0; i < 25; ++i) {
        const Bits bits = random_bits(GetParam().flips, generator);
        const Bytes valid = encoded(random_message(i));
        const Bytes unit = with_wrong_bits(valid, bits);
        ASSERT_TRUE(judge_finds(unit, bits)) << i;
        for (const BchPath& path : available_bch_paths()) {
            bch_select_path(path);
            const Flips flips = m_decoder.find_flips(remainder_of(unit));
            ASSERT_EQ(bits_of(flips), bits) << path.name;
            Bytes corrected = unit;
            BchDecoder::correct(corrected.data(), flips);
            ASSERT_EQ(corrected, valid) << path.name;
        }
    }
}

std::vector<RandomCase> random_cases() {
    std::vector<RandomCase> cases;
    for (uint32_t flips = 2; flips <= 16; ++flips)
        for (uint32_t seed = 0; seed < 4; ++seed)
            cases.push_back({flips, seed});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Random, BchDecodingOfFlips, ::testing::ValuesIn(random_cases()),
                         [](const auto& test) {
                             return numbered(numbered("flips", static_cast<int>(test.param.flips)) + "_seed",
                                             static_cast<int>(test.param.seed));
                         });

// ---- more wrong bits ----

class BchDecodingBeyond : public BchDecoding {
protected:
    // Refused, or up to 16 bits that explain the remainder: then another codeword is as near as that.
    void expect_honest(const Remainder& remainder) const {
        const std::optional<Bits> bits = bits_of(m_decoder.find_flips(remainder));
        if (!bits)
            return;
        ASSERT_TRUE(!bits->empty() && bits->size() <= 16);
        ASSERT_EQ(std::ranges::adjacent_find(*bits, std::greater_equal{}), bits->end()) << "not ascending";
        ASSERT_LT(bits->back(), kUnitBits);
        ASSERT_EQ(remainder_of_bits(*bits), remainder);
    }

    // The bits of a valid unit with few of them, in a code where all zeros are valid: two bits of the message
    // and the parity of both.
    Bits light_codeword(std::size_t most_bits) const {
        for (uint16_t first = 0; first < 8224; ++first) {
            for (auto second = static_cast<uint16_t>(first + 1); second < 8224; ++second) {
                const Remainder parity = remainder_of_bits({first, second});
                Bits bits{first, second};
                for (uint16_t bit = 0; bit < 224; ++bit)
                    if ((parity.word[bit / 64] >> bit % 64 & 1) != 0)
                        bits.push_back(static_cast<uint16_t>(8224 + bit));
                if (bits.size() <= most_bits)
                    return bits;
            }
        }
        return {};
    }
};

TEST_F(BchDecodingBeyond, RefusesOrFindsAnotherCodeword) {
    std::mt19937 generator(6);
    for (uint32_t i = 0; i < 100'000; ++i)
        ASSERT_NO_FATAL_FAILURE(expect_honest(remainder_of_bits(random_bits(17 + i % 48, generator)))) << i;
}

TEST_F(BchDecodingBeyond, RefusesOrExplainsAnyRemainder) {
    std::mt19937_64 generator(7);
    for (uint32_t i = 0; i < 50'000; ++i)
        ASSERT_NO_FATAL_FAILURE(
            expect_honest({{generator(), generator(), generator(), generator() & 0xFFFFFFFF}}));
    for (uint32_t bit = 0; bit < 224; ++bit) {
        Remainder remainder{};
        remainder.word[bit / 64] = uint64_t{1} << bit % 64;
        ASSERT_EQ(bits_of(m_decoder.find_flips(remainder)), Bits{static_cast<uint16_t>(8224 + bit)});
    }
}

TEST_F(BchDecodingBeyond, RefusesWhatTheJudgeRefuses) {
    std::mt19937 generator(8);
    const Bytes valid = encoded(random_message(8));
    for (uint32_t count = 17; count <= 64; ++count) {
        const Bytes unit = with_wrong_bits(valid, random_bits(count, generator));
        for (const BchPath& path : available_bch_paths()) {
            bch_select_path(path);
            ASSERT_EQ(bits_of(m_decoder.find_flips(remainder_of(unit))), std::nullopt)
                << path.name << ", " << count;
        }
        ASSERT_EQ(judged(unit).status, DecodeResult::Status::failed) << count;
    }
}

// A codeword but for 1 to 16 of its bits is as many bits away from the whole of it.
TEST_F(BchDecodingBeyond, FindsTheBitsToAnotherCodeword) {
    std::mt19937 generator(9);
    Bits codeword = light_codeword(80);
    ASSERT_GT(codeword.size(), 32U);
    ASSERT_EQ(remainder_of_bits(codeword), Remainder{});
    for (std::ptrdiff_t missing = 1; missing <= 16; ++missing) {
        std::ranges::shuffle(codeword, generator);
        Bits rest(codeword.begin(), codeword.begin() + missing);
        std::ranges::sort(rest);
        EXPECT_EQ(find(Bits(codeword.begin() + missing, codeword.end())), rest);
    }
}

TEST_F(BchDecodingBeyond, LeavesAUnitThatIsNotCorrectable) {
    std::mt19937 generator(10);
    const Bytes unit = with_wrong_bits(encoded(random_message(10)), random_bits(40, generator));
    Bytes corrected = unit;
    const Flips flips = m_decoder.find_flips(remainder_of(unit));
    EXPECT_EQ(bits_of(flips), std::nullopt);
    BchDecoder::correct(corrected.data(), flips);
    EXPECT_EQ(corrected, unit);
}

// ---- powers that a unit lacks ----

// What x^power leaves, for all powers of the code that is not shortened.
class BchDecodingOfPowers : public BchDecodingBeyond {
protected:
    BchDecodingOfPowers() {
        const Remainder taps = remainders_of_bits()[kUnitBits - 1 - 224];  // of x^224
        Remainder value = remainders_of_bits()[kUnitBits - 1];             // of x^0
        for (uint32_t power = 0; power < 16383; ++power) {
            m_remainders.push_back(value);
            const bool leaves = (value.word[0] & 1) != 0;
            for (std::size_t k = 0; k < 4; ++k)
                value.word[k] = value.word[k] >> 1 | (k < 3 ? value.word[k + 1] << 63 : 0);
            if (leaves)
                value = value ^ taps;
        }
        m_after_all = value;
    }

    std::vector<Remainder> m_remainders{};
    Remainder m_after_all{};
};

TEST_F(BchDecodingOfPowers, RefusesPlacesAfterTheLastOfAUnit) {
    EXPECT_EQ(m_after_all, m_remainders[0]) << "x^16383 is 1";
    for (uint32_t power = 0; power < kUnitBits; ++power)
        ASSERT_EQ(m_remainders[power], remainders_of_bits()[kUnitBits - 1 - power]) << power;
    for (std::size_t power = kUnitBits; power < m_remainders.size(); ++power)
        ASSERT_EQ(bits_of(m_decoder.find_flips(m_remainders[power])), std::nullopt) << power;
}

TEST_F(BchDecodingOfPowers, RefusesPatternsWithOnePlaceTooFar) {
    std::mt19937 generator(11);
    for (uint32_t i = 0; i < 15'000; ++i) {
        const std::size_t power = kUnitBits + generator() % (m_remainders.size() - kUnitBits);
        const Remainder inside = remainder_of_bits(random_bits(1 + i % 15, generator));
        ASSERT_EQ(bits_of(m_decoder.find_flips(inside ^ m_remainders[power])), std::nullopt) << i;
    }
}

}  // namespace
