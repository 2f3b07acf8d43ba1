#pragma once

#include "storage_units.h"

#include <cstdint>

/// The boot block: four header sectors, then the stages "FlashData" and "FlashBoot" in units of 2 KB.

constexpr uint32_t kIdbHeaderSectors = 4;
constexpr uint32_t kIdbStageUnitSectors = 4;
constexpr uint32_t kIdbTag = 0x0FF0AA55;
constexpr uint32_t kIdbChipTag = 0x38325A51;  // "QZ28"

constexpr uint32_t kIdbFirstCopySector = 64;  ///< on eMMC and SPI NOR

#pragma pack(push, 1)

struct IDB_SEC0 {
    uint32_t dwTag;  ///< 0x0FF0AA55
    uint32_t reserved;
    uint32_t uiRc4Flag;          ///< 1: the stages in this block are scrambled
    uint16_t usBootCode1Offset;  ///< 4: the stages start after the header
    uint16_t usBootCode2Offset;  ///< 4
    uint8_t reserved1[490];
    uint16_t usBootDataSize;  ///< "FlashData" in sectors
    uint16_t usBootCodeSize;  ///< "FlashData" and "FlashBoot" in sectors, a 16-bit sum
    uint16_t usCrc;           ///< 0: there is no checksum
};
static_assert(sizeof(IDB_SEC0) == kSectorSize);

struct IDB_SEC1 {
    uint16_t usSysReservedBlock;  ///< 12
    uint16_t usDisk0Size;         ///< 0xFFFF
    uint8_t reserved0[6];
    uint32_t uiChipTag;  ///< "QZ28"
    uint8_t reserved[498];
};
static_assert(sizeof(IDB_SEC1) == kSectorSize);

struct IDB_SEC2 {
    uint8_t reserved[kSectorSize];
};
static_assert(sizeof(IDB_SEC2) == kSectorSize);

struct IDB_SEC3 {
    uint8_t reserved[kSectorSize];
};
static_assert(sizeof(IDB_SEC3) == kSectorSize);

#pragma pack(pop)
