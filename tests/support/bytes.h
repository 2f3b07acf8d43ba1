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
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
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

inline constexpr auto put8 = put_integer<uint8_t>;
inline constexpr auto put16 = put_integer<uint16_t>;
inline constexpr auto put32 = put_integer<uint32_t>;
inline constexpr auto put64 = put_integer<uint64_t>;

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

inline constexpr auto put8_at = put_integer_at<uint8_t>;
inline constexpr auto put16_at = put_integer_at<uint16_t>;
inline constexpr auto put32_at = put_integer_at<uint32_t>;

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

inline constexpr auto get16 = get_integer<uint16_t>;
inline constexpr auto get32 = get_integer<uint32_t>;
inline constexpr auto get64 = get_integer<uint64_t>;

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

// What stands between the separators.
inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);)
        pieces.push_back(piece);
    return pieces;
}

// True when every byte of [offset, offset + size) is `value`.
inline bool all_bytes_are(const Bytes& bytes, uint8_t value, std::size_t offset, std::size_t size) {
    return slice(bytes, offset, size) == Bytes(size, value);
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

inline Bytes read_file_at(const std::filesystem::path& path, uint64_t offset, std::size_t size) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    Bytes bytes(size);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return bytes;
}

inline Bytes read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file)
        throw std::runtime_error("cannot open " + path.string());
    return read_file_at(path, 0, static_cast<std::size_t>(file.tellg()));
}

inline void write_file(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

// Names and contents.
using Files = std::map<std::string, Bytes>;

// The regular files of a directory.
inline Files files_in(const std::filesystem::path& directory) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.is_regular_file())
            files[entry.path().filename()] = read_file(entry.path());
    return files;
}

inline std::set<std::string> names_in(const std::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// Where directories lie in memory, if the machine offers that; else the system's temporary directory.
inline std::filesystem::path memory_directory() {
    const char* const in_memory = "/dev/shm";
    return access(in_memory, W_OK | X_OK) == 0 ? in_memory : std::filesystem::temp_directory_path();
}

// A new directory, removed with everything in it at the end of the object's life.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(
        const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::string pattern = (parent / "nandsmith-test-XXXXXX").string();
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
inline uint32_t crc32_standard(const Bytes& bytes) {
    uint32_t crc = 0xFFFFFFFFU;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return ~crc;
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
inline Bytes rc4_scrambled_by_sector(const Bytes& data) {
    Bytes result;
    for (std::size_t at = 0; at < data.size(); at += kSectorSize)
        put_bytes(result, rc4_scrambled(slice(data, at, std::min(kSectorSize, data.size() - at))));
    return result;
}

}  // namespace test_support
