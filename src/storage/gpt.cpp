#include "storage_impl.h"

#include "../common/common_define.h"
#include "../common/lower_case.h"
#include "console.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <strings.h>

namespace {

constexpr std::size_t kNameUnits = std::size(gpt_entry{}.partition_name);

// The size of the device is not known here. The table always describes a disk of this many sectors.
constexpr uint64_t kDiskSectors = 0xFFFFFFFF;

using EntryArray = std::array<gpt_entry, kGptEntryCount>;

bool contains(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

legacy_mbr protective_mbr() {
    legacy_mbr mbr{};
    mbr.partition_record[0].sys_ind = 0xEE;
    mbr.partition_record[0].start_sect = 1;
    mbr.partition_record[0].nr_sects = 0xFFFFFFFF;
    mbr.signature = 0xAA55;
    return mbr;
}

gpt_header header_of_disk(uint64_t disk_sectors) {
    gpt_header header{};
    header.signature = kGptSignature;
    header.revision = 0x00010000;
    header.header_size = sizeof(gpt_header);
    header.my_lba = 1;
    header.alternate_lba = disk_sectors - 1;
    header.first_usable_lba = kGptTableSectors;
    header.last_usable_lba = disk_sectors - kGptTableSectors;
    header.partition_entry_lba = 2;
    header.num_partition_entries = kGptEntryCount;
    header.sizeof_partition_entry = sizeof(gpt_entry);
    return header;
}

void set_name(gpt_entry& entry, const std::string& name) {
    uint16_t units[kNameUnits] = {};
    for (std::size_t i = 0; i < std::min(name.size(), kNameUnits); ++i)
        units[i] = static_cast<uint16_t>(static_cast<signed char>(name[i]));  // kept: with its sign
    std::memcpy(entry.partition_name, units, sizeof(units));
}

/// Applies the flags after the colon to the entry. A NUL replaces the colon, and the length stays.
void apply_flags(gpt_entry& entry, std::string& name, uint64_t disk_sectors) {
    const std::size_t colon = name.find(':');
    if (colon == std::string::npos)
        return;
    const std::string lower = lower_case(name);
    if (contains(lower, "bootable"))
        entry.attributes.legacy_bios_bootable = 1;
    if (contains(lower, "grow"))
        entry.ending_lba = disk_sectors - kGptTableSectors;
    name[colon] = '\0';
}

uint32_t crc_of(const void* record, std::size_t size) {
    return crc32_le(static_cast<const uint8_t*>(record), static_cast<uint32_t>(size), 0);
}

}  // namespace

bool CStorage::get_gpt_flag(STRUCT_QZIMAGE_ITEM& entry) {
    constexpr uint32_t around_text = kParameterHeadSize + kParameterChecksumSize;
    if (entry.size < around_text || entry.size > m_update_image_ptr->GetImageSize())
        return false;
    const uint32_t text_size = entry.size - around_text;
    // This throws without memory: the text may ask for a GPT, so the run must not go on.
    std::string text(text_size, '\0');
    // Kept: a 32-bit sum that ignores the large-item marks.
    const uint32_t position = m_update_image_ptr->FWOffset + entry.offset + kParameterHeadSize;
    return m_update_image_ptr->GetData(position, text_size, reinterpret_cast<uint8_t*>(text.data())) &&
           declares_gpt(text.c_str());
}

void CStorage::gen_rand_uuid(uint8_t* uuid_bin) {
    for (int word_index = 0; word_index < 4; ++word_index) {
        uint32_t r[4];
        for (uint32_t& value : r)
            value = static_cast<uint32_t>(std::rand());  // NOLINT: unseeded, the same in every run
        const uint32_t word = (r[0] >> 24) | ((r[1] >> 8) & 0xFF00) | ((r[2] << 8) & 0xFF0000) | (r[3] << 24);
        std::memcpy(uuid_bin + word_index * 4, &word, sizeof(word));
    }
    uuid_bin[7] = static_cast<uint8_t>((uuid_bin[7] & 0x0F) | 0x40);  // version 4
    uuid_bin[8] |= 0x80;  // kept: bit 6 of the variant stays random
}

int32_t CStorage::find_uuid_item(UUID_ITEM_VECTOR& vecItems, std::string szName) {
    for (std::size_t i = 0; i < vecItems.size(); ++i)
        if (::strcasecmp(vecItems[i].szUUidName.c_str(), szName.c_str()) == 0)
            return static_cast<int32_t>(i);
    return -1;
}

void CStorage::create_gpt_buffer(uint8_t* gpt, PARAM_ITEM_VECTOR& vecParts, UUID_ITEM_VECTOR& vecUuid,
                                 uint64_t diskSectors) {
    const legacy_mbr mbr = protective_mbr();
    gpt_header header = header_of_disk(diskSectors);
    gen_rand_uuid(header.disk_guid.b);

    EntryArray entries{};
    for (std::size_t i = 0; i < std::min(vecParts.size(), entries.size()); ++i) {
        STRUCT_PARAM_ITEM& part = vecParts[i];
        gpt_entry& entry = entries[i];
        gen_rand_uuid(entry.partition_type_guid.b);  // kept: not a well-known type
        gen_rand_uuid(entry.unique_partition_guid.b);
        entry.starting_lba = part.uiItemOffset;
        entry.ending_lba = uint64_t{part.uiItemOffset} + part.uiItemSize - 1;
        apply_flags(entry, part.szItemName, diskSectors);
        set_name(entry, part.szItemName);
        const int32_t fixed = find_uuid_item(vecUuid, part.szItemName);
        if (fixed >= 0)
            std::memcpy(entry.unique_partition_guid.b, vecUuid[static_cast<std::size_t>(fixed)].szUUid,
                        sizeof(efi_guid_t));
    }

    header.partition_entry_array_crc32 = crc_of(entries.data(), sizeof(entries));
    header.header_crc32 = crc_of(&header, sizeof(header));
    std::memset(gpt, 0, 2 * kSectorSize);
    std::memcpy(gpt, &mbr, sizeof(mbr));
    std::memcpy(gpt + kSectorSize, &header, sizeof(header));
    std::memcpy(gpt + 2 * kSectorSize, entries.data(), sizeof(entries));
}

int CStorage::write_gpt(STRUCT_QZIMAGE_ITEM& entry) {
    const uint32_t pages = page_count(kGptTableSectors, m_page_size_sector);
    print_line("writing gpt...");
    ByteBuffer table(std::max<uint64_t>(uint64_t{pages} * m_page_size, kGptTableSize));
    if (!table)
        return kNoGptMemory;

    const char* text = nullptr;
    if (entry.size >= kParameterHeadSize + kParameterChecksumSize && m_paramBuffer != nullptr &&
        entry.size <= param_buffer_bytes()) {
        // The text ends with a NUL in place of the checksum after it.
        std::memset(m_paramBuffer + entry.size - kParameterChecksumSize, 0, kParameterChecksumSize);
        text = reinterpret_cast<const char*>(m_paramBuffer + kParameterHeadSize);
    }
    PARAM_ITEM_VECTOR parts;
    if (!parse_parameter(text, parts)) {
        print_line("failed to parse gpt parameter file");
        return kNoPartitionList;
    }
    UUID_ITEM_VECTOR uuids;
    get_uuid_from_parameter(text, uuids);
    if (parts.size() > kGptEntryCount) {
        print_line("too many partitions for gpt");
        return kTooManyPartitions;
    }

    create_gpt_buffer(table.data(), parts, uuids, kDiskSectors);
    m_fout.buffer().begin_part({.kind = OutputPart::Kind::kGpt});
    for (uint32_t i = 0; i < pages; ++i)
        write_page(table.data() + uint64_t{i} * m_page_size, m_page_size);

    m_image_fill_page_num = pages;
    redraw_line("writing gpt...OK");
    return kDone;
}
