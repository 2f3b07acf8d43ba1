#include "QZBoot.h"

#include "../common/byte_reader.h"
#include "../common/common_define.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

namespace {

constexpr uint32_t kBootTag = 0x544F4F42;    // "BOOT"
constexpr uint32_t kLoaderTag = 0x2052444C;  // "LDR "
constexpr uint32_t kLargestLoaderMergeVersion = 0x1000000;
constexpr uint32_t kCrcSize = 4;
constexpr int kNameLength = 20;

void entry_name(const STRUCT_QZBOOT_ENTRY& entry, char (&name)[kNameLength]) {
    uint16_t units[kNameLength];  // an aligned copy: the record is packed
    std::memcpy(units, entry.szName, sizeof(units));
    CQZBoot::wchar_To_char(units, name, kNameLength);
}

}  // namespace

CQZBoot::CQZBoot(uint8_t* lpBootData, uint32_t dwBootSize)
    : m_BootData(lpBootData), m_BootSize(lpBootData != nullptr ? dwBootSize : 0) {
    const auto bind = [this](auto& view, auto getter) {
        view.setContainer(this);
        view.getter(getter);
    };
    bind(Rc4DisableFlag, &CQZBoot::GetRc4DisableFlag);
    bind(SignFlag, &CQZBoot::GetSignFlag);
    bind(Version, &CQZBoot::GetVersion);
    bind(MergeVersion, &CQZBoot::GetMergeVersion);
    bind(ReleaseTime, &CQZBoot::GetReleaseTime);
    bind(SupportDevice, &CQZBoot::GetSupportDevice);
    bind(Entry471Count, &CQZBoot::GetEntry471Count);
    bind(Entry472Count, &CQZBoot::GetEntry472Count);
    bind(EntryLoaderCount, &CQZBoot::GetEntryLoaderCount);
}

int CQZBoot::ObjectInit() {
    if (m_BootSize == 0)
        return -1;
    if (!CrcCheck())
        return -2;

    const ByteReader container(m_BootData.get(), m_BootSize - kCrcSize);
    STRUCT_QZBOOT_HEAD head;
    if (!container.read(0, head))
        return -3;
    if (head.uiTag != kBootTag && head.uiTag != kLoaderTag)
        return -3;
    if (head.uiTag == kLoaderTag && head.dwMergeVersion > kLargestLoaderMergeVersion)
        return -4;

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
    return 0;
}

bool CQZBoot::CrcCheck() {
    if (m_BootSize < kCrcSize)
        return false;
    const uint32_t length = m_BootSize - kCrcSize;
    return crc32(m_BootData.get(), length, nullptr) == little_endian_at<uint32_t>(m_BootData.get() + length);
}

char CQZBoot::GetIndexByName(ENUM_QZBOOTENTRY type, const char* pName) {
    const auto not_found = static_cast<char>(0xFF);
    EntryTable table{};
    if (!select_table(type, table))
        return not_found;
    for (uint8_t i = 0; i < table.count; ++i) {
        STRUCT_QZBOOT_ENTRY entry;
        if (!read_entry(type, i, entry))
            return not_found;
        char name[kNameLength];
        entry_name(entry, name);
        if (::strncasecmp(name, pName, kNameLength) == 0)
            return static_cast<char>(i);
    }
    return not_found;
}

bool CQZBoot::GetEntryProperty(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint32_t& dwSize, uint32_t& dwDelay,
                               char* pName) {
    STRUCT_QZBOOT_ENTRY entry;
    if (!read_entry(type, ucIndex, entry))
        return false;
    dwDelay = entry.dwDataDelay;
    dwSize = entry.dwDataSize;
    if (pName != nullptr) {
        char name[kNameLength];
        entry_name(entry, name);
        std::memcpy(pName, name, kNameLength);
    }
    return true;
}

bool CQZBoot::GetEntryData(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint8_t* lpData) {
    uint32_t size = 0;
    const uint8_t* data = entry_data(type, ucIndex, size);
    if (data == nullptr)
        return false;
    if (size != 0)
        std::memcpy(lpData, data, size);
    return true;
}

bool CQZBoot::SaveEntryFile(ENUM_QZBOOTENTRY type, uint8_t ucIndex, std::string fileName) {
    uint32_t size = 0;
    const uint8_t* data = entry_data(type, ucIndex, size);
    if (data == nullptr)
        return false;
    std::FILE* file = std::fopen(fileName.c_str(), "wb+");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

void CQZBoot::wchar_To_char(const uint16_t* src, char* dst, int len) {
    for (int i = 0; i < len; ++i)
        dst[i] = static_cast<char>(src[i] & 0xFF);
}

bool CQZBoot::select_table(ENUM_QZBOOTENTRY type, EntryTable& table) const {
    switch (type) {
    case ENTRY471:
        table = {m_471Offset, m_471Size, m_471Count};
        return true;
    case ENTRY472:
        table = {m_472Offset, m_472Size, m_472Count};
        return true;
    case ENTRYLOADER:
        table = {m_loaderOffset, m_loaderSize, m_loaderCount};
        return true;
    }
    return false;
}

bool CQZBoot::read_entry(ENUM_QZBOOTENTRY type, uint8_t index, STRUCT_QZBOOT_ENTRY& entry) const {
    EntryTable table{};
    if (!select_table(type, table) || index >= table.count)
        return false;
    const uint64_t position = table.offset + static_cast<uint64_t>(index) * table.entry_size;
    return ByteReader(m_BootData.get(), m_BootSize).read(position, entry);
}

const uint8_t* CQZBoot::entry_data(ENUM_QZBOOTENTRY type, uint8_t index, uint32_t& size) const {
    STRUCT_QZBOOT_ENTRY entry;
    if (!read_entry(type, index, entry))
        return nullptr;
    if (!ByteReader(m_BootData.get(), m_BootSize).holds(entry.dwDataOffset, entry.dwDataSize))
        return nullptr;
    size = entry.dwDataSize;
    return m_BootData.get() + entry.dwDataOffset;
}
