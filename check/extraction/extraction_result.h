#pragma once

#include "../base/result.h"
#include "part_data.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What was extracted. The reports are written from it and from nothing else.

/// A file that was extracted, or was to be.
struct ExtractedPart {
    std::string name;          ///< of the item, or "gpt", "parameter", "FlashData", "FlashBoot"
    std::string file;          ///< in the directory
    uint64_t bytes = 0;        ///< of the file as it was written
    uint64_t missing = 0;      ///< bytes after the end of a target that is too short; the file has them not
    uint64_t surplus = 0;      ///< bytes of a dump that are no whole page: they are not extracted
    bool overwritten = false;  ///< a later part of the image lies over some of its data
    DataCounts counts{};
    FilePlaces places{};  ///< which say where the units of counts lie
    /// kSame, kDiffers (the data is not all as it was written), kMissing (not extracted) or kIgnored.
    Verdict verdict = Verdict::kSame;
    std::string note;  ///< why it is not extracted, or what else there is to say
};

struct ExtractionResult {
    ConversionSummary conversion;
    Geometry geometry;
    std::string firmware_path;  ///< empty: without a firmware
    uint64_t firmware_bytes = 0;
    std::string target_kind;  ///< "directory", "image", "device", "stream" or "dump"; empty: not looked at
    std::string target_path;
    bool past_the_cache = false;
    std::string directory;

    std::vector<ExtractedPart> parts;
    std::vector<std::string> warnings;
    std::optional<std::string> error;  ///< why not all was extracted that could be read
    Verdict verdict = Verdict::kSame;  ///< same, differs or trouble

    Status status() const { return status_of(verdict); }
};
