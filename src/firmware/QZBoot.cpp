#include "QZBoot.h"

#include "../common/byte_reader.h"
#include "../common/common_define.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

constexpr uint32_t kBootTag = 0x544F4F42;    // "BOOT"
constexpr uint32_t kLoaderTag = 0x2052444C;  // "LDR "
constexpr uint32_t kLargestLoaderMergeVersion = 0x1000000;
constexpr uint32_t kCrcSize = 4;
constexpr int kNameLength = 20;

/// Copies the name to 20 characters.
void copy_name(const STRUCT_QZBOOT_ENTRY& entry, char* name) {
    uint16_t units[kNameLength];  // an aligned copy: the record is packed
    std::memcpy(units, entry.szName, sizeof(units));
    CQZBoot::wchar_To_char(units, name, kNameLength);
}

}  // namespace

int CQZBoot::ObjectInit() {
    if (m_BootSize == 0)
        return kNoData;
    if (!CrcCheck())
        return kWrongCrc;

    const ByteReader container(m_BootData.get(), m_BootSize - kCrcSize);
    STRUCT_QZBOOT_HEAD head;
    if (!container.read(0, head))
        return kUnknownTag;
    if (head.uiTag != kBootTag && head.uiTag != kLoaderTag)
        return kUnknownTag;
    if (head.uiTag == kLoaderTag && head.dwMergeVersion > kLargestLoaderMergeVersion)
        return kUnknownVersion;

    m_bRc4Disable = head.ucRc4Flag != 0;
    m_bSignFlag = head.ucSignFlag == 'S';
    m_version = head.dwVersion;
    m_mergeVersion = head.dwMergeVersion;
    m_BootHeadSize = head.usSize;
    m_releaseTime = head.stReleaseTime;
    m_supportDevice = head.emSupportChip;
    m_471Offset = head.dw471EntryOffset;
    m_471Size = head.uc471EntrySize;
    m_471Count = head.uc471EntryCount;
    m_472Offset = head.dw472EntryOffset;
    m_472Size = head.uc472EntrySize;
    m_472Count = head.uc472EntryCount;
    m_loaderOffset = head.dwLoaderEntryOffset;
    m_loaderSize = head.ucLoaderEntrySize;
    m_loaderCount = head.ucLoaderEntryCount;
    std::memcpy(m_crc, m_BootData.get() + m_BootSize - kCrcSize, kCrcSize);
    return kLoaded;
}

bool CQZBoot::CrcCheck() {
    if (m_BootSize < kCrcSize)
        return false;
    const uint32_t length = m_BootSize - kCrcSize;
    return crc32(m_BootData.get(), length, nullptr) == little_endian_at<uint32_t>(m_BootData.get() + length);
}

char CQZBoot::GetIndexByName(ENUM_QZBOOTENTRY type, const char* pName) {
    const auto not_found = static_cast<char>(0xFF);
    const std::optional<EntryTable> table = table_of(type);
    if (!table)
        return not_found;
    for (uint8_t i = 0; i < table->count; ++i) {
        const std::optional<STRUCT_QZBOOT_ENTRY> entry = read_entry(type, i);
        if (!entry)
            return not_found;
        char name[kNameLength];
        copy_name(*entry, name);
        if (::strncasecmp(name, pName, kNameLength) == 0)
            return static_cast<char>(i);
    }
    return not_found;
}

bool CQZBoot::GetEntryProperty(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint32_t& dwSize, uint32_t& dwDelay,
                               char* pName) {
    const std::optional<STRUCT_QZBOOT_ENTRY> entry = read_entry(type, ucIndex);
    if (!entry)
        return false;
    dwDelay = entry->dwDataDelay;
    dwSize = entry->dwDataSize;
    if (pName != nullptr)
        copy_name(*entry, pName);
    return true;
}

bool CQZBoot::GetEntryData(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint8_t* lpData) {
    const std::optional<std::span<const uint8_t>> data = entry_data(type, ucIndex);
    if (!data)
        return false;
    std::copy(data->begin(), data->end(), lpData);
    return true;
}

bool CQZBoot::SaveEntryFile(ENUM_QZBOOTENTRY type, uint8_t ucIndex, std::string fileName) {
    const std::optional<std::span<const uint8_t>> data = entry_data(type, ucIndex);
    if (!data)
        return false;
    std::FILE* file = std::fopen(fileName.c_str(), "wb+");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(data->data(), 1, data->size(), file) == data->size();
    return std::fclose(file) == 0 && written;
}

void CQZBoot::wchar_To_char(const uint16_t* src, char* dst, int len) {
    for (int i = 0; i < len; ++i)
        dst[i] = static_cast<char>(src[i] & 0xFF);
}

std::optional<CQZBoot::EntryTable> CQZBoot::table_of(ENUM_QZBOOTENTRY type) const {
    switch (type) {
    case ENTRY471:
        return EntryTable{m_471Offset, m_471Size, m_471Count};
    case ENTRY472:
        return EntryTable{m_472Offset, m_472Size, m_472Count};
    case ENTRYLOADER:
        return EntryTable{m_loaderOffset, m_loaderSize, m_loaderCount};
    }
    return std::nullopt;
}

std::optional<STRUCT_QZBOOT_ENTRY> CQZBoot::read_entry(ENUM_QZBOOTENTRY type, uint8_t index) const {
    const std::optional<EntryTable> table = table_of(type);
    if (!table || index >= table->count)
        return std::nullopt;
    const uint64_t position = table->offset + static_cast<uint64_t>(index) * table->entry_size;
    STRUCT_QZBOOT_ENTRY entry;
    if (!ByteReader(m_BootData.get(), m_BootSize).read(position, entry))
        return std::nullopt;
    return entry;
}

std::optional<std::span<const uint8_t>> CQZBoot::entry_data(ENUM_QZBOOTENTRY type, uint8_t index) const {
    const std::optional<STRUCT_QZBOOT_ENTRY> entry = read_entry(type, index);
    if (!entry)
        return std::nullopt;
    if (entry->dwDataSize == 0)
        return std::span<const uint8_t>(m_BootData.get(), 0);
    if (!ByteReader(m_BootData.get(), m_BootSize).holds(entry->dwDataOffset, entry->dwDataSize))
        return std::nullopt;
    return std::span<const uint8_t>(m_BootData.get() + entry->dwDataOffset, entry->dwDataSize);
}
