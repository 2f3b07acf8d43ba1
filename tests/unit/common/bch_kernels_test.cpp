#include "bch_encoding.h"
#include "bit_serial_lanes.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace bch_tests;

using test_support::available_bch_paths;
using test_support::bch_slow_parity;

// ---- every path against the bit-serial encoder ----

// `count` units in `page`, `stride` bytes apart, the first of them at `start`.
std::vector<uint8_t*> units_of(Bytes& page, std::size_t start, std::size_t count, std::size_t stride) {
    std::vector<uint8_t*> units;
    for (std::size_t i = 0; i < count; ++i)
        units.push_back(page.data() + start + i * stride);
    return units;
}

// Encodes the messages in place, `group` codewords to a call.
std::vector<Bytes> parities_by_units(const std::vector<Bytes>& messages, uint32_t group) {
    const uint32_t stride = AllBytesNum;
    const auto count = static_cast<uint32_t>(messages.size());
    Bytes page(std::size_t{count} * stride, 0xA5);
    for (std::size_t i = 0; i < messages.size(); ++i)
        std::copy(messages[i].begin(), messages[i].end(), page.data() + i * stride);
    const std::vector<uint8_t*> units = units_of(page, 0, count, stride);
    for (uint32_t i = 0; i < count; i += group)
        bch_encode_units(units.data() + i, std::min(group, count - i));
    std::vector<Bytes> parities;
    for (std::size_t i = 0; i < messages.size(); ++i)
        parities.push_back(test_support::slice(page, i * stride + 1028, CodecBytesNum));
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
};

TEST_P(BchPaths, HaveAJudgeThatEqualsTheSlowEncoder) {
    std::vector<Bytes> messages = {Bytes(1028, 0), Bytes(1028, 0xFF)};
    for (uint32_t seed = 0; seed < 14; ++seed)
        messages.push_back(random_message(seed));
    const std::vector<Bytes> parities = BitSerialLanes(t()).parities(messages);
    for (std::size_t i = 0; i < messages.size(); ++i)
        ASSERT_EQ(parities[i], bch_slow_parity(messages[i].data(), t())) << i;
}

TEST_P(BchPaths, EqualTheJudgeOnTenThousandCodewords) {
    const BitSerialLanes judge(t());
    constexpr uint32_t batches = 10048 / BitSerialLanes::kLanes;
    for (uint32_t batch = 0; batch < batches; ++batch) {
        const Bytes random = test_support::patterned(BitSerialLanes::kLanes * 1028, 1000 * t() + batch);
        std::vector<Bytes> messages;
        for (std::size_t lane = 0; lane < BitSerialLanes::kLanes; ++lane)
            messages.push_back(test_support::slice(random, lane * 1028, 1028));
        // Units of a page are encoded side by side, so the number of them matters.
        const uint32_t units_per_page = 1 + batch % 17;
        ASSERT_NO_FATAL_FAILURE(
            expect_parities_on_every_path(messages, judge.parities(messages), units_per_page))
            << "batch " << batch;
    }
}

TEST_P(BchPaths, EqualTheJudgeOnEverySingleBit) {
    const BitSerialLanes judge(t());
    for (std::size_t first = 0; first < test_support::kBchMessageBits; first += BitSerialLanes::kLanes) {
        const std::size_t end = std::min(first + BitSerialLanes::kLanes, test_support::kBchMessageBits);
        std::vector<Bytes> messages;
        for (std::size_t bit = first; bit < end; ++bit) {
            messages.emplace_back(1028, uint8_t{0});
            flip_bit(messages.back(), bit);
        }
        ASSERT_NO_FATAL_FAILURE(expect_parities_on_every_path(messages, judge.parities(messages), 4))
            << "from bit " << first;
    }
}

INSTANTIATE_TEST_SUITE_P(Strengths, BchPaths, ::testing::Values(4, 8, 16, 24, 40, 60),
                         [](const auto& test) { return numbered("t", test.param); });

// Register sizes, and parities whose last byte is not full.
TEST_F(BchTest, EncodesAlikeOnEveryPathForEveryStrength) {
    std::vector<Bytes> messages = {Bytes(1028, 0), Bytes(1028, 0xFF)};
    for (uint32_t seed = 0; seed < 3; ++seed)
        messages.push_back(random_message(seed));
    for (unsigned t = 1; t <= 64; ++t) {
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
        for (uint32_t seed = 0; seed < 17; ++seed)
            m_messages.push_back(random_message(seed));
        m_parities = BitSerialLanes(GetParam().t).parities(m_messages);
    }

    // Encodes `count` units of a page of random bytes, the first of them at `start`.
    void expect_page(std::size_t start, uint32_t count, uint32_t stride) const {
        const std::size_t size = start + (count == 0 ? 0 : std::size_t{count - 1} * stride + AllBytesNum);
        Bytes page = test_support::patterned(size, stride);
        for (uint32_t i = 0; i < count; ++i)
            test_support::put_bytes_at(page, start + std::size_t{i} * stride, m_messages.at(i));
        Bytes expected = page;
        for (uint32_t i = 0; i < count; ++i)
            test_support::put_bytes_at(expected, start + std::size_t{i} * stride + 1028, m_parities.at(i));
        bch_encode_units(units_of(page, start, count, stride).data(), count);
        ASSERT_EQ(page, expected) << count << " units, stride " << stride << ", at " << start;
    }

    std::vector<Bytes> m_messages;
    std::vector<Bytes> m_parities;
};

TEST_P(BchUnits, AreEncodedInAnyNumber) {
    for (const uint32_t count : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 15U, 16U, 17U})
        ASSERT_NO_FATAL_FAILURE(expect_page(0, count, AllBytesNum));
}

TEST_P(BchUnits, LeaveTheBytesBetweenThemAlone) {
    for (const uint32_t gap : {1U, 3U, 19U, 1000U})
        ASSERT_NO_FATAL_FAILURE(expect_page(0, 5, AllBytesNum + gap));
}

TEST_P(BchUnits, MayStartAtAnyAddress) {
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
        for (const int t : {16, 18, 24, 60})
            cases.push_back({path, static_cast<uint16_t>(t)});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Paths, BchUnits, ::testing::ValuesIn(page_cases()), [](const auto& test) {
    return numbered(std::string(test.param.path.name) + "_t", test.param.t);
});

}  // namespace
