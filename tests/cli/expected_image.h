#pragma once

// The bytes that a conversion has to produce, put together from the firmware's description.

#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace cli_test {

using test_support::Bytes;
using test_support::kib;
using test_support::sector_size;


// An output file that is written page by page.
class ExpectedImage {
public:
    explicit ExpectedImage(std::size_t page_size, bool two_kilobytes_data = false)
        : page_size_(page_size), two_kilobytes_data_(two_kilobytes_data) {}

    const Bytes& bytes() const { return bytes_; }

    // Moves to the sector: fills the gap before it with pages of zeros, or goes back to it.
    ExpectedImage& at(uint64_t sector) {
        const auto offset = static_cast<std::size_t>(sector * sector_size);
        if (bytes_.size() >= offset) {
            position_ = offset;
            return *this;
        }
        position_ = bytes_.size();
        for (std::size_t missing = offset - bytes_.size(); missing > 0;) {
            const std::size_t step = std::min(missing, page_size_);
            write_page(Bytes(two_kilobytes_data_ ? page_size_ : step, 0));
            missing -= step;
        }
        return *this;
    }

    // Whole pages, the last one filled up with zeros.
    ExpectedImage& write(Bytes data) {
        data.resize(test_support::round_up(data.size(), page_size_), 0);
        for (std::size_t offset = 0; offset < data.size(); offset += page_size_) {
            write_page(test_support::slice(data, offset, page_size_));
        }
        return *this;
    }

    // A partition of so many sectors.
    ExpectedImage& partition(Bytes data, std::size_t sectors) {
        data.resize(std::max(data.size(), sectors * sector_size), 0);
        return write(std::move(data));
    }

    // Whole pages up to the end of the erase block, or past it.
    ExpectedImage& pad_to_block(std::size_t block_size) {
        position_ = bytes_.size();
        const std::size_t pad = test_support::round_up(position_, block_size) - position_;
        for (std::size_t done = 0; done < pad; done += page_size_) {
            write_page(Bytes(page_size_, 0));
        }
        return *this;
    }

private:
    void write_page(const Bytes& page) {
        if (!two_kilobytes_data_) {
            put(page);
            return;
        }
        for (std::size_t offset = 0; offset < page_size_; offset += 2 * kib) {
            Bytes flash_page = test_support::slice(page, offset, std::min(2 * kib, page_size_ - offset));
            flash_page.resize(page_size_, 0);
            put(flash_page);
        }
    }

    void put(const Bytes& page) {
        bytes_.resize(std::max(bytes_.size(), position_ + page.size()), 0);
        test_support::put_bytes_at(bytes_, position_, page);
        position_ += page.size();
    }

    std::size_t page_size_;
    bool two_kilobytes_data_;
    std::size_t position_ = 0;
    Bytes bytes_{};
};

// Sectors of a boot stage: whole units of 2 KB.
inline std::size_t stage_sectors(const Bytes& stage) {
    return test_support::round_up(stage.size(), 2 * kib) / sector_size;
}

// One boot block of `sectors` sectors, made of the container's first two loader entries: FlashData,
// FlashBoot.
inline Bytes boot_block(const test_support::BootContainer& boot, std::size_t sectors) {
    const Bytes& data = boot.loader.entries.at(0).data;
    const Bytes& code = boot.loader.entries.at(1).data;
    const bool scrambled = boot.rc4_flag != 0;

    Bytes first(sector_size, 0);
    test_support::put32_at(first, 0, 0x0FF0AA55);
    test_support::put32_at(first, 8, scrambled ? 1 : 0);
    test_support::put16_at(first, 12, 4);
    test_support::put16_at(first, 14, 4);
    test_support::put16_at(first, 506, static_cast<uint16_t>(stage_sectors(data)));
    test_support::put16_at(first, 508, static_cast<uint16_t>(stage_sectors(data) + stage_sectors(code)));
    Bytes second(sector_size, 0);
    test_support::put16_at(second, 0, 12);
    test_support::put16_at(second, 2, 0xFFFF);
    test_support::put_text_at(second, 10, "QZ28", 4);
    const Bytes empty = test_support::rc4_scrambled(Bytes(sector_size, 0));

    Bytes block = test_support::rc4_scrambled(first);
    test_support::put_bytes(block, second);
    test_support::put_bytes(block, empty);
    test_support::put_bytes(block, empty);
    test_support::put_bytes(block, scrambled ? test_support::rc4_scrambled_by_sector(data) : data);
    block.resize((4 + stage_sectors(data)) * sector_size, 0);
    test_support::put_bytes(block, scrambled ? test_support::rc4_scrambled_by_sector(code) : code);
    block.resize(sectors * sector_size, 0);
    return block;
}

