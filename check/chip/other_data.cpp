#include "other_data.h"

#include "../../src/common/bch/decoder.h"

bool holds_other_data(const uint8_t* unit) {
    static const BchDecoder decoder;
    BchDecoder::Remainder remainder{};
    decoder.remainders(&unit, 1, &remainder);
    return decoder.find_flips(remainder).correctable;
}
