#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// A number of the command line or of a table: decimal, or 0x and hexadecimal digits, then K, M or G for a
/// power of 1024. Nothing for any other text and for what 64 bits do not hold.
std::optional<uint64_t> strict_number(std::string_view text);
