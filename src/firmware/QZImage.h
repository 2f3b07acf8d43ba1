#pragma once

#include "../io/block_reader.h"
#include "../io/file_identity.h"
#include "Property.h"
#include "QZBoot.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

/// Operating system that the firmware is for.
enum ENUM_OS_TYPE : uint32_t {
    QZ_OS = 0,
    ANDROID_OS = 1,
};

#pragma pack(push, 1)

/// Head of a firmware update image, at byte 0 of the file. Offsets are absolute, sizes in bytes.
struct STRUCT_QZIMAGE_HEAD {
    uint32_t uiTag;  ///< "QZFW"
    uint16_t usSize;
    uint32_t dwVersion;
    uint32_t dwMergeVersion;
    STRUCT_QZTIME stReleaseTime;
    ENUM_QZDEVICE_TYPE emSupportChip;
    uint32_t dwBootOffset;  ///< boot container
    uint32_t dwBootSize;
    uint32_t dwFWOffset;   ///< package: tagQZIMAGE_HDR and the partition images
    uint32_t dwFWSize;     ///< low 32 bits
    uint8_t reserved[61];  ///< OS type at 4, backup size at 12, high half of dwFWSize at 16 after "HI"
};
static_assert(sizeof(STRUCT_QZIMAGE_HEAD) == 102);

/// One item of the package. name and file end with a NUL unless they fill their field.
struct STRUCT_QZIMAGE_ITEM {
    char name[32];
    char file[60];          ///< source file; its last ten bytes may hold the large-item marks (item_table.h)
    uint32_t part_size;     ///< in sectors; 0xFFFFFFFF: the partition grows to the end of the device
    uint32_t offset;        ///< of the data, in bytes from the start of the package, low 32 bits
    uint32_t flash_offset;  ///< start on the storage in sectors; 0xFFFFFFFF: not written to the storage
    uint32_t usespace;
    uint32_t size;  ///< of the data, in bytes, low 32 bits
};
static_assert(sizeof(STRUCT_QZIMAGE_ITEM) == 112);

/// Head of the package with the first 16 items of its table. A longer table continues after them.
struct tagQZIMAGE_HDR {
    uint32_t tag;
    uint32_t size;
    char machine_model[34];
    char machine_info[30];
    char manufacturer[60];  ///< if bytes 56 and 57 are "Uf", the 16 bits after them are added to item_count
    uint32_t dwFWVer;
    int32_t item_count;
    STRUCT_QZIMAGE_ITEM item[16];
};
static_assert(sizeof(tagQZIMAGE_HDR) == 1932);

#pragma pack(pop)

/// The firmware update image: its head, the boot container in it, and reads from anywhere in the file.
/// A path that contains ".bin", in any case, is a bare boot container: single mode.
/// All values read as 0 or false until ObjectInit has read the head.
class CQZImage {
public:
    property<CQZImage, uint32_t, 1> Version{this, &CQZImage::GetVersion};
    property<CQZImage, uint32_t, 1> MergeVersion{this, &CQZImage::GetMergeVersion};
    property<CQZImage, STRUCT_QZTIME, 1> ReleaseTime{this, &CQZImage::GetReleaseTime};
    property<CQZImage, ENUM_QZDEVICE_TYPE, 1> SupportDevice{this, &CQZImage::GetSupportDevice};
    property<CQZImage, ENUM_OS_TYPE, 1> OsType{this, &CQZImage::GetOsType};
    property<CQZImage, uint16_t, 1> BackupSize{this, &CQZImage::GetBackupSize};
    property<CQZImage, uint32_t, 1> BootOffset{this, &CQZImage::GetBootOffset};
    property<CQZImage, uint32_t, 1> BootSize{this, &CQZImage::GetBootSize};
    property<CQZImage, uint32_t, 1> FWOffset{this, &CQZImage::GetFWOffset};
    property<CQZImage, uint64_t, 1> FWSize{this, &CQZImage::GetFWSize};
    property<CQZImage, bool, 1> SignFlag{this, &CQZImage::GetSignFlag};
    property<CQZImage, bool, 1> SingleFlag{this, &CQZImage::GetSingleFlag};

    CQZImage() = default;
    ~CQZImage() { close_file(); }
    CQZImage(const CQZImage&) = delete;
    CQZImage& operator=(const CQZImage&) = delete;

