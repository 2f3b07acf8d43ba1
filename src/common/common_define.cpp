#include "common_define.h"

#include "rc4_key.h"

#include <array>
#include <cstddef>
#include <utility>

namespace {

constexpr uint32_t kBootContainerGenerator = 0x04C10DB7;
constexpr uint32_t kStandardGenerator = 0x04C11DB7;
constexpr uint32_t kReflectedGenerator = 0xEDB88320;
constexpr uint16_t kCrc16Generator = 0x8005;
constexpr uint16_t kCcittGenerator = 0x1021;

constexpr uint32_t msb_first_entry(uint32_t index, uint32_t generator) {
    uint32_t remainder = index << 24;
    for (int bit = 0; bit < 8; ++bit)
        remainder = (remainder << 1) ^ ((remainder & 0x80000000U) != 0 ? generator : 0U);
    return remainder;
}

constexpr uint32_t boot_container_entry(uint32_t index) {
    return msb_first_entry(index, kBootContainerGenerator);
}

constexpr uint32_t reflected_entry(uint32_t index) {
    uint32_t remainder = index;
    for (int bit = 0; bit < 8; ++bit)
        remainder = (remainder >> 1) ^ ((remainder & 1U) != 0 ? kReflectedGenerator : 0U);
    return remainder;
}

}  // namespace

// 256 entries each, computed by the compiler.
#define ENTRIES_4(entry, i) entry(i), entry((i) + 1), entry((i) + 2), entry((i) + 3)
#define ENTRIES_16(entry, i)                                                                                 \
    ENTRIES_4(entry, i), ENTRIES_4(entry, (i) + 4), ENTRIES_4(entry, (i) + 8), ENTRIES_4(entry, (i) + 12)
#define ENTRIES_64(entry, i)                                                                                 \
    ENTRIES_16(entry, i), ENTRIES_16(entry, (i) + 16), ENTRIES_16(entry, (i) + 32),                          \
        ENTRIES_16(entry, (i) + 48)
#define ENTRIES_256(entry)                                                                                   \
    ENTRIES_64(entry, 0), ENTRIES_64(entry, 64), ENTRIES_64(entry, 128), ENTRIES_64(entry, 192)

constinit const uint32_t gCrc32Table[256] = {ENTRIES_256(boot_container_entry)};
constinit const uint32_t crc32table_le[256] = {ENTRIES_256(reflected_entry)};

uint32_t crc32(const uint8_t* data, uint32_t len, const uint32_t* init) {
    uint32_t crc = init != nullptr ? *init : 0;
    for (uint32_t i = 0; i < len; ++i)
        crc = (crc << 8) ^ gCrc32Table[(crc >> 24) ^ data[i]];
    return crc;
}

uint32_t crc32_le(const uint8_t* data, uint32_t len, uint32_t seed) {
    uint32_t crc = ~seed;
    for (uint32_t i = 0; i < len; ++i)
        crc = (crc >> 8) ^ crc32table_le[(crc ^ data[i]) & 0xFF];
    return ~crc;
}

void make_crc_table(uint32_t* table) {
    for (uint32_t i = 0; i < 256; ++i)
        table[i] = msb_first_entry(i, kStandardGenerator);
}

void BuildCrc16Table(uint16_t poly, uint16_t* table) {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t remainder = i << 8;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder << 1) ^ ((remainder & 0x8000U) != 0 ? poly : 0U);
        table[i] = static_cast<uint16_t>(remainder);  // the low 16 bits are the remainder
    }
}

uint16_t crc16(const uint8_t* data, uint32_t len) {
    uint16_t table[256];
    BuildCrc16Table(kCrc16Generator, table);
    uint32_t crc = 0;
    for (uint32_t i = 0; i < len; ++i)
        crc = ((crc << 8) ^ table[(crc >> 8) ^ data[i]]) & 0xFFFF;
    return static_cast<uint16_t>(crc);
}

uint16_t crc_calculate(uint16_t crc, uint8_t byte) {
    uint32_t value = crc;
    for (int bit = 7; bit >= 0; --bit) {
        const uint32_t feedback = ((value >> 15) ^ (static_cast<uint32_t>(byte) >> bit)) & 1;
        value = ((value << 1) & 0xFFFF) ^ (feedback != 0 ? kCcittGenerator : 0U);
    }
    return static_cast<uint16_t>(value);
}

uint16_t crc_ccitt(const uint8_t* data, uint32_t len) {
    uint16_t crc = 0xFFFF;
    for (uint32_t i = 0; i < len; ++i)
        crc = crc_calculate(crc, data[i]);
    return crc;
}

void rc4_with_key(uint8_t* buf, uint32_t len, const uint8_t* key, uint32_t key_len) {
    std::array<uint8_t, 256> state;
    for (std::size_t k = 0; k < state.size(); ++k)
        state[k] = static_cast<uint8_t>(k);

    uint8_t j = 0;  // the sums of indexes are modulo 256
    for (std::size_t i = 0; i < state.size(); ++i) {
        j = static_cast<uint8_t>(j + state[i] + key[i % key_len]);
        std::swap(state[i], state[j]);
    }

    uint8_t i = 0;
    j = 0;
    for (uint32_t n = 0; n < len; ++n) {
        i = static_cast<uint8_t>(i + 1);
        j = static_cast<uint8_t>(j + state[i]);
        std::swap(state[i], state[j]);
        buf[n] ^= state[static_cast<uint8_t>(state[i] + state[j])];
    }
}

void rc4(uint8_t* buf, uint32_t len) {
    rc4_with_key(buf, len, kBuildKey.data(), static_cast<uint32_t>(kBuildKey.size()));
}
