#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What is in a firmware, for --list. Holds nothing of the key and none of the data.

enum class ItemKind {
    kPlain,
    kSparse,
    kParameter,
    kEmpty,      ///< no data: nothing is written for it
    kNotPlaced,  ///< its place says that it is not written to the storage
};

/// An item's place on the storage that says "none", and a partition that grows to the end of the device.
constexpr uint32_t kNoPlace = 0xFFFFFFFF;
constexpr uint32_t kGrows = 0xFFFFFFFF;

struct ListedItem {
    std::string name;                ///< as the firmware has it: any bytes
    uint64_t bytes = 0;              ///< of the data in the package
    uint64_t package_offset = 0;     ///< of the data, in bytes from the start of the package
    uint32_t first_sector = 0;       ///< on the storage; kNoPlace: none
    uint32_t partition_sectors = 0;  ///< kGrows: to the end of the device
    ItemKind kind = ItemKind::kPlain;
    int64_t sparse_chunks = -1;  ///< -1: not a sparse image
    uint64_t stored_bytes = 0;   ///< of the data on the storage: a sparse image is expanded there
};

struct ListedLoaderEntry {
    std::string name;  ///< any bytes
    uint64_t bytes = 0;
    std::string type;  ///< the table that it is in: "471", "472" or "loader"
};

struct Listing {
    std::string firmware_path;  ///< as it was given
    uint64_t firmware_bytes = 0;
    std::string version;                            ///< such as "1.2.34"
    std::string date;                               ///< such as "2024-05-17 10:30:00"
    uint32_t chip = 0;                              ///< chip-family code
    std::vector<ListedItem> items;                  ///< in the order of the item table
    std::vector<ListedLoaderEntry> loader_entries;  ///< in the order of their tables
    std::vector<std::string> warnings;
    std::string error;  ///< why there is no list, or why it is not complete; empty: nothing
};
