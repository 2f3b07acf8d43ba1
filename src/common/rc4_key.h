#pragma once

#include <array>
#include <cstdint>

/// The key that scrambles the boot blocks of this build.
extern const std::array<uint8_t, 16> kBuildKey;

/// "development" for the key that no device has, "own" for any other.
const char* build_key_kind();
