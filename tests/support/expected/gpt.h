#pragma once

// The GPT: protective MBR, header and 128 entries, with the GUIDs of a generator that nobody seeds.

#include "support/bytes.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

inline constexpr std::size_t kGptBytes = 34 * kSectorSize;
inline constexpr uint64_t kLastUsableSector = 0xFFFFFFDD;  // of a disk of 0xFFFFFFFF sectors

// The random GUIDs of the C library's sequence from a seed on: of four draws each, the top, the upper middle,
// the lower middle and the bottom byte make one word; then version 4 and the variant's top bit.
class GuidSequence {
public:
    explicit GuidSequence(unsigned seed = 1) { std::srand(seed); }

    static Bytes next() {
        Bytes guid;
        for (int byte = 0; byte < 16; ++byte)
            guid.push_back(static_cast<uint8_t>(static_cast<uint32_t>(std::rand()) >> (24 - 8 * (byte % 4))));
        guid[7] = static_cast<uint8_t>((guid[7] & 0x0F) | 0x40);
        guid[8] = static_cast<uint8_t>(guid[8] | 0x80);
        return guid;
    }
};

struct GptEntry {
    std::string
        name{};  // a NUL in place of the colon; its first 36 characters are kept, each widened with its sign
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t attributes = 0;
    std::optional<Bytes> guid{};  // else a random one
};

inline Bytes protective_mbr() {
    Bytes mbr(kSectorSize, 0);
    put8_at(mbr, 450, 0xEE);
    put32_at(mbr, 454, 1);
    put32_at(mbr, 458, 0xFFFFFFFF);
    put16_at(mbr, 510, 0xAA55);
    return mbr;
}

inline Bytes gpt_entry(const GptEntry& entry) {
    Bytes bytes = GuidSequence::next();
    const Bytes random = GuidSequence::next();  // drawn in any case
    put_bytes(bytes, entry.guid.value_or(random));
    put64(bytes, entry.first);
    put64(bytes, entry.last);
    put64(bytes, entry.attributes);
    for (const char unit : entry.name.substr(0, 36))
        put16(bytes, static_cast<uint16_t>(static_cast<int8_t>(unit)));
    return zero_padded(bytes, 128);
}

// The 34 sectors; starts the sequence of GUIDs anew.
inline Bytes gpt_table(const std::vector<GptEntry>& entries, uint64_t disk_sectors = 0xFFFFFFFF) {
    const GuidSequence guids;
    const Bytes disk_guid = guids.next();
    Bytes array;
    for (const GptEntry& entry : entries)
        put_bytes(array, gpt_entry(entry));
    array.resize(128 * 128, 0);

    Bytes header = to_bytes("EFI PART");
    put32(header, 0x00010000);
    put32(header, 92);
    put64(header, 0);  // CRC, reserved
    put64(header, 1);
    put64(header, disk_sectors - 1);
    put64(header, 34);
    put64(header, disk_sectors - 34);
    put_bytes(header, disk_guid);
    put64(header, 2);
    put32(header, 128);
    put32(header, 128);
    put32(header, crc32_standard(array));
    put32_at(header, 16, crc32_standard(header));
    return protective_mbr() + zero_padded(header, kSectorSize) + array;
}

// Makes both checksums right after a change. The table begins at the first byte.
inline void repair_gpt_checksums(Bytes& image) {
    constexpr std::size_t header = kSectorSize;
    put32_at(image, header + 88, crc32_standard(slice(image, 2 * kSectorSize, 128 * 128)));
    put32_at(image, header + 16, 0);
    put32_at(image, header + 16, crc32_standard(slice(image, header, 92)));
}

}  // namespace test_support
