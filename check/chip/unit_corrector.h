#pragma once

#include "../../src/common/bch.h"
#include "../../src/common/bch/decoder.h"

#include <cstdint>

/// What the parity says of a unit of SLC NAND.
struct UnitVerdict {
    bool correctable = false;  ///< false: it has more flipped bits than the parity corrects; the rest is 0
    bool erased = false;       ///< all 0xFF, but for the flipped bits
    uint32_t cleared = 0;      ///< bits that were 0 and should be 1
    uint32_t set = 0;          ///< bits that were 1 and should be 0

    uint32_t flips() const { return cleared + set; }
};

/// Judges units of SLC NAND by their parity alone, and corrects them.
class UnitCorrector {
public:
    /// Units that are judged together.
    static constexpr uint32_t kGroup = kBchUnitsTogether;

    /// Judges up to kGroup units of kUnit bytes. Flipped bits of a correctable unit are put right in it; the
    /// other units stay as they are.
    void judge(uint8_t* const* units, uint32_t count, UnitVerdict* verdicts) const;

private:
    BchDecoder m_decoder;
};
