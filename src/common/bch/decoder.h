#pragma once

#include <array>
#include <cstdint>

/// Finds flipped bits of SLC NAND units by their parity, up to t = 16 in each. A unit is 1024 bytes of data,
/// 4 system bytes and 28 bytes of parity, as bch_encode writes it.
class BchDecoder {
public:
    static constexpr uint32_t kUnitBytes = 1056;

    /// Calls bch_init(16) when the encoder has another t: its paths compute the remainders. The first decoder
    /// builds 220 KiB of tables, which all decoders share.
    BchDecoder();

    /// What the flipped bits of a unit are modulo the generator of the code: bit b of word w is the
    /// coefficient of x^(223 - 64 w - b). All words are 0 when the unit is valid. Remainders are linear: that
    /// of several flipped bits is the sum of those of each bit.
    struct Remainder {
        uint64_t word[4];

        bool operator==(const Remainder&) const = default;
    };

    /// Bits of a unit that are wrong. Bit 8 i + k is bit k of byte i.
    struct Flips {
        bool correctable;
        uint32_t count;
        std::array<uint16_t, 16> bits;  ///< the first count are ascending
    };

    /// Sets out[i] to the remainder of units[i], each of kUnitBytes bytes, for i below count. A multiple of
    /// kBchUnitsTogether takes the least time for each. The encoder must still have t = 16 (asserted).
    void remainders(const uint8_t* const* units, uint32_t count, Remainder* out) const;

    /// The flipped bits of a unit with this remainder. Clean units have the count 0. When no set of up to 16
    /// bits leaves this remainder, correctable is false and the count is 0; no two sets leave the same.
    ///
    /// So a unit with more flips is refused, unless it lies within 16 bits of another valid unit. Then the
    /// bits that differ from that unit are the result. For flips at random this hardly ever happens.
    Flips find_flips(const Remainder& remainder) const;

    /// Flips these bits of the unit, none when they are not correctable.
    static void correct(uint8_t* unit, const Flips& flips);

private:
    struct Tables;

    static const Tables& shared_tables();

    const Tables* m_tables;
};
