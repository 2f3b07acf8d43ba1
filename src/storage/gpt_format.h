#pragma once

#include "storage_units.h"

#include <cstdint>

/// Protective MBR, header and entries of a GPT (UEFI, chapter 5).

constexpr uint32_t kGptEntryCount = 128;
constexpr uint32_t kGptTableSectors = 34;  ///< protective MBR, header, 32 sectors of entries
constexpr uint32_t kGptTableSize = kGptTableSectors * kSectorSize;
constexpr uint64_t kGptSignature = 0x5452415020494645;  ///< "EFI PART"

#pragma pack(push, 1)

struct efi_guid_t {
    uint8_t b[16];  ///< in the order on the disk
};
static_assert(sizeof(efi_guid_t) == 16);

struct mbr_partition {
    uint8_t boot_ind;
    uint8_t head;
    uint8_t sector;
    uint8_t cyl;
    uint8_t sys_ind;  ///< 0xEE: protective
    uint8_t end_head;
    uint8_t end_sector;
    uint8_t end_cyl;
    uint32_t start_sect;
    uint32_t nr_sects;
};
static_assert(sizeof(mbr_partition) == 16);

struct legacy_mbr {
    uint8_t boot_code[440];
    uint32_t unique_mbr_signature;
    uint16_t unknown;
    mbr_partition partition_record[4];
    uint16_t signature;  ///< 0xAA55
};
static_assert(sizeof(legacy_mbr) == kSectorSize);

struct gpt_header {
    uint64_t signature;  ///< "EFI PART"
    uint32_t revision;
    uint32_t header_size;
    uint32_t header_crc32;  ///< of the 92 bytes of this record, with 0 in this field
    uint32_t reserved1;
    uint64_t my_lba;
    uint64_t alternate_lba;
    uint64_t first_usable_lba;
    uint64_t last_usable_lba;
    efi_guid_t disk_guid;
    uint64_t partition_entry_lba;
    uint32_t num_partition_entries;
    uint32_t sizeof_partition_entry;
    uint32_t partition_entry_array_crc32;
};
static_assert(sizeof(gpt_header) == 92);

struct gpt_entry_attributes {
    uint64_t required_to_function : 1;
    uint64_t no_block_io_protocol : 1;
    uint64_t legacy_bios_bootable : 1;
    uint64_t reserved : 45;
    uint64_t type_guid_specific : 16;
};
static_assert(sizeof(gpt_entry_attributes) == 8);

struct gpt_entry {
    efi_guid_t partition_type_guid;
    efi_guid_t unique_partition_guid;
    uint64_t starting_lba;
    uint64_t ending_lba;  ///< the last sector of the partition
    gpt_entry_attributes attributes;
    uint16_t partition_name[36];  ///< UTF-16LE
};
static_assert(sizeof(gpt_entry) == 128);
static_assert(sizeof(legacy_mbr) + kSectorSize + kGptEntryCount * sizeof(gpt_entry) == kGptTableSize);

#pragma pack(pop)
