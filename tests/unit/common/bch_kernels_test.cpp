#include "bch_encoding.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

using test_support::available_bch_paths;
using test_support::bch_slow_parity;
using test_support::put_bytes_at;

// Encodes as the sum of the parities of the message's set bits, so that ten thousand codewords take seconds.
// The parity of a bit is x times that of the bit after it. Taps and the parity of zeros come from the slow
// encoder, with which a test compares this judge.
class SumOfBits {
public:
    explicit SumOfBits(unsigned t)
        : m_parity_bytes(test_support::bch_parity_bytes(t)), m_parities(test_support::kBchMessageBits) {
        Bytes message(test_support::kBchMessageBytes, 0);
        m_of_zeros = register_of(bch_slow_parity(message.data(), t));
        message.back() = 0x80;
        const Register taps = register_of(bch_slow_parity(message.data(), t)) ^ m_of_zeros;
        Register parity = taps;
        for (std::size_t bit = m_parities.size(); bit-- > 0;) {
            m_parities[bit] = parity;
            parity = parity[0] ? parity >> 1 ^ taps : parity >> 1;
        }
    }

    std::vector<Bytes> parities(const std::vector<Bytes>& messages) const {
        std::vector<Bytes> result;
        for (const Bytes& message : messages) {
            Register sum = m_of_zeros;
            for (std::size_t byte = 0; byte < message.size(); ++byte)
                for (unsigned rest = message[byte]; rest != 0; rest &= rest - 1)
                    sum ^= m_parities[8 * byte + static_cast<std::size_t>(std::countr_zero(rest))];
            result.push_back(bytes_of(sum));
        }
        return result;
    }

private:
    using Register = std::bitset<8 * 112>;  // of the largest strength, in the order of the stream

    static Register register_of(const Bytes& parity) {
        Register bits;
        for (std::size_t bit = 0; bit < 8 * parity.size(); ++bit)
            bits[bit] = (parity[bit / 8] >> bit % 8 & 1) != 0;
        return bits;
    }

    Bytes bytes_of(const Register& bits) const {
        Bytes parity(m_parity_bytes, 0);
        for (std::size_t bit = 0; bit < 8 * parity.size(); ++bit)
            if (bits[bit])
                flip_bit(parity, bit);
        return parity;
    }

    std::size_t m_parity_bytes;
    Register m_of_zeros{};
    std::vector<Register> m_parities;
};

std::vector<Bytes> random_messages(uint32_t count, uint32_t first_seed = 0) {
    std::vector<Bytes> messages;
    for (uint32_t i = 0; i < count; ++i)
        messages.push_back(random_message(first_seed + i));
    return messages;
}

// ---- every path against a slow encoder ----

// Encodes the messages in place, `group` codewords to a call.
std::vector<Bytes> parities_by_units(const std::vector<Bytes>& messages, uint32_t group) {
    const auto count = static_cast<uint32_t>(messages.size());
    Bytes page(std::size_t{count} * AllBytesNum, 0xA5);
    for (std::size_t i = 0; i < count; ++i)
        put_bytes_at(page, i * AllBytesNum, messages[i]);
    const std::vector<uint8_t*> units = units_of(page, 0, count, AllBytesNum);
    for (uint32_t i = 0; i < count; i += group)
        bch_encode_units(units.data() + i, std::min(group, count - i));
    std::vector<Bytes> parities;
    for (std::size_t i = 0; i < count; ++i)
        parities.push_back(test_support::slice(page, i * AllBytesNum + 1028, CodecBytesNum));
    return parities;
}

void expect_parities_on_every_path(const std::vector<Bytes>& messages, const std::vector<Bytes>& expected,
                                   uint32_t group) {
    for (const BchPath& path : available_bch_paths()) {
        bch_select_path(path);
        ASSERT_EQ(parities_by_units(messages, group), expected) << path.name;
        ASSERT_EQ(parity_of(messages[0]), expected[0]) << path.name;
    }
}

class BchPaths : public BchTest, public ::testing::WithParamInterface<int> {
protected:
    BchPaths() { bch_init(static_cast<uint16_t>(GetParam())); }

    unsigned t() const { return static_cast<unsigned>(GetParam()); }

    const SumOfBits m_judge{t()};
};

TEST_P(BchPaths, HaveAJudgeThatEqualsTheSlowEncoder) {
    std::vector<Bytes> messages = random_messages(14);
    messages.insert(messages.end(), {Bytes(1028, 0), Bytes(1028, 0xFF)});
    const std::vector<Bytes> parities = m_judge.parities(messages);
    for (std::size_t i = 0; i < messages.size(); ++i)
        ASSERT_EQ(parities[i], bch_slow_parity(messages[i].data(), t())) << i;
}

