#include "bch_encoding.h"

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

constexpr uint16_t kStrongest = 64;

// ---- configuration ----

struct Configuration {
    uint16_t t;
    uint32_t parity_bits, parity_bytes, parity_words, all_bits, all_bytes, spare_size;
};

class BchConfiguration : public BchTest, public ::testing::WithParamInterface<Configuration> {};

TEST_P(BchConfiguration, FollowsFromTheStrength) {
    const Configuration& expected = GetParam();
    bch_init(expected.t);
    EXPECT_EQ(MaxBitsNum, expected.t);
    EXPECT_EQ(CodecBitsNum, expected.parity_bits);
    EXPECT_EQ(CodecBytesNum, expected.parity_bytes);
    EXPECT_EQ(CodecWordsNum, expected.parity_words);
    EXPECT_EQ(AllBitsNum, expected.all_bits);
    EXPECT_EQ(AllBytesNum, expected.all_bytes);
    EXPECT_EQ(BCHSpareSize, expected.spare_size);
}

INSTANTIATE_TEST_SUITE_P(Strengths, BchConfiguration,
                         ::testing::Values(Configuration{1, 14, 2, 1, 8238, 1030, 2},
                                           Configuration{2, 28, 4, 1, 8252, 1032, 4},
                                           Configuration{3, 42, 6, 2, 8266, 1034, 6},
                                           Configuration{5, 70, 9, 3, 8294, 1037, 8},
                                           Configuration{16, 224, 28, 7, 8448, 1056, 28},
                                           Configuration{24, 336, 42, 11, 8560, 1070, 42},
                                           Configuration{40, 560, 70, 18, 8784, 1098, 70},
                                           Configuration{60, 840, 105, 27, 9064, 1133, 106},
                                           Configuration{64, 896, 112, 28, 9120, 1140, 112}),
                         [](const auto& test) { return numbered("t", test.param.t); });

TEST_F(BchTest, ConfiguresTheSameCodewordForEveryStrength) {
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        bch_init(t);
        ASSERT_EQ(mm, 14);
        ASSERT_EQ(CodeBytesNum, 1024U);
        ASSERT_EQ(SysBytesNum, 4U);
        ASSERT_EQ(CodeBitsNum, 8192U);
        ASSERT_EQ(DubCodeBitsNum, 16383U);
        ASSERT_EQ(CodeSysBitsNum, 8224U);
        ASSERT_EQ(CodeSysBytesNum, 1028U);
        ASSERT_EQ(BCHSpareSize % 2, 0U) << t;
        ASSERT_GE(BCHSpareSize + 1, CodecBytesNum) << t;
    }
}

TEST_F(BchTest, FreesTheFieldTablesBeforeInitReturns) {
    bch_init(16);
    EXPECT_EQ(alpha_to, nullptr);
    EXPECT_EQ(index_of, nullptr);
}

TEST_F(BchTest, ReconfiguresAtASecondInit) {
    const Bytes message = random_message(1);
    bch_init(16);
    const Bytes first = parity_of(message);
    bch_init(60);
    EXPECT_EQ(MaxBitsNum, 60U);
    EXPECT_EQ(rr, 840U);
    EXPECT_EQ(parity_of(message), test_support::bch_slow_parity(message.data(), 60));
    bch_init(16);
    EXPECT_EQ(rr, 224U);
    EXPECT_EQ(parity_of(message), first);
}

using BchDeathTest = BchTest;

TEST_F(BchDeathTest, RefusesStrengthsOutsideOneTo64) {
    EXPECT_DEATH(bch_init(0), "bch_init.*Assertion");
    EXPECT_DEATH(bch_init(65), "bch_init.*Assertion");
    EXPECT_DEATH(bch_init(65535), "bch_init.*Assertion");
}

// ---- encoding ----

class BchStrength : public BchTest, public ::testing::WithParamInterface<int> {
protected:
    BchStrength() { bch_init(static_cast<uint16_t>(GetParam())); }
};

