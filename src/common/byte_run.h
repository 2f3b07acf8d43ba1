#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// True when each of the count bytes is value; also when count is 0.
inline bool holds_only(const uint8_t* bytes, uint64_t count, uint8_t value) {
    // The first byte is compared with value, each other one with the byte before it: memcmp is fast.
    return count == 0 ||
           (bytes[0] == value && std::memcmp(bytes, bytes + 1, static_cast<std::size_t>(count - 1)) == 0);
}
