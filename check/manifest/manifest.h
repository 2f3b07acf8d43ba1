#pragma once

#include "../base/result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The list of the files for who programs the chips. The texts are written from it and from nothing else.

/// From a first to a last one, both included. Without a last one it goes to the end of the device.
struct ManifestRange {
    uint64_t first = 0;
    std::optional<uint64_t> last{};
};

struct ManifestFile {
    std::string name;  ///< without its suffix: any bytes
    std::string file;
    uint64_t bytes = 0;
    std::optional<ManifestRange> sectors{};  ///< of NAND: of the partition, by the firmware's table
    std::optional<ManifestRange> blocks{};   ///< of NAND: the erase blocks of these sectors
    uint32_t sum32 = 0;
    uint32_t crc32 = 0;
    std::string sha256;  ///< 64 hexadecimal digits
};

/// A partition in a whole image, by the firmware's table.
struct ManifestPartition {
    std::string name;  ///< any bytes
    ManifestRange sectors;
};

struct Manifest {
    ConversionSummary conversion;
    Geometry geometry;
    std::string firmware_name;  ///< without directories
    uint64_t firmware_bytes = 0;
    std::string firmware_version;
    std::vector<ManifestFile> files;            ///< in the order of the conversion
    std::vector<ManifestPartition> partitions;  ///< of a whole image, in the order of the item table
    std::optional<std::string> error;           ///< why there is no manifest

    Status status() const { return error ? kStatusTrouble : kStatusSame; }
};

/// What the programmer is to be set to, as words that programs can compare.
struct ProgrammerSettings {
    std::string spare_area;      ///< "in-file", "not-in-file" or "none"
    std::string ecc;             ///< "in-file", "by-chip" or "none"
    std::string bad_block_mark;  ///< "overwritten", "kept" or "none"
    bool has_units = false;      ///< the parity in the file is that of units
    std::vector<std::string> sentences;
};

/// Bits that the parity of a unit corrects.
constexpr uint64_t kCorrectedBits = 16;

ProgrammerSettings programmer_settings(const Geometry& geometry);

/// A table with a line for each file and each partition, and a head. Lines end with CR and LF.
std::string manifest_csv(const Manifest& manifest);

/// One document, also in trouble.
std::string manifest_json(const Manifest& manifest);

/// The lines that sha256sum -c --strict reads.
std::string manifest_sums(const Manifest& manifest);
