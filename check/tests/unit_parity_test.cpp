#include "check/judge/unit_parity.h"

#include "support/bch_judge.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace test_support;

const UnitParity& parity() {
    static const UnitParity instance;
    return instance;
}

Bytes unit_of(const Bytes& message) {
    return message + bch_slow_parity(message.data(), 16);
}

// A batch of right units, and what an error makes of it.
class Batch {
public:
    Batch() {
        static const std::vector<Bytes> some = [] {
            std::vector<Bytes> units;
            for (uint32_t seed = 0; seed < 8; ++seed)
                units.push_back(unit_of(patterned(1028, seed)));
            return units;
        }();
        for (std::size_t i = 0; i < UnitParity::kBatch; ++i)
            m_units.push_back(some[i * i % some.size()]);
    }

    void add_error(std::size_t unit, const Bytes& error) {
        for (std::size_t i = 0; i < error.size(); ++i)
            m_units.at(unit).at(i) ^= error[i];
    }
    bool is_right() const {
        UnitParity::Batch batch{};
        for (std::size_t i = 0; i < batch.size(); ++i)
            batch[i] = m_units[i].data();
        return parity().are_right(batch);
    }

private:
    std::vector<Bytes> m_units{};
};

Bytes error_at(std::size_t byte, const Bytes& bits) {
    return Bytes(byte, 0) + bits;
}

TEST(UnitParity, UnitsOfTheFormatsExampleAreRight) {
    const Bytes others{0x4a, 0x17, 0xf5, 0xcb, 0x83, 0xdb, 0xde, 0xda, 0x04, 0x9f, 0xfc, 0xcd, 0x3c, 0xba,
                       0x05, 0x26, 0xf0, 0x90, 0x2b, 0x35, 0x31, 0xba, 0x78, 0x7f, 0x04, 0x1d, 0xe7, 0x36};
    const Bytes index_44{0x3d, 0x9b, 0x78, 0xd3, 0xf0, 0x9c, 0x09, 0xc4, 0x57, 0xc5, 0x5c, 0xdb, 0xa8, 0x47,
                         0x67, 0x7b, 0x58, 0x96, 0x7d, 0x54, 0x5e, 0xd8, 0x7e, 0xcf, 0xb1, 0x02, 0x7a, 0x2c};
    const Bytes zeros{0x14, 0x99, 0x55, 0x6f, 0x0e, 0xed, 0xc2, 0x3b, 0xe1, 0xd7, 0x68, 0x44, 0xdb, 0xc0,
                      0x65, 0x49, 0x50, 0x4b, 0xb0, 0xcd, 0xc3, 0x20, 0x36, 0x79, 0x51, 0x56, 0xb7, 0x39};
    const Bytes data(1024, 0);
    EXPECT_TRUE(parity().is_right((data + Bytes(4, 0xFF) + others).data()));
    EXPECT_TRUE(parity().is_right((data + Bytes{0x2C, 0, 0, 0} + index_44).data()));
    EXPECT_TRUE(parity().is_right((data + Bytes(4, 0) + zeros).data()));
    EXPECT_FALSE(parity().is_right((data + Bytes(4, 0) + others).data()));
}

TEST(UnitParity, ErasedUnitIsRightAndEmptyOneIsNot) {
    EXPECT_TRUE(parity().is_right(UnitParity::erased_unit()));
    EXPECT_FALSE(parity().is_right(Bytes(kUnit, 0).data()));
}

TEST(UnitParity, UnitsOfTheSlowEncoderAreRight) {
    for (uint32_t seed = 0; seed < 50; ++seed)
        EXPECT_TRUE(parity().is_right(unit_of(patterned(1028, seed)).data())) << seed;
}

TEST(UnitParity, EveryFlippedBitIsFound) {
    Bytes unit = unit_of(patterned(1028, 1));
    for (std::size_t bit = 0; bit < 8 * unit.size(); ++bit) {
        const auto mask = static_cast<uint8_t>(1U << bit % 8);
        unit[bit / 8] ^= mask;
        EXPECT_FALSE(parity().is_right(unit.data())) << bit;
        unit[bit / 8] ^= mask;
    }
}

TEST(UnitParity, BatchOfRightUnitsIsRight) {
    EXPECT_TRUE(Batch().is_right());
    UnitParity::Batch erased{};
    erased.fill(UnitParity::erased_unit());
    EXPECT_TRUE(parity().are_right(erased));
}

TEST(UnitParity, OneWrongUnitOfABatchIsFoundAnywhere) {
    for (std::size_t unit = 0; unit < UnitParity::kBatch; ++unit) {
        Batch batch;
        batch.add_error(unit, error_at(unit * 8, {0x10}));
        EXPECT_FALSE(batch.is_right()) << unit;
    }
}

TEST(UnitParity, OneErrorInAnyTwoUnitsIsFound) {
    const Bytes error = error_at(500, {0x01});
    Batch batch;
    for (std::size_t first = 0; first < UnitParity::kBatch; ++first) {
        batch.add_error(first, error);
        for (std::size_t second = first + 1; second < UnitParity::kBatch; ++second) {
            batch.add_error(second, error);
            EXPECT_FALSE(batch.is_right()) << first << " and " << second;
            batch.add_error(second, error);
        }
        batch.add_error(first, error);
    }
    EXPECT_TRUE(batch.is_right());
}

// The sum of the moved units alone would not find these.
TEST(UnitParity, ErrorsThatLieOnEachOtherAreFound) {
    for (std::size_t distance = 1; distance < UnitParity::kBatch; ++distance) {
        Batch batch;
        batch.add_error(0, error_at(500 + distance, {0xA5, 0x5A}));
        batch.add_error(distance, error_at(500, {0xA5, 0x5A}));
        EXPECT_FALSE(batch.is_right()) << distance;
    }
}

TEST(UnitParity, OneErrorInManyUnitsIsFound) {
    const std::vector<std::function<bool(std::size_t)>> choices{
        [](std::size_t) { return true; },
        [](std::size_t unit) { return unit % 2 == 0; },
        [](std::size_t unit) { return unit % 2 == 1; },
        [](std::size_t unit) { return unit % 4 == 3; },
        [](std::size_t unit) { return unit % 8 < 4; },
        [](std::size_t unit) { return unit < UnitParity::kBatch / 2; },
        [](std::size_t unit) { return unit >= UnitParity::kBatch - 4; },
    };
    for (std::size_t choice = 0; choice < choices.size(); ++choice) {
        for (const Bytes& error :
             {error_at(0, {0x80}), error_at(1024, {0x04}), error_at(1028, Bytes(28, 0xFF))}) {
            Batch batch;
            for (std::size_t unit = 0; unit < UnitParity::kBatch; ++unit)
                if (choices[choice](unit))
                    batch.add_error(unit, error);
            EXPECT_FALSE(batch.is_right()) << choice;
        }
    }
}

}  // namespace
