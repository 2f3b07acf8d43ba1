// Inputs that once broke a target, described in code. Each stays, so that what it broke stays mended.

#include "fuzz_target.h"
#include "small_firmware.h"

namespace robustness {

using namespace test_support;

namespace {

// With a spare area that is too small every page of padding is refused with a line: a parameter partition of
// 2 TiB printed for hours.
NamedInput refused_padding_of_two_tebibytes() {
    Firmware firmware = small_firmware();
    for (Item& item : firmware.items)
        if (item.name == "parameter")
            item.part_size = 0xFFFFFFFE;
    Bytes input = firmware.build();
    constexpr uint8_t slc = 3;
    constexpr uint8_t spare_of_33_bytes = 5;
    for (const uint8_t control : {slc, uint8_t{0}, uint8_t{0}, spare_of_33_bytes})
        input.push_back(control);
    return {"refused-padding-of-2-tebibytes", input};
}

}  // namespace

std::vector<NamedInput> findings_of(const FuzzTarget& target) {
    if (target.run == run_conversion)
        return {refused_padding_of_two_tebibytes()};
    return {};
}

}  // namespace robustness
