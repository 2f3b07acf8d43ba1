#pragma once

// A firmware update image described in code. Every field can be bent: a std::optional member that is empty
// takes the value that a correct image holds, a value in it goes into the image as it is.

#include "bytes.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

// Flash offset of an item that does not go to the storage, and partition size of the partition that grows.
inline constexpr uint32_t kNotPlaced = 0xFFFFFFFFU;
inline constexpr uint32_t kGrowsToEnd = 0xFFFFFFFFU;

// Field offsets, for tests that bend bytes of a built image.
namespace boot_field {
inline constexpr std::size_t kHeadSize = 4;
inline constexpr std::size_t kCount471 = 25, kOffset471 = 26, kSize471 = 30;
inline constexpr std::size_t kCount472 = 31, kOffset472 = 32, kSize472 = 36;
inline constexpr std::size_t kCountLoader = 37, kOffsetLoader = 38, kSizeLoader = 42;
inline constexpr std::size_t kHeadBytes = 102, kReservedBytes = 57;
}  // namespace boot_field

namespace boot_entry_field {
inline constexpr std::size_t kRecordSize = 0, kName = 5, kDataOffset = 45, kDataSize = 49;
inline constexpr std::size_t kRecordBytes = 57, kNameUnits = 20;
}  // namespace boot_entry_field

namespace head_field {
inline constexpr std::size_t kHeadSize = 4, kBootOffset = 25, kBootSize = 29, kPackageOffset = 33;
inline constexpr std::size_t kPackageSize = 37, kReserved = 41, kOsType = 45, kBackupSize = 53;
inline constexpr std::size_t kLargeMark = 55, kPackageSizeHigh = 57, kHeadBytes = 102, kReservedBytes = 61;
}  // namespace head_field

namespace package_field {
inline constexpr std::size_t kSize = 4, kCountExtensionMark = 128, kCountExtension = 130, kItemCount = 136;
inline constexpr std::size_t kItems = 140, kHeaderBytes = 1932;
}  // namespace package_field

namespace item_field {
inline constexpr std::size_t kOffsetMark = 82, kOffsetHigh = 83, kSizeMark = 87, kSizeHigh = 88;
inline constexpr std::size_t kPartSize = 92, kOffset = 96, kFlashOffset = 100, kUseSpace = 104, kSize = 108;
inline constexpr std::size_t kRecordBytes = 112, kNameBytes = 32, kFileBytes = 60;
}  // namespace item_field

struct ReleaseTime {
    uint16_t year = 2024;
    uint8_t month = 5;
    uint8_t day = 17;
    uint8_t hour = 12;
    uint8_t minute = 34;
    uint8_t second = 56;

    void append_to(Bytes& bytes) const;  // 7 bytes
};

// ---- boot-loader container ----

struct BootEntry {
    std::string name{};  // at most 20 characters
    Bytes data{};
    uint32_t delay = 0;
    std::optional<uint32_t> type{};         // else the kind of its list: 1, 2 or 4
    std::optional<uint32_t> data_offset{};  // what the record says; the data stays where the layout puts it
    std::optional<uint32_t> data_size{};    // what the record says
};

struct BootEntryList {
    std::vector<BootEntry> entries{};
    uint8_t record_size = boot_entry_field::kRecordBytes;  // distance from record to record
    std::optional<uint8_t> count{};                        // what the head says
    std::optional<uint32_t> table_offset{};                // what the head says
};

// Offsets from the start of the container.
struct BootListLayout {
    std::size_t table = 0;
    std::vector<std::size_t> records{};
    std::vector<std::size_t> data{};
};

struct BootLayout {
    BootListLayout entries_471{};
    BootListLayout entries_472{};
    BootListLayout loader{};
    std::size_t crc = 0;
    std::size_t size = 0;
};

struct BootContainer {
    std::string tag = "BOOT";
    uint16_t head_size = boot_field::kHeadBytes;
    uint32_t version = 0x00010203;
    uint32_t merge_version = 0x00010004;
    ReleaseTime release_time{};
    uint32_t chip = 0x51303031;
    uint8_t sign_flag = 0;
    uint8_t rc4_flag = 0;  // non-zero: the boot ROM expects scrambled stages
    Bytes reserved{};      // cut or zero-padded to 57 bytes
    BootEntryList entries_471{};
    BootEntryList entries_472{};
    BootEntryList loader{};
    std::optional<uint32_t> crc{};  // else the right one

    BootLayout layout() const;
    Bytes build() const;
};

// Writes the right checksum into the last four bytes of a container whose bytes were bent.
void repair_boot_crc(Bytes& container);

// ---- package ----

// Bytes somewhere inside an item that is otherwise a hole.
struct Island {
    uint64_t at = 0;
    Bytes bytes{};
};