// Copies of a parameter record, one at the start of each slot of so many pages.
inline Bytes parameter_copies(const Bytes& record, std::size_t copies, std::size_t slot_bytes) {
    Bytes bytes;
    for (std::size_t copy = 0; copy < copies; ++copy) {
        test_support::put_bytes(bytes, record);
        bytes.resize((copy + 1) * slot_bytes, 0);
    }
    return bytes;
}

// ---- GPT ----

struct GptEntry {
    std::string name{};  // one character a unit, a NUL in place of the colon
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t attributes = 0;
    std::optional<Bytes> guid{};  // else a random one
};

inline constexpr uint64_t last_usable_sector = 0xFFFFFFDD;
inline constexpr std::size_t gpt_bytes = 34 * sector_size;

// The GUIDs that a run draws: version 4, from a generator that nobody seeds.
class GuidSequence {
public:
    GuidSequence() { std::srand(1); }

    static Bytes next() {
        Bytes guid;
        for (int word = 0; word < 4; ++word) {
            std::array<uint32_t, 4> r{};
            for (uint32_t& drawn : r) {
                drawn = static_cast<uint32_t>(std::rand());
            }
            test_support::put8(guid, static_cast<uint8_t>(r[0] >> 24));
            test_support::put8(guid, static_cast<uint8_t>(r[1] >> 16));
            test_support::put8(guid, static_cast<uint8_t>(r[2] >> 8));
            test_support::put8(guid, static_cast<uint8_t>(r[3]));
        }
        guid[7] = static_cast<uint8_t>((guid[7] & 0x0F) | 0x40);
        guid[8] = static_cast<uint8_t>(guid[8] | 0x80);
        return guid;
    }
};

inline Bytes protective_mbr() {
    Bytes mbr(sector_size, 0);
    test_support::put8_at(mbr, 450, 0xEE);
    test_support::put32_at(mbr, 454, 1);
    test_support::put32_at(mbr, 458, 0xFFFFFFFF);
    test_support::put16_at(mbr, 510, 0xAA55);
    return mbr;
}

// The 34 sectors: protective MBR, header, 128 entries.
inline Bytes gpt_table(const std::vector<GptEntry>& entries) {
    const GuidSequence guids;
    const Bytes disk_guid = guids.next();
    Bytes array(128 * 128, 0);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const GptEntry& entry = entries[i];
        test_support::put_bytes_at(array, 128 * i, guids.next());
        const Bytes random_guid = guids.next();  // drawn in any case
        test_support::put_bytes_at(array, 128 * i + 16, entry.guid.value_or(random_guid));
        test_support::put64_at(array, 128 * i + 32, entry.first);
        test_support::put64_at(array, 128 * i + 40, entry.last);
        test_support::put64_at(array, 128 * i + 48, entry.attributes);
        for (std::size_t unit = 0; unit < std::min<std::size_t>(entry.name.size(), 36); ++unit) {
            const auto character = static_cast<int8_t>(entry.name[unit]);  // widened with its sign
            test_support::put16_at(array, 128 * i + 56 + 2 * unit, static_cast<uint16_t>(character));
        }
    }

    Bytes header = test_support::to_bytes("EFI PART");
    test_support::put32(header, 0x00010000);
    test_support::put32(header, 92);
    test_support::put64(header, 0);  // CRC, reserved
    test_support::put64(header, 1);
    test_support::put64(header, 0xFFFFFFFE);
    test_support::put64(header, 34);
    test_support::put64(header, last_usable_sector);
    test_support::put_bytes(header, disk_guid);
    test_support::put64(header, 2);
    test_support::put32(header, 128);
    test_support::put32(header, 128);
    test_support::put32(header, test_support::crc32_standard(array));
    test_support::put32_at(header, 16, test_support::crc32_standard(header));
    header.resize(sector_size, 0);

    Bytes table = protective_mbr();
    test_support::put_bytes(table, header);
    test_support::put_bytes(table, array);
    return table;
}

}  // namespace cli_test
