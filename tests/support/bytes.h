#pragma once

// Little-endian byte helpers, whole-file access and independent checksums for the tests. Nothing in here is
// shared with the program under test, so that a mistake in one of the two shows as a difference.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace test_support {

using Bytes = std::vector<uint8_t>;

inline constexpr std::size_t kSectorSize = 512;
inline constexpr std::size_t kIb = 1024;
inline constexpr std::size_t kMib = 1024 * kIb;

// The key with which the target's boot ROM descrambles the boot block.
inline constexpr std::string_view kDeviceRc4Key = "nandsmith-devkey";

inline uint64_t round_up(uint64_t value, uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

// ---- appending ----

template <typename Integer>
void put_integer(Bytes& bytes, Integer value) {
    for (std::size_t i = 0; i < sizeof(Integer); ++i)
        bytes.push_back(static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i)));
}

inline void put8(Bytes& bytes, uint8_t value) {
    bytes.push_back(value);
}
inline void put16(Bytes& bytes, uint16_t value) {
    put_integer(bytes, value);
}
inline void put32(Bytes& bytes, uint32_t value) {
    put_integer(bytes, value);
}
inline void put64(Bytes& bytes, uint64_t value) {
    put_integer(bytes, value);
}

inline void put_bytes(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// Appends exactly `width` bytes: the text, cut or padded with NUL.
inline void put_text(Bytes& bytes, std::string_view text, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
        bytes.push_back(i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0});
}

// ---- overwriting; std::out_of_range when the field does not lie inside the bytes ----

inline void put_bytes_at(Bytes& bytes, std::size_t offset, const Bytes& field) {
    if (offset > bytes.size() || field.size() > bytes.size() - offset)
        throw std::out_of_range("field outside the bytes");
    std::copy(field.begin(), field.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

template <typename Integer>
void put_integer_at(Bytes& bytes, std::size_t offset, Integer value) {
    Bytes field;
    put_integer(field, value);
    put_bytes_at(bytes, offset, field);
}

inline void put8_at(Bytes& bytes, std::size_t offset, uint8_t value) {
    bytes.at(offset) = value;
}
inline void put16_at(Bytes& bytes, std::size_t offset, uint16_t value) {
    put_integer_at(bytes, offset, value);
}
inline void put32_at(Bytes& bytes, std::size_t offset, uint32_t value) {
    put_integer_at(bytes, offset, value);
}
inline void put64_at(Bytes& bytes, std::size_t offset, uint64_t value) {
    put_integer_at(bytes, offset, value);
}

inline void put_text_at(Bytes& bytes, std::size_t offset, std::string_view text, std::size_t width) {
    Bytes field;
    put_text(field, text, width);
    put_bytes_at(bytes, offset, field);
}

// ---- reading; std::out_of_range when the field does not lie inside the bytes ----

template <typename Integer>
Integer get_integer(const Bytes& bytes, std::size_t offset) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Integer); ++i)
        value |= static_cast<uint64_t>(bytes.at(offset + i)) << (8 * i);
    return static_cast<Integer>(value);
}

inline uint16_t get16(const Bytes& bytes, std::size_t offset) {
    return get_integer<uint16_t>(bytes, offset);
}
inline uint32_t get32(const Bytes& bytes, std::size_t offset) {
    return get_integer<uint32_t>(bytes, offset);
}
inline uint64_t get64(const Bytes& bytes, std::size_t offset) {
    return get_integer<uint64_t>(bytes, offset);
}

inline Bytes slice(const Bytes& bytes, std::size_t offset, std::size_t size) {
    if (offset > bytes.size() || size > bytes.size() - offset)
        throw std::out_of_range("slice outside the bytes");
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(first, first + static_cast<std::ptrdiff_t>(size));
}

// The bytes with zeros after them, `size` in all.
inline Bytes zero_padded(Bytes bytes, uint64_t size) {
    bytes.resize(static_cast<std::size_t>(size), 0);
    return bytes;
}