TEST_P(BchStrength, EncodesTheSameInPlaceAndIntoAnotherBuffer) {
    const Bytes message = random_message(2);
    const Bytes distinct = encoded(message);
    EXPECT_EQ(test_support::slice(distinct, 0, 1028), message);

    Bytes in_place = message;
    in_place.resize(AllBytesNum + 8, 0x77);
    bch_encode(in_place.data(), in_place.data());
    EXPECT_EQ(test_support::slice(in_place, 0, AllBytesNum), distinct);
    EXPECT_TRUE(test_support::all_bytes_are(in_place, 0x77, AllBytesNum, 8));
}

TEST_P(BchStrength, LeavesTheInputOfAnotherBufferUntouched) {
    const Bytes message = random_message(3);
    Bytes input = message;
    Bytes output(AllBytesNum + 8, 0x77);
    bch_encode(input.data(), output.data());
    EXPECT_EQ(input, message);
    EXPECT_EQ(test_support::slice(output, 0, 1028), message);
    EXPECT_TRUE(test_support::all_bytes_are(output, 0x77, AllBytesNum, 8));
}

TEST_P(BchStrength, AddsParitiesAsItAddsMessages) {
    const Bytes constant = parity_of(Bytes(1028, 0));
    for (uint32_t seed = 0; seed < 20; ++seed) {
        const Bytes a = random_message(100 + seed);
        const Bytes b = random_message(200 + seed);
        // The constant that makes an erased page valid is in each of the parities once.
        const Bytes sum = exclusive_or(exclusive_or(parity_of(a), parity_of(b)), constant);
        ASSERT_EQ(parity_of(exclusive_or(a, b)), sum);
    }
}

TEST_P(BchStrength, ChangesTwiceTParityBitsWithOneDataBit) {
    const Bytes message = random_message(4);
    const Bytes before = parity_of(message);
    for (const std::size_t bit : {0U, 1U, 7U, 8U, 4095U, 8191U, 8192U, 8223U}) {
        Bytes flipped = message;
        flip_bit(flipped, bit);
        std::size_t changed = 0;
        for (const uint8_t byte : exclusive_or(before, parity_of(flipped)))
            changed += std::bitset<8>(byte).count();
        EXPECT_GE(changed, 2 * MaxBitsNum) << "bit " << bit;
    }
}

TEST_P(BchStrength, ReplacesSystemBytesAsIfEncodedAnew) {
    const Bytes message = random_message(5);
    Bytes codeword = encoded(message);
    codeword.resize(AllBytesNum + 8, 0x77);
    std::vector<uint32_t> values = {0,      1,       2,          0x80,       0x100,
                                    0xFFFF, 0x10000, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFF};
    for (uint32_t page = 0; page < 300; page += 4)
        values.push_back(page);
    for (uint32_t bit = 0; bit < 32; ++bit)
        values.push_back(uint32_t{1} << bit);
    for (const uint32_t value : values) {
        Bytes expected = message;
        test_support::put32_at(expected, 1024, value);
        expected = encoded(expected);
        expected.resize(codeword.size(), 0x77);
        bch_replace_system_bytes(codeword.data(), value);
        ASSERT_EQ(codeword, expected) << value;
    }
}

INSTANTIATE_TEST_SUITE_P(Strengths, BchStrength, ::testing::Values(1, 3, 4, 5, 8, 16, 18, 24, 40, 55, 60, 64),
                         [](const auto& test) { return numbered("t", test.param); });

TEST_F(BchTest, CountsTheCodewordsThatItEncodes) {
    bch_init(16);
    Bytes page = test_support::patterned(std::size_t{9} * AllBytesNum, 6);
    const uint64_t before = bch_encoded_codewords();
    bch_encode(page.data(), page.data());
    EXPECT_EQ(bch_encoded_codewords(), before + 1);
    std::vector<uint8_t*> units;
    for (std::size_t i = 0; i < 9; ++i)
        units.push_back(page.data() + i * AllBytesNum);
    bch_encode_units(units.data(), 9);
    EXPECT_EQ(bch_encoded_codewords(), before + 10);
    bch_encode_units(units.data(), 0);
    bch_replace_system_bytes(page.data(), 77);
    EXPECT_EQ(bch_encoded_codewords(), before + 10);
}

// ---- erased pages ----

