#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

static_assert(std::endian::native == std::endian::little,
              "packed records are laid over bytes of little-endian formats");

/// Reads little-endian values and packed records out of bytes that somebody else wrote.
/// holds() is the one bounds check of all parsing.
class ByteReader {
public:
    ByteReader(const uint8_t* data, uint64_t size) : m_data(data), m_size(size) {}

    /// True when length bytes lie at offset; both in bytes, their sum may exceed 64 bits.
    bool holds(uint64_t offset, uint64_t length) const {
        return offset <= m_size && length <= m_size - offset;
    }

    /// Copies length bytes at offset to out. False, with out unchanged, when they do not all lie inside.
    bool read(uint64_t offset, void* out, uint64_t length) const {
        if (!holds(offset, length))
            return false;
        if (length != 0)
            std::memcpy(out, m_data + offset, static_cast<std::size_t>(length));
        return true;
    }

    /// Reads one value or packed record at offset. False, with value unchanged, when it does not lie inside.
    template <typename T>
    bool read(uint64_t offset, T& value) const {
        static_assert(std::is_trivially_copyable_v<T>);
        return read(offset, &value, sizeof(T));
    }

private:
    const uint8_t* m_data;
    uint64_t m_size;
};

/// The little-endian value of type T at bytes, for a field of a record that was read.
template <typename T>
T little_endian_at(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}
