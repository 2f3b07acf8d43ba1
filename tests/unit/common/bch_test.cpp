#include "bch_encoding.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

using test_support::bch_slow_parity;

constexpr uint16_t kStrongest = 64;

// ---- configuration ----

TEST_F(BchTest, ConfiguresTheSizesOfEveryStrength) {
    const struct {
        uint16_t t;
        uint32_t parity_bits, parity_bytes, parity_words, all_bits, all_bytes, spare_size;
    } rows[] = {{1, 14, 2, 1, 8238, 1030, 2},       {2, 28, 4, 1, 8252, 1032, 4},
                {3, 42, 6, 2, 8266, 1034, 6},       {5, 70, 9, 3, 8294, 1037, 8},
                {16, 224, 28, 7, 8448, 1056, 28},   {24, 336, 42, 11, 8560, 1070, 42},
                {40, 560, 70, 18, 8784, 1098, 70},  {60, 840, 105, 27, 9064, 1133, 106},
                {64, 896, 112, 28, 9120, 1140, 112}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.t);
        bch_init(row.t);
        EXPECT_EQ(MaxBitsNum, row.t);
        EXPECT_EQ(CodecBitsNum, row.parity_bits);
        EXPECT_EQ(CodecBytesNum, row.parity_bytes);
        EXPECT_EQ(CodecWordsNum, row.parity_words);
        EXPECT_EQ(AllBitsNum, row.all_bits);
        EXPECT_EQ(AllBytesNum, row.all_bytes);
        EXPECT_EQ(BCHSpareSize, row.spare_size);
    }
}

TEST_F(BchTest, ConfiguresTheSameMessageForEveryStrength) {
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
        ASSERT_EQ(alpha_to, nullptr) << "the tables of the field are freed";
        ASSERT_EQ(index_of, nullptr);
    }
}

TEST_F(BchTest, ReconfiguresAtALaterInit) {
    const Bytes message = random_message(1);
    for (const uint16_t t : {uint16_t{16}, uint16_t{60}, uint16_t{16}}) {
        bch_init(t);
        EXPECT_EQ(MaxBitsNum, t);
        EXPECT_EQ(rr, 14U * t);
        EXPECT_EQ(parity_of(message), bch_slow_parity(message.data(), t));
    }
}

using BchDeathTest = BchTest;

TEST_F(BchDeathTest, RefusesStrengthsOutsideOneTo64) {
    for (const uint16_t t : {uint16_t{0}, uint16_t{65}, uint16_t{65535}})
        EXPECT_DEATH(bch_init(t), "bch_init.*Assertion") << t;
}

// ---- encoding ----

class BchStrength : public BchTest, public ::testing::WithParamInterface<int> {
protected:
    BchStrength() { bch_init(static_cast<uint16_t>(GetParam())); }
};

TEST_P(BchStrength, EncodesTheSameInPlaceAndIntoAnotherBuffer) {
    const Bytes message = random_message(2);
    const Bytes after(8, 0x77);
    const Bytes input = message;
    Bytes output = Bytes(AllBytesNum, 0xA5) + after;
    bch_encode(input.data(), output.data());
    EXPECT_EQ(input, message);
    EXPECT_EQ(output, message + parity_of(message) + after);

    Bytes in_place = message + Bytes(CodecBytesNum, 0x77) + after;
    bch_encode(in_place.data(), in_place.data());
    EXPECT_EQ(in_place, output);
}

TEST_P(BchStrength, ReplacesSystemBytesAsIfEncodedAnew) {
    const Bytes message = random_message(5);
    const Bytes after(8, 0x77);
    Bytes codeword = encoded(message) + after;
    std::vector<uint32_t> values = {0,      1,       2,          0x80,       0x100,
                                    0xFFFF, 0x10000, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFF};
    for (uint32_t page = 0; page < 300; page += 4)
        values.push_back(page);
    for (uint32_t bit = 0; bit < 32; ++bit)
        values.push_back(uint32_t{1} << bit);
    for (const uint32_t value : values) {
        Bytes changed = message;
        test_support::put32_at(changed, 1024, value);
        bch_replace_system_bytes(codeword.data(), value);
        ASSERT_EQ(codeword, encoded(changed) + after) << value;
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
    const std::vector<uint8_t*> units = units_of(page, 0, 9, AllBytesNum);
    bch_encode_units(units.data(), 9);
    EXPECT_EQ(bch_encoded_codewords(), before + 10);
    bch_encode_units(units.data(), 0);
    bch_replace_system_bytes(page.data(), 77);
    EXPECT_EQ(bch_encoded_codewords(), before + 10);
}

// For the other strengths the parity is the bare remainder.
TEST_F(BchTest, MakesAnErasedPageValidForThreeStrengths) {
    for (uint16_t t = 1; t <= kStrongest; ++t) {
        const bool erased_is_valid = t == 16 || t == 24 || t == 60;
        bch_init(t);
        ASSERT_EQ(encoded(Bytes(1028, 0xFF)) == Bytes(AllBytesNum, 0xFF), erased_is_valid) << "t = " << t;
        ASSERT_EQ(parity_of(Bytes(1028, 0)) != Bytes(CodecBytesNum, 0), erased_is_valid) << "t = " << t;
    }
}

// ---- what a flash controller makes of it ----

TEST_F(BchTest, MakesCodewordsThatADecoderFindsClean) {
    for (const int t : {1, 5, 16, 24, 60, 64}) {
        bch_init(static_cast<uint16_t>(t));
        for (uint32_t seed = 0; seed < 10; ++seed) {
            const Bytes codeword = encoded(random_message(seed));
            EXPECT_TRUE(test_support::bch_decode(codeword.data(), codeword.data() + 1028, MaxBitsNum).clean())
                << t;
        }
    }
}

using Bits = std::set<std::size_t>;

// What a decoder for 16 wrong bits makes of a codeword with these.
test_support::DecodeResult decoded_with(const Bits& wrong_bits, uint32_t seed) {
    Bytes codeword = encoded(random_message(seed));
    for (const std::size_t bit : wrong_bits)
        flip_bit(codeword, bit);
    return test_support::bch_decode(codeword.data(), codeword.data() + 1028, 16);
}

Bits random_bits(std::size_t count, uint32_t seed) {
    std::mt19937 generator(seed);
    Bits bits;
    while (bits.size() < count)
        bits.insert(generator() % AllBitsNum);
    return bits;
}

TEST_F(BchTest, MakesCodewordsInWhichUpTo16WrongBitsAreFound) {
    bch_init(16);
    std::vector<Bits> cases = {{0}, {8191}, {8192}, {8223}, {8224}, {AllBitsNum - 1}};
    for (uint32_t i = 0; i < 64; ++i)
        cases.push_back(random_bits(1 + i / 4, i));
    for (const Bits& wrong_bits : cases) {
        const auto result = decoded_with(wrong_bits, static_cast<uint32_t>(wrong_bits.size()));
        ASSERT_EQ(result.status, test_support::DecodeResult::Status::corrected) << wrong_bits.size();
        ASSERT_EQ(Bits(result.wrong_bits.begin(), result.wrong_bits.end()), wrong_bits);
    }
}

TEST_F(BchTest, NeverMakes17WrongBitsLookClean) {
    bch_init(16);
    for (uint32_t round = 0; round < 5; ++round)
        EXPECT_FALSE(decoded_with(random_bits(17, round), round).clean());
}

}  // namespace
