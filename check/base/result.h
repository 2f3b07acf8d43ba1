#pragma once

#include "chip_result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What was found out about a target. The reports are written from it and from nothing else.

enum class Verdict {
    kSame,
    kDiffers,
    kMissing,  ///< the file is not in the directory, or no byte of the part is in the target
    kIgnored,  ///< counted, but not part of the answer
    kTrouble,  ///< of the whole only: there is no answer
};

/// Exit statuses of the program.
enum Status : int {
    kStatusSame = 0,
    kStatusDiffers = 1,
    kStatusTrouble = 2,
};

/// The exit status of a verdict on the whole.
inline Status status_of(Verdict verdict) {
    if (verdict == Verdict::kTrouble)
        return kStatusTrouble;
    return verdict == Verdict::kSame ? kStatusSame : kStatusDiffers;
}

/// Sizes in bytes that places in a report are counted in.
struct Geometry {
    bool whole_image = false;  ///< eMMC and NOR: one image with sectors; else a file for each part
    bool spare_areas = false;  ///< SLC NAND: a page consists of units and its spare area
    uint64_t page = 0;         ///< of a page in the target, with its spare area; not 0
    uint64_t block = 0;        ///< of an erase block in the target, with the spare areas; not 0
    uint64_t page_data = 0;    ///< of a page without its spare area
    bool chip = false;         ///< the target is the dump of a chip
    uint64_t header = 0;       ///< of the target, before its erase block 0
};

constexpr uint64_t kSector = 512;
/// A unit of SLC NAND in the target: 1024 bytes of data, 4 system bytes and 28 bytes of parity.
constexpr uint64_t kUnit = 1056;
constexpr uint64_t kUnitData = 1024;  ///< of kUnit, its first bytes

/// Bytes in a row that all differ. In the dump of a chip: a unit that differs, from its first byte that
/// differs to its last one.
struct DifferenceRun {
    uint64_t offset = 0;   ///< of the first one, from the start of the target file
    uint64_t length = 0;   ///< in bytes
    uint64_t flips = 0;    ///< bits that differ in these bytes
    uint8_t expected = 0;  ///< the first byte, as the firmware gives it
    uint8_t actual = 0;    ///< the first byte, as it lies in the target
    /// What is in a unit of a chip that has too many flips to be what is expected.
    enum class Holds { kNotKnown, kRuined, kOtherData, kErased } holds = Holds::kNotKnown;
};

/// One file of a directory, or one part of an image. Offsets are from the start of the target file.
struct PartResult {
    std::string name;            ///< item name as the firmware has it: any bytes
    std::string choice;          ///< its word in --only and --ignore
    bool item = false;           ///< false: a boot block, GPT, parameter or gap
    std::string file;            ///< name in the directory; empty when the target is an image or a device
    uint64_t offset = 0;         ///< where the part starts
    uint64_t bytes = 0;          ///< its length by the firmware
    uint64_t compared = 0;       ///< bytes that were read and compared
    uint64_t missing = 0;        ///< bytes after the end of a target that is too short
    uint64_t surplus = 0;        ///< bytes of the file after its last expected one
    uint64_t unreadable = 0;     ///< bytes that could not be read
    uint64_t written_again = 0;  ///< bytes that were left out: a later part writes them again
    uint64_t differing = 0;      ///< bytes that differ, without missing and surplus ones
    uint64_t differing_pages = 0;
    uint64_t runs_found = 0;          ///< runs of differing bytes
    std::vector<DifferenceRun> runs;  ///< the first ones, up to the limit that was asked for
    bool ended = false;               ///< the conversion handed over all bytes of the part
    Verdict verdict = Verdict::kSame;
    std::string note;  ///< what else is to be said in its row, such as "copy 1 is good"