// The bytes, filled up to whole units.
inline Bytes padded(Bytes bytes, std::size_t unit, uint8_t fill = 0) {
    bytes.resize(static_cast<std::size_t>(round_up(bytes.size(), unit)), fill);
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    put_bytes(left, right);
    return left;
}

inline Bytes to_bytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

inline std::string to_text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// True when every byte of [offset, offset + size) is `value`.
inline bool all_bytes_are(const Bytes& bytes, uint8_t value, std::size_t offset, std::size_t size) {
    if (offset > bytes.size() || size > bytes.size() - offset)
        throw std::out_of_range("range outside the bytes");
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return std::all_of(first, first + static_cast<std::ptrdiff_t>(size),
                       [value](uint8_t byte) { return byte == value; });
}

// Pseudo-random bytes, the same for the same seed on every machine.
inline Bytes patterned(std::size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(),
                  [&generator] { return static_cast<uint8_t>(generator() >> 11); });
    return bytes;
}

// ---- files ----

inline Bytes read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file)
        throw std::runtime_error("cannot open " + path.string());
    Bytes bytes(static_cast<std::size_t>(file.tellg()));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return bytes;
}

inline void write_file(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

inline std::set<std::string> names_in(const std::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// A directory of its own under the system's temporary directory, removed with everything in it at the end of
// the object's life.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "nandsmith-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot create " + pattern);
        m_path = pattern;
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// ---- checksums and scrambling ----

// The boot container's checksum: MSB first, start 0, no final inversion. The generator differs from the usual
// 0x04C11DB7 in bit 12; containers in the field carry exactly this value.
inline uint32_t crc32_boot(const uint8_t* data, std::size_t size) {
    uint32_t crc = 0;
    for (std::size_t i = 0; i < size; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool feedback = ((crc >> 31) ^ (static_cast<uint32_t>(data[i]) >> bit & 1U)) != 0;
            crc = (crc << 1) ^ (feedback ? 0x04C10DB7U : 0U);
        }
    }
    return crc;
}

inline uint32_t crc32_boot(const Bytes& bytes) {
    return crc32_boot(bytes.data(), bytes.size());
}

// The common CRC-32 (reflected, start and end inverted), as a GPT uses it.
inline uint32_t crc32_standard(const uint8_t* data, std::size_t size) {
    uint32_t crc = 0xFFFFFFFFU;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return ~crc;
}

inline uint32_t crc32_standard(const Bytes& bytes) {
    return crc32_standard(bytes.data(), bytes.size());
}

// RC4 over the whole of `data` with a fresh keystream; applying it twice gives the input back.
inline Bytes rc4_scrambled(Bytes data, std::string_view key = kDeviceRc4Key) {
    std::array<uint8_t, 256> state{};
    std::iota(state.begin(), state.end(), uint8_t{0});
    uint8_t j = 0;
    for (std::size_t i = 0; i < state.size(); ++i) {
        j = static_cast<uint8_t>(j + state[i] + static_cast<uint8_t>(key[i % key.size()]));
        std::swap(state[i], state[j]);
    }
    uint8_t i = 0;
    j = 0;
    for (uint8_t& byte : data) {
        i = static_cast<uint8_t>(i + 1);
        j = static_cast<uint8_t>(j + state[i]);
        std::swap(state[i], state[j]);
        byte = static_cast<uint8_t>(byte ^ state[static_cast<uint8_t>(state[i] + state[j])]);
    }
    return data;
}

// RC4 with the keystream started afresh at every sector, as the boot ROM reads scrambled boot stages.
inline Bytes rc4_scrambled_by_sector(const Bytes& data, std::string_view key = kDeviceRc4Key) {
    Bytes result;
    for (std::size_t offset = 0; offset < data.size(); offset += kSectorSize) {
        put_bytes(result,
                  rc4_scrambled(slice(data, offset, std::min(kSectorSize, data.size() - offset)), key));
    }
    return result;
}

}  // namespace test_support
