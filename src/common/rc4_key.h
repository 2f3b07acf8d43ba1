#pragma once

#include "hexadecimal.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// The default is a development key ("nandsmith-devkey") that no device has: images for a device need the key
// of its boot ROM.
#ifndef NANDSMITH_RC4_KEY
#define NANDSMITH_RC4_KEY "6e616e64736d6974682d6465766b6579"
#endif

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

/// The key that scrambles the boot blocks of this build.
inline constexpr std::array<uint8_t, 16> kBuildKey = rc4_key_of(NANDSMITH_RC4_KEY);
