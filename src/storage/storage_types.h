#pragma once

#include "storage_impl.h"

#include <memory>
#include <span>
#include <string>

/// What the constructors of the storage types take.
struct StorageSettings {
    uint32_t block_size = 0;  ///< of an erase block, in KB
    uint32_t page_size = 0;   ///< in KB
    uint32_t oob_size = 0;    ///< of the spare area, in bytes
    std::string in_firmware;
    std::string out_dir;
    bool page_2k = false;    ///< 2 KB of data in a page
    bool page_list = false;  ///< list indexes of a page linked list
};

struct StorageType {
    const char* word;  ///< its name on the command line, in small letters
    bool needs_spare;  ///< the size of the spare area must be given
    std::unique_ptr<CStorage> (*make)(const StorageSettings& settings);
};

/// All storage types.
std::span<const StorageType> storage_types();