TEST_F(BchTest, MakesAnErasedPageValidForThreeStrengths) {
    for (const uint16_t t : {uint16_t{16}, uint16_t{24}, uint16_t{60}}) {
        bch_init(t);
        EXPECT_EQ(encoded(Bytes(1028, 0xFF)), Bytes(AllBytesNum, 0xFF)) << "t = " << t;
        const Bytes constant = test_support::bch_slow_parity(Bytes(1028, 0).data(), t);
        EXPECT_EQ(parity_of(Bytes(1028, 0)), constant);
        EXPECT_NE(constant, Bytes(CodecBytesNum, 0));
    }
}

TEST_F(BchTest, KeepsTheBareRemainderForAllOtherStrengths) {
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        if (t == 16 || t == 24 || t == 60)
            continue;
        bch_init(t);
        ASSERT_EQ(parity_of(Bytes(1028, 0)), Bytes(CodecBytesNum, 0)) << "t = " << t;
        ASSERT_NE(parity_of(Bytes(1028, 0xFF)), Bytes(CodecBytesNum, 0xFF)) << "t = " << t;
    }
}

// ---- what a flash controller makes of it ----

TEST_F(BchTest, MakesCodewordsThatADecoderFindsClean) {
    for (const uint16_t t :
         {uint16_t{1}, uint16_t{5}, uint16_t{16}, uint16_t{24}, uint16_t{60}, kStrongest}) {
        bch_init(t);
        for (uint32_t seed = 0; seed < 10; ++seed) {
            const Bytes codeword = encoded(random_message(seed));
            EXPECT_TRUE(test_support::bch_decode(codeword.data(), codeword.data() + 1028, t).clean()) << t;
        }
    }
}

// Distinct bits of a codeword, ascending.
std::vector<std::size_t> random_bits(std::size_t count, std::size_t codeword_bits, uint32_t seed) {
    std::mt19937 generator(seed);
    std::vector<std::size_t> bits;
    while (bits.size() < count) {
        const std::size_t bit = generator() % codeword_bits;
        if (std::find(bits.begin(), bits.end(), bit) == bits.end())
            bits.push_back(bit);
    }
    std::sort(bits.begin(), bits.end());
    return bits;
}

TEST_F(BchTest, MakesCodewordsInWhichUpTo16WrongBitsAreFound) {
    bch_init(16);
    for (uint32_t flips = 1; flips <= 16; ++flips) {
        for (uint32_t round = 0; round < 4; ++round) {
            Bytes codeword = encoded(random_message(flips * 10 + round));
            const std::vector<std::size_t> bits = random_bits(flips, AllBitsNum, flips * 20 + round);
            for (const std::size_t bit : bits)
                flip_bit(codeword, bit);
            const auto result = test_support::bch_decode(codeword.data(), codeword.data() + 1028, 16);
            ASSERT_EQ(result.status, test_support::DecodeResult::Status::corrected) << flips;
            ASSERT_EQ(result.wrong_bits, bits);
        }
    }
}

TEST_F(BchTest, ProtectsTheFirstAndLastBitsOfACodeword) {
    bch_init(16);
    const Bytes codeword = encoded(random_message(7));
    for (const std::size_t bit : {std::size_t{0}, std::size_t{8191}, std::size_t{8192}, std::size_t{8223},
                                  std::size_t{8224}, std::size_t{AllBitsNum - 1}}) {
        Bytes damaged = codeword;
        flip_bit(damaged, bit);
        const auto result = test_support::bch_decode(damaged.data(), damaged.data() + 1028, 16);
        EXPECT_EQ(result.wrong_bits, std::vector<std::size_t>{bit});
    }
}

TEST_F(BchTest, NeverMakes17WrongBitsLookClean) {
    bch_init(16);
    for (uint32_t round = 0; round < 5; ++round) {
        Bytes codeword = encoded(random_message(round));
        for (const std::size_t bit : random_bits(17, AllBitsNum, round))
            flip_bit(codeword, bit);
        EXPECT_FALSE(test_support::bch_decode(codeword.data(), codeword.data() + 1028, 16).clean());
    }
}

}  // namespace
