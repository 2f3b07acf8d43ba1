#include "rc4_key.h"

#include "hexadecimal.h"

#include <cstddef>
#include <string_view>

namespace {

/// "nandsmith-devkey". No device has it: images for a device need the key of its boot ROM.
constexpr std::string_view kDevelopmentKeyText = "6e616e64736d6974682d6465766b6579";

}  // namespace

// A build with a key of its own defines it for this file alone, so that it stands in no other object.
#ifndef NANDSMITH_RC4_KEY
#define NANDSMITH_RC4_KEY kDevelopmentKeyText
#endif

namespace {

constexpr bool is_rc4_key_text(std::string_view text) {
    for (char digit : text)
        if (hexadecimal_value(digit) < 0)
            return false;
    return text.size() == 32;
}

constexpr std::array<uint8_t, 16> rc4_key_of(std::string_view text) {
    std::array<uint8_t, 16> key{};
    for (std::size_t i = 0; i < key.size(); ++i)
        key[i] =
            static_cast<uint8_t>(hexadecimal_value(text[2 * i]) * 16 + hexadecimal_value(text[2 * i + 1]));
    return key;
}

static_assert(is_rc4_key_text(NANDSMITH_RC4_KEY), "NANDSMITH_RC4_KEY must be exactly 32 hexadecimal digits");

constexpr bool kIsDevelopmentKey = rc4_key_of(NANDSMITH_RC4_KEY) == rc4_key_of(kDevelopmentKeyText);

}  // namespace

constinit const std::array<uint8_t, 16> kBuildKey = rc4_key_of(NANDSMITH_RC4_KEY);

const char* build_key_kind() {
    return kIsDevelopmentKey ? "development" : "own";
}
