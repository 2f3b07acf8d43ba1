#pragma once

#include "Property.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

/// Kind of an entry of the boot container. Each kind has a table of its own.
enum ENUM_QZBOOTENTRY : uint32_t {
    ENTRY471 = 1,
    ENTRY472 = 2,
    ENTRYLOADER = 4,
};

/// Chip-family code, never interpreted.
enum ENUM_QZDEVICE_TYPE : uint32_t {
    QZNONE_DEVICE = 0,
};

#pragma pack(push, 1)

/// Release time in the heads of images and containers.
struct STRUCT_QZTIME {
    uint16_t usYear;
    uint8_t ucMonth;
    uint8_t ucDay;
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
};
static_assert(sizeof(STRUCT_QZTIME) == 7);

/// Head of a boot container, at its byte 0. Offsets are in bytes from the start of the container.
struct STRUCT_QZBOOT_HEAD {
    uint32_t uiTag;  ///< "BOOT" or "LDR "
    uint16_t usSize;
    uint32_t dwVersion;
    uint32_t dwMergeVersion;  ///< at most 0x1000000 for "LDR "
    STRUCT_QZTIME stReleaseTime;
    ENUM_QZDEVICE_TYPE emSupportChip;
    uint8_t uc471EntryCount;
    uint32_t dw471EntryOffset;
    uint8_t uc471EntrySize;
    uint8_t uc472EntryCount;
    uint32_t dw472EntryOffset;
    uint8_t uc472EntrySize;
    uint8_t ucLoaderEntryCount;
    uint32_t dwLoaderEntryOffset;
    uint8_t ucLoaderEntrySize;
    uint8_t ucSignFlag;  ///< 'S': the loader is signed
    uint8_t ucRc4Flag;   ///< non-zero: the loader data is plain here and scrambled in the boot block
    uint8_t reserved[57];
};
static_assert(sizeof(STRUCT_QZBOOT_HEAD) == 102);

/// One table entry. The head gives the distance from one entry to the next, not ucSize.
struct STRUCT_QZBOOT_ENTRY {
    uint8_t ucSize;
    ENUM_QZBOOTENTRY emType;
    uint16_t szName[20];  ///< UTF-16LE, padded with NUL
    uint32_t dwDataOffset;
    uint32_t dwDataSize;
    uint32_t dwDataDelay;
};
static_assert(sizeof(STRUCT_QZBOOT_ENTRY) == 57);

#pragma pack(pop)

/// The boot-loader container: what the boot ROM loads, in entries of three kinds, and a checksum after them.
/// All values read as 0 or false until ObjectInit has succeeded.
class CQZBoot {
public:
    property<CQZBoot, bool, 1> Rc4DisableFlag{this, &CQZBoot::GetRc4DisableFlag};
    property<CQZBoot, bool, 1> SignFlag{this, &CQZBoot::GetSignFlag};
    property<CQZBoot, uint32_t, 1> Version{this, &CQZBoot::GetVersion};
    property<CQZBoot, uint32_t, 1> MergeVersion{this, &CQZBoot::GetMergeVersion};
    property<CQZBoot, STRUCT_QZTIME, 1> ReleaseTime{this, &CQZBoot::GetReleaseTime};
    property<CQZBoot, ENUM_QZDEVICE_TYPE, 1> SupportDevice{this, &CQZBoot::GetSupportDevice};
    property<CQZBoot, uint8_t, 1> Entry471Count{this, &CQZBoot::GetEntry471Count};
    property<CQZBoot, uint8_t, 1> Entry472Count{this, &CQZBoot::GetEntry472Count};
    property<CQZBoot, uint8_t, 1> EntryLoaderCount{this, &CQZBoot::GetEntryLoaderCount};

    /// Takes ownership of the dwBootSize bytes at lpBootData, made by new[]. With null there is no data.
    CQZBoot(uint8_t* lpBootData, uint32_t dwBootSize)
        : m_BootData(lpBootData), m_BootSize(lpBootData != nullptr ? dwBootSize : 0) {}
    CQZBoot(const CQZBoot&) = delete;
    CQZBoot& operator=(const CQZBoot&) = delete;