TEST_P(BchPaths, EqualTheJudgeOnTenThousandCodewords) {
    for (uint32_t batch = 0; batch < 157; ++batch) {
        const std::vector<Bytes> messages = random_messages(64, 10048 * t() + 64 * batch);
        // Units of a page are encoded side by side, so the number of them matters.
        const uint32_t units_per_page = 1 + batch % 17;
        ASSERT_NO_FATAL_FAILURE(
            expect_parities_on_every_path(messages, m_judge.parities(messages), units_per_page))
            << "batch " << batch;
    }
}

TEST_P(BchPaths, EqualTheJudgeOnEverySingleBit) {
    for (std::size_t byte = 0; byte < test_support::kBchMessageBytes; ++byte) {
        std::vector<Bytes> messages(8, Bytes(1028, 0));
        for (std::size_t bit = 0; bit < 8; ++bit)
            flip_bit(messages[bit], 8 * byte + bit);
        ASSERT_NO_FATAL_FAILURE(expect_parities_on_every_path(messages, m_judge.parities(messages), 4))
            << "byte " << byte;
    }
}

INSTANTIATE_TEST_SUITE_P(Strengths, BchPaths, ::testing::Values(4, 8, 16, 24, 40, 60),
                         [](const auto& test) { return numbered("t", test.param); });

// Register sizes, and parities whose last byte is not full.
TEST_F(BchTest, EncodesAlikeOnEveryPathForEveryStrength) {
    std::vector<Bytes> messages = random_messages(3);
    messages.insert(messages.end(), {Bytes(1028, 0), Bytes(1028, 0xFF)});
    for (unsigned t = 1; t <= kLargestBchStrength; ++t) {
        bch_init(static_cast<uint16_t>(t));
        std::vector<Bytes> expected;
        for (const Bytes& message : messages)
            expected.push_back(bch_slow_parity(message.data(), t));
        ASSERT_NO_FATAL_FAILURE(expect_parities_on_every_path(messages, expected, 5)) << "t = " << t;
    }
}

// ---- the units of a page ----

struct PageCase {
    BchPath path;
    uint16_t t;
};

class BchUnits : public BchTest, public ::testing::WithParamInterface<PageCase> {
protected:
    BchUnits() {
        bch_init(GetParam().t);
        bch_select_path(GetParam().path);
        m_parities = SumOfBits(GetParam().t).parities(m_messages);
    }

    // Encodes `count` units of a page of random bytes, the first of them at `start`.
    void expect_page(std::size_t start, uint32_t count, uint32_t stride) const {
        const std::size_t size = start + (count == 0 ? 0 : std::size_t{count - 1} * stride + AllBytesNum);
        Bytes page = test_support::patterned(size, stride);
        for (uint32_t i = 0; i < count; ++i)
            put_bytes_at(page, start + std::size_t{i} * stride, m_messages.at(i));
        Bytes expected = page;
        for (uint32_t i = 0; i < count; ++i)
            put_bytes_at(expected, start + std::size_t{i} * stride + 1028, m_parities.at(i));
        bch_encode_units(units_of(page, start, count, stride).data(), count);
        ASSERT_EQ(page, expected) << count << " units, stride " << stride << ", at " << start;
    }

    const std::vector<Bytes> m_messages = random_messages(17);
    std::vector<Bytes> m_parities;
};

TEST_P(BchUnits, AreEncodedWhereverTheyLie) {
    for (const uint32_t count : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 15U, 16U, 17U})
        ASSERT_NO_FATAL_FAILURE(expect_page(0, count, AllBytesNum));
    for (const uint32_t gap : {1U, 3U, 19U, 1000U})
        ASSERT_NO_FATAL_FAILURE(expect_page(0, 5, AllBytesNum + gap));
    for (std::size_t start = 1; start < 16; ++start)
        ASSERT_NO_FATAL_FAILURE(expect_page(start, start % 2 == 0 ? 4 : 1, AllBytesNum));
}

TEST_P(BchUnits, TakeOtherSystemBytesOnEveryPath) {
    Bytes changed = m_messages[0];
    test_support::put32_at(changed, 1024, 0x89ABCDEF);
    Bytes codeword = encoded(m_messages[0]);
    bch_replace_system_bytes(codeword.data(), 0x89ABCDEF);
    EXPECT_EQ(codeword, encoded(changed));
}

std::vector<PageCase> page_cases() {
    std::vector<PageCase> cases;
    for (const BchPath& path : available_bch_paths())
        for (const uint16_t t : {uint16_t{16}, uint16_t{18}, uint16_t{24}, uint16_t{60}})
            cases.push_back({path, t});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Paths, BchUnits, ::testing::ValuesIn(page_cases()), [](const auto& test) {
    return numbered(std::string(test.param.path.name) + "_t", test.param.t);
});

}  // namespace
