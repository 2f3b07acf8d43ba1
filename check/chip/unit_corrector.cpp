#include "unit_corrector.h"

#include "../../src/common/byte_run.h"
#include "../base/result.h"

#include <cassert>

namespace {

static_assert(BchDecoder::kUnitBytes == kUnit);

UnitVerdict corrected(uint8_t* unit, const BchDecoder::Flips& flips) {
    UnitVerdict verdict;
    verdict.correctable = flips.correctable;
    if (!flips.correctable)
        return verdict;
    for (uint32_t i = 0; i < flips.count; ++i) {
        const bool is_set = (unit[flips.bits[i] / 8] >> flips.bits[i] % 8 & 1) != 0;
        ++(is_set ? verdict.set : verdict.cleared);
    }
    BchDecoder::correct(unit, flips);
    verdict.erased = holds_only(unit, kUnit, 0xFF);
    return verdict;
}

}  // namespace

void UnitCorrector::judge(uint8_t* const* units, uint32_t count, UnitVerdict* verdicts) const {
    assert(count <= kGroup);
    BchDecoder::Remainder remainders[kGroup];
    m_decoder.remainders(units, count, remainders);
    for (uint32_t i = 0; i < count; ++i)
        verdicts[i] = corrected(units[i], m_decoder.find_flips(remainders[i]));
}
