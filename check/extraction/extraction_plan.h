#pragma once

#include "../base/result.h"
#include "../comparison/output_map.h"
#include "../firmware/listing.h"
#include "../judge/part_reader.h"

#include <cstdint>
#include <string>
#include <vector>

/// A part of the output of a conversion that has data to extract.
struct PlannedPart {
    std::string name;       ///< of the item, or "gpt", "parameter", "FlashData", "FlashBoot"
    std::string choice;     ///< its name in --only and --ignore
    std::string output;     ///< the name of the extracted file
    std::string file;       ///< the file of the conversion that it is in
    uint64_t offset = 0;    ///< of the part in that file
    uint64_t position = 0;  ///< of the first byte to extract in the data of the part
    uint64_t bytes = 0;     ///< of data
    bool overwritten = false;
    bool scrambled = false;
    std::string note{};
    std::string refusal{};  ///< why it cannot be extracted; empty: it can
};

/// The parts of the items, the parameter or the GPT, in the order of the item table. Those that cannot get a
/// file are among them, with the reason.
std::vector<PlannedPart> plan_items(const Listing& listing, const OutputMap& map, const PageLayout& layout,
                                    bool whole_image);

/// True when a later part lies over some of the bytes of data at this position of an extent.
bool is_overwritten(const OutputMap& map, const OutputMap::Extent& extent, const PageLayout& layout,
                    uint64_t position, uint64_t bytes);

/// Refuses parts whose names cannot be those of files, or are those of a part before.
void refuse_names(std::vector<PlannedPart>& parts);