    /// What ObjectInit returns, or r * 1000 - 6 for a CQZBoot::InitResult r of the boot container.
    enum InitResult : int {
        kLoaded = 0,
        kNoStatus = -1,  ///< the file's status cannot be read
        kIsADirectory = -2,
        kNotOpened = -3,
        kWrongTag = -4,  ///< the tag is not "QZFW"
        kNotRead = -5,   ///< or no memory for the boot container
    };

    /// Loads the image; called once. bDoCheck is ignored. Prints nothing, except that a path of 256
    /// characters or more ends the program with one line.
    int ObjectInit(std::string filename, bool bDoCheck);

    /// Reads dwSize bytes at the absolute file offset dwOffset. False, with lpBuffer unspecified, when they
    /// do not all lie in the file, the file cannot be read, or none is open (single mode).
    bool GetData(uint64_t dwOffset, uint32_t dwSize, uint8_t* lpBuffer);

    /// Gives the 61 reserved bytes of the head.
    void GetReservedData(uint8_t*& lpData, uint16_t& usSize);

    /// Gives the 32 MD5 bytes and the signature of the trailer. Returns the size of the signature in bytes,
    /// at most 256, or 0 without a signature.
    int GetMd5Data(uint8_t*& lpMd5, uint8_t*& lpSignMd5);

    /// Always true: no digest is computed.
    bool Md5Check(uint64_t /*nCheckSize*/) { return true; }

    /// Copies the boot container (or the package) to a new file. False when no firmware is open, the file is
    /// the firmware itself or cannot be created or written, or the firmware is too short.
    bool SaveBootFile(std::string filename) { return save_range(filename, m_bootOffset, m_bootSize); }
    bool SaveFWFile(std::string filename) { return save_range(filename, m_fwOffset, m_fwSize); }

    // Getters of the properties.
    uint32_t GetVersion() { return m_version; }
    uint32_t GetMergeVersion() { return m_mergeVersion; }
    STRUCT_QZTIME GetReleaseTime() { return m_releaseTime; }
    ENUM_QZDEVICE_TYPE GetSupportDevice() { return m_supportDevice; }
    ENUM_OS_TYPE GetOsType();
    uint16_t GetBackupSize();
    uint32_t GetBootOffset() { return m_bootOffset; }
    uint32_t GetBootSize() { return m_bootSize; }
    uint32_t GetFWOffset() { return m_fwOffset; }
    uint64_t GetFWSize() { return m_fwSize; }
    bool GetSignFlag() { return m_bSignFlag; }
    bool GetSingleFlag() { return m_bSingleFlag; }
    /// Size of the firmware file in bytes.
    uint64_t GetImageSize() { return m_fileSize; }

    /// The boot container, owned by the image; null until ObjectInit has read it.
    CQZBoot* GetBootObject() { return m_bootObject.get(); }

    /// errno of the first GetData that failed although its bytes lie in the file; 0 when none has.
    int GetReadError() const { return m_readError; }

    /// The firmware's file, which no output may replace; unknown until ObjectInit has found it.
    const FileIdentity& GetIdentity() const { return m_identity; }

private:
    int open_file(const std::string& filename);
    int load_head();
    bool load_trailer(uint64_t package_end);
    int load_boot_container();
    void close_file();
    bool save_range(const std::string& filename, uint64_t offset, uint64_t size);

    std::unique_ptr<CQZBoot> m_bootObject;
    uint32_t m_version = 0;
    uint32_t m_mergeVersion = 0;
    STRUCT_QZTIME m_releaseTime{};
    ENUM_QZDEVICE_TYPE m_supportDevice = QZNONE_DEVICE;
    uint32_t m_bootOffset = 0;
    uint32_t m_bootSize = 0;
    uint32_t m_fwOffset = 0;
    uint64_t m_fwSize = 0;
    uint8_t m_md5[32] = {};
    uint8_t m_signMd5[256] = {};
    uint8_t m_reserved[61] = {};
    bool m_bSignFlag = false;
    bool m_bSingleFlag = false;
    int32_t m_signMd5Size = 0;
    std::FILE* m_pFile = nullptr;
    uint64_t m_fileSize = 0;
    BlockReader m_reader;  // reads m_pFile
    FileIdentity m_identity;
    int m_readError = 0;
};
