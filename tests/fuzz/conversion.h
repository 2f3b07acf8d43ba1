#pragma once

// One conversion inside this process: what the program does between its checked options and its exit status.

#include "common/bch/paths.h"
#include "storage/storage_impl.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <sys/resource.h>

namespace robustness {

inline constexpr std::array<ENUM_FLASH_TYPE, 4> kStorageTypes = {FLASH_EMMC, FLASH_NOR, FLASH_SPI_NAND,
                                                                 FLASH_SLC_NAND};

// As it stands after -t.
const char* type_name(ENUM_FLASH_TYPE type);

struct Geometry {
    uint32_t block_kb = 8;
    uint32_t page_kb = 2;
    uint32_t oob_bytes = 64;
    bool page_2k = false;
    bool page_list = false;
    std::optional<BchPath> bch_path{};  // of SLC NAND; empty: the fastest one
};

std::unique_ptr<CStorage> make_storage(ENUM_FLASH_TYPE type, const Geometry& geometry,
                                       const std::filesystem::path& firmware,
                                       const std::filesystem::path& output);

// Exit statuses of the program that a conversion can come to.
inline constexpr int kStatusSuccess = 0;
inline constexpr int kStatusOutOfMemory = 240;
inline constexpr int kStatusCreationFailed = 241;
inline constexpr int kStatusInitFailed = 242;

// Like a process of its own: random numbers start afresh.
int convert(ENUM_FLASH_TYPE type, const Geometry& geometry, const std::filesystem::path& firmware,
            const std::filesystem::path& output);

// No file grows beyond `bytes` while the object lives: such a write fails instead of ending the process.
class FileSizeLimit {
public:
    explicit FileSizeLimit(uint64_t bytes);
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit();

private:
    rlimit m_before{};
};

}  // namespace robustness
