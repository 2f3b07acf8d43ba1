#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// True when all count bytes are value; of no bytes too.
inline bool holds_only(const uint8_t* bytes, uint64_t count, uint8_t value) {
    // Each byte equals the one before it: memcmp compares many at a time.
    return count == 0 ||
           (bytes[0] == value && std::memcmp(bytes, bytes + 1, static_cast<std::size_t>(count - 1)) == 0);
}