struct Item {
    std::string name{};
    std::string file{};
    uint32_t part_size = 0;     // sectors
    uint32_t flash_offset = 0;  // sectors
    Bytes data{};
    uint32_t use_space = 0;
    std::optional<uint64_t> offset{};  // from the package start; the data is written there too
    std::optional<uint64_t> size{};    // what the record says
    bool reserve_size = false;  // the file reaches over the whole recorded size, with a hole after `data`
    bool force_large_marks = false;  // 'H' marks even when both values fit in 32 bits
    std::vector<Island> islands{};

    uint64_t recorded_size() const { return size.value_or(data.size()); }
};

// Absolute file offsets.
struct FirmwareLayout {
    uint64_t boot_offset = 0;
    uint64_t boot_size = 0;
    uint64_t package_offset = 0;
    uint64_t package_size = 0;  // the real one, whatever the head says
    std::vector<uint64_t> item_records{};
    std::vector<uint64_t> item_data{};
    uint64_t trailer_offset = 0;
    uint64_t file_size = 0;
};

struct Firmware {
    std::string tag = "QZFW";
    uint16_t head_size = head_field::kHeadBytes;
    uint32_t version = 0x02000001;
    uint32_t merge_version = 0x02000002;
    ReleaseTime release_time{};
    uint32_t chip = 0x51303031;
    uint32_t os_type = 1;
    uint16_t backup_size = 0;
    Bytes reserved{};                          // cut or zero-padded to 61 bytes; the named fields go over it
    std::optional<uint32_t> boot_offset{};     // placed and recorded there
    std::optional<uint32_t> boot_size{};       // what the head says
    std::optional<uint32_t> package_offset{};  // placed and recorded there
    std::optional<uint64_t> package_size{};    // what the head says
    bool force_large_package_mark = false;     // "HI" even when the package size fits in 32 bits

    BootContainer boot{};
    std::optional<Bytes> boot_bytes{};  // in place of `boot`, byte for byte

    std::string package_tag = "PKGH";
    std::string machine_model = "sample board";
    std::string machine_info = "rev 1";
    std::string manufacturer = "sample maker";
    uint32_t package_version = 0x02000001;
    std::vector<Item> items{};
    std::optional<int32_t> item_count{};             // what the fixed count field says
    std::optional<uint16_t> item_count_extension{};  // "Uf" and this value, taken off the fixed count
    uint32_t item_alignment = 2048;                  // of the items' data, from the package start

    Bytes md5 = Bytes(32, 'd');  // 32 bytes, or empty for a firmware without trailer
    Bytes signature{};

    // The first item of that name; std::out_of_range when there is none.
    Item& item(const std::string& name);

    FirmwareLayout layout() const;
    // The whole image in memory; a large one is a case for write().
    Bytes build() const;
    // The image as a file; whatever no part covers becomes a hole, so a firmware beyond 4 GiB costs no space.
    void write(const std::filesystem::path& path) const;

private:
    using PieceSink = std::function<void(uint64_t offset, const Bytes& bytes)>;

    Bytes boot_container_bytes() const { return boot_bytes ? *boot_bytes : boot.build(); }
    Bytes head_bytes(const FirmwareLayout& where) const;
    Bytes package_header_bytes(const FirmwareLayout& where) const;
    void for_each_piece(const FirmwareLayout& where, const PieceSink& sink) const;
};

// ---- parameter item ----

struct Partition {
    std::string name{};              // with its flags, such as "userdata:grow"
    uint32_t offset = 0;             // sectors
    std::optional<uint32_t> size{};  // sectors; empty: written as "-"
};

struct PartitionUuid {
    std::string name{};
    std::string uuid{};  // 8-4-4-4-12 text
};

std::string parameter_text(const std::vector<Partition>& partitions, bool gpt,
                           const std::vector<PartitionUuid>& uuids = {});

// "PARM", the text's length, the text, and a checksum over it.
Bytes parameter_record(const std::string& text);

// Items whose files have these names: "parameter.txt" with its record, and "<name>.img".
Item parameter_item(const std::string& text, uint32_t part_size);
Item partition_item(const std::string& name, uint32_t flash_offset, uint32_t part_size, Bytes data);

// ---- ready-made firmware ----

inline constexpr char kSampleUuid[] = "7a3c19e4-52d0-4f6b-9e81-c0ffee123456";  // of rootfs

struct SampleOptions {
    bool gpt = false;
    bool scramble_stages = false;  // the container's RC4 flag
};

// A small firmware: FlashData of 3000 bytes, FlashBoot of 2048 bytes, one 471 and one 472 entry, and the
// items parameter, boot (5000 bytes), misc (1024 bytes) and rootfs (20001 bytes).
Firmware sample_firmware(const SampleOptions& options = {});

}  // namespace test_support
