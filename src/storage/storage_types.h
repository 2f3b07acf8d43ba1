#pragma once

#include "storage_impl.h"

#include <memory>
#include <span>
#include <string>

/// What a storage object is made from: sizes of erase block and page in KB, of the spare area in bytes.
struct StorageSettings {
    uint32_t block_size = 0;
    uint32_t page_size = 0;
    uint32_t oob_size = 0;
    std::string in_firmware;
    std::string out_dir;
    bool page_2k = false;    ///< 2 KB of data in a page
    bool page_list = false;  ///< list indexes of a page linked list
};

/// A storage type that can be asked for.
struct StorageType {
    const char* word;  ///< its name, in any case
    bool needs_spare;  ///< the spare area has to be given
    std::unique_ptr<CStorage> (*make)(const StorageSettings& settings);
};

/// All of them.
std::span<const StorageType> storage_types();