    /// What ObjectInit returns.
    enum InitResult : int {
        kLoaded = 0,
        kNoData = -1,
        kWrongCrc = -2,        ///< or too short for a CRC
        kUnknownTag = -3,      ///< or too short for a head
        kUnknownVersion = -4,  ///< "LDR " with a merge version above 0x1000000
    };

    /// Checks the container and decodes its head.
    int ObjectInit();

    /// True when the last four bytes are the CRC of the bytes before them.
    bool CrcCheck();

    /// Index of the first entry of that kind whose name is pName. Case and characters after the 20th are
    /// ignored. 0xFF when there is none, the kind is unknown or the table does not lie inside the container.
    char GetIndexByName(ENUM_QZBOOTENTRY type, const char* pName);

    /// Gives the size of an entry's data in bytes, its delay and, unless pName is null, its name as 20
    /// single-byte characters (without a NUL when it has all 20). False, with the arguments unchanged, for an
    /// unknown kind or index or when the entry does not lie inside the container.
    bool GetEntryProperty(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint32_t& dwSize, uint32_t& dwDelay,
                          char* pName = nullptr);

    /// The entry's data, which stays in the container. Nothing for an unknown kind or index or when the entry
    /// or its data do not lie inside the container. The offset of an entry of size 0 is not checked.
    std::optional<std::span<const uint8_t>> entry_data(ENUM_QZBOOTENTRY type, uint8_t index) const;

    /// Copies the entry's data to lpData, which has the size that GetEntryProperty gives. False, with nothing
    /// copied, when entry_data returns nothing.
    bool GetEntryData(ENUM_QZBOOTENTRY type, uint8_t ucIndex, uint8_t* lpData);

    /// Writes the entry's data to a new file. False when entry_data returns nothing, or the file cannot be
    /// created or written.
    bool SaveEntryFile(ENUM_QZBOOTENTRY type, uint8_t ucIndex, std::string fileName);

    /// Zeroes len bytes of dst and copies the low byte of each of the first len UTF-16 units of src.
    static void wchar_To_char(const uint16_t* src, char* dst, int len);

    // Getters of the properties.
    bool GetRc4DisableFlag() { return m_bRc4Disable; }
    bool GetSignFlag() { return m_bSignFlag; }
    uint32_t GetVersion() { return m_version; }
    uint32_t GetMergeVersion() { return m_mergeVersion; }
    STRUCT_QZTIME GetReleaseTime() { return m_releaseTime; }
    ENUM_QZDEVICE_TYPE GetSupportDevice() { return m_supportDevice; }
    uint8_t GetEntry471Count() { return m_471Count; }
    uint8_t GetEntry472Count() { return m_472Count; }
    uint8_t GetEntryLoaderCount() { return m_loaderCount; }

private:
    struct EntryTable {
        uint32_t offset;
        uint8_t entry_size;
        uint8_t count;
    };
    std::optional<EntryTable> table_of(ENUM_QZBOOTENTRY type) const;
    std::optional<STRUCT_QZBOOT_ENTRY> read_entry(ENUM_QZBOOTENTRY type, uint8_t index) const;

    bool m_bRc4Disable = false;
    bool m_bSignFlag = false;
    uint32_t m_version = 0;
    uint32_t m_mergeVersion = 0;
    STRUCT_QZTIME m_releaseTime{};
    ENUM_QZDEVICE_TYPE m_supportDevice = QZNONE_DEVICE;
    uint32_t m_471Offset = 0;
    uint8_t m_471Size = 0;
    uint8_t m_471Count = 0;
    uint32_t m_472Offset = 0;
    uint8_t m_472Size = 0;
    uint8_t m_472Count = 0;
    uint32_t m_loaderOffset = 0;
    uint8_t m_loaderSize = 0;
    uint8_t m_loaderCount = 0;
    uint8_t m_crc[4] = {};
    std::unique_ptr<uint8_t[]> m_BootData;
    uint32_t m_BootSize;
    uint16_t m_BootHeadSize = 0;
};