    // Of a file in the dump of a chip. Its units are those of SLC NAND, or the 1024 bytes that stand for
    // them.
    std::optional<uint64_t> found_at;   ///< the erase block of its first bytes
    std::vector<SkippedBlock> skipped;  ///< erase blocks between its blocks, and before the first one
    UnitCounts units;
    std::optional<uint64_t> worst_unit;  ///< offset in the target of a unit with units.worst() flips, not 0

    /// True when each byte of the part was compared with the target.
    bool is_compared() const { return ended && compared + written_again == bytes; }
};

struct Diagnosis {
    std::string code;  ///< such as "page-list"
    std::string text;  ///< a sentence for people: what it looks like and what to try
};

/// What is right in the target by the formats alone.
struct SecondOpinion {
    bool asked = true;                ///< false with --no-second-opinion
    std::vector<std::string> judged;  ///< what else was judged, such as "GPT" or "boot block"; each once
    uint64_t units = 0;               ///< of SLC NAND that were judged
    uint64_t wrong_units = 0;         ///< of them, those whose parity does not belong to the data
    uint64_t wrong_indexes = 0;       ///< pages with another list index than their place asks for
    uint64_t findings_found = 0;
    std::vector<std::string> findings;  ///< the first ones, one sentence each
    std::vector<std::string> remarks;   ///< the first ones of the GPT: odd, but right if the firmware says so
};

/// The rest of an image or a device, after the last byte that the firmware gives.
struct RestOfTarget {
    uint64_t offset = 0;
    uint64_t bytes = 0;  ///< 0: there is none
    enum class Content { kUnknown, kEmpty, kNotEmpty } content = Content::kUnknown;
};

/// The erase blocks of a chip's dump.
struct ChipBlocks {
    uint64_t all = 0;
    uint64_t used = 0;    ///< hold bytes of a file
    uint64_t bad = 0;     ///< passed over between them, or known to be bad
    uint64_t erased = 0;  ///< of the others: 0xFF, but for flips
    uint64_t other = 0;   ///< of the others: they hold something else
};

/// The options of the conversion, as they were understood.
struct ConversionSummary {
    std::string type;  ///< "slc", "spinand", "spinor" or "emmc"; empty: none was given
    uint32_t block_kb = 0;
    uint32_t page_kb = 0;
    uint32_t spare = 0;
    bool two_kb = false;
    bool page_list = false;
    std::string key;  ///< "development" or "own"
};

struct CheckResult {
    ConversionSummary conversion;
    Geometry geometry;
    std::string firmware_path;
    uint64_t firmware_bytes = 0;
    std::string target_kind;  ///< "directory", "image", "device", "stream" or "dump"; empty: not looked at
    std::string target_path;
    bool past_the_cache = false;  ///< a device that was read from the medium and not from the page cache

    std::vector<PartResult> parts;     ///< in the order of their places, or of the conversion for files
    std::vector<std::string> missing;  ///< names of files that are not there
    std::vector<std::string> extra;    ///< names of what else is in the directory
    RestOfTarget rest;
    std::optional<UnitCounts> chip;            ///< of the units of all files in a dump of SLC NAND
    std::optional<ChipBlocks> blocks_of_chip;  ///< of a dump
    std::vector<BlockCounts> flipped_blocks;   ///< of a dump; at most kMostListedBlocks
    SecondOpinion opinion;
    std::vector<Diagnosis> diagnoses;
    std::vector<std::string> warnings;
    bool rest_counts = false;          ///< a rest that is not empty makes the verdict "differs"
    bool warnings_count = false;       ///< so do warnings
    std::optional<std::string> error;  ///< why there is no answer
    Verdict verdict = Verdict::kSame;  ///< same, differs or trouble

    Status status() const { return status_of(verdict); }
};

/// Why a check in which nothing differs has no answer: a part with the verdict "same" was not compared to its
/// end, or no byte of any part was compared. A rest that counts and was looked at is an answer without parts.
/// Nothing when there is an answer.
std::optional<std::string> not_compared(const CheckResult& result, bool rest_matters);
