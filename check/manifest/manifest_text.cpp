#include "manifest.h"

#include "../base/places.h"
#include "../base/words.h"

#include <string_view>

namespace {

constexpr std::string_view kCsvHead =
    "kind,name,file,bytes,pages,blocks,first_sector,last_sector,first_block,last_block,sum32,crc32,sha256,"
    "page_bytes,pages_per_block,spare_area,ecc,bad_block_mark\r\n";

/// A name as a field of a CSV line. A spreadsheet would take some first characters for those of a formula.
std::string csv_name(const std::string& name) {
    std::string text = escaped(name);
    if (!text.empty() && std::string_view("=+-@").find(text[0]) != std::string_view::npos) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        const auto first = static_cast<uint8_t>(text[0]);
        text.replace(0, 1, std::string("\\x") + kDigits[first >> 4] + kDigits[first & 15]);
    }
    if (text.find_first_of(",\"") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char character : text)
        quoted += character == '"' ? "\"\"" : std::string(1, character);
    return quoted + "\"";
}

/// First and last, with an empty field for what is not known.
std::string csv_range(const std::optional<ManifestRange>& range) {
    if (!range)
        return ",";
    return std::to_string(range->first) + "," + (range->last ? std::to_string(*range->last) : "");
}

/// Fields that are the same in all lines.
std::string csv_settings(const Geometry& geometry) {
    const ProgrammerSettings settings = programmer_settings(geometry);
    return joined({std::to_string(geometry.page), std::to_string(geometry.block / geometry.page),
                   settings.spare_area, settings.ecc, settings.bad_block_mark},
                  ",");
}

/// A name as sha256sum writes it. changed is set when that is another one: the line then says so.
std::string sums_name(const std::string& name, bool& changed) {
    std::string text;
    for (const char character : name)
        if (character == '\\')
            text += "\\\\";
        else if (character == '\n')
            text += "\\n";
        else if (character == '\r')
            text += "\\r";
        else
            text += character;
    changed = text != name;
    return text;
}

}  // namespace

ProgrammerSettings programmer_settings(const Geometry& geometry) {
    if (geometry.whole_image)
        return {.spare_area = "none",
                .ecc = "none",
                .bad_block_mark = "none",
                .sentences = {"The image begins at the first byte of the device.",
                              "Write the whole image: its fill bytes of 0x00 count too.",
                              "There is no spare area, no ECC and no bad block to care for."}};
    if (!geometry.spare_areas)
        return {
            .spare_area = "not-in-file",
            .ecc = "by-chip",
            .bad_block_mark = "kept",
            .sentences = {"The files hold the data of the pages without spare area: write the data alone.",
                          "The chip makes the ECC: leave it on.",
                          "Find the bad blocks by the factory's marks before the first write. Skip them "
                          "and go on in the next block."}};
    return {.spare_area = "in-file",
            .ecc = "in-file",
            .bad_block_mark = "overwritten",
            .has_units = true,
            .sentences = {"The files hold each page with its spare area: program them as they are.",
                          "The ECC is in the files: compute none. It corrects 16 bits in each 1056 bytes.",
                          "The place of the factory's bad-block mark holds data.",
                          "Find the bad blocks by the factory's marks before the first write, and keep the "
                          "list. Skip them and go on in the next block."}};
}

std::string manifest_csv(const Manifest& manifest) {
    const Geometry& geometry = manifest.geometry;
    const std::string settings = csv_settings(geometry);
    std::string text(kCsvHead);
    for (const ManifestFile& file : manifest.files)
        text += joined({"file", csv_name(file.name), csv_name(file.file), std::to_string(file.bytes),
                        std::to_string(divided_up(file.bytes, geometry.page)),
                        std::to_string(divided_up(file.bytes, geometry.block)), csv_range(file.sectors),
                        csv_range(file.blocks), hexadecimal(file.sum32, 8), hexadecimal(file.crc32, 8),
                        file.sha256, settings},
                       ",") +
                "\r\n";
    for (const ManifestPartition& partition : manifest.partitions)
        text += joined({"partition", csv_name(partition.name), "", "", "", "", csv_range(partition.sectors),
                        csv_range(std::nullopt), "", "", "", settings},
                       ",") +
                "\r\n";
    return text;
}

std::string manifest_sums(const Manifest& manifest) {
    std::string text;
    for (const ManifestFile& file : manifest.files) {
        bool changed = false;
        const std::string name = sums_name(file.file, changed);
        text += (changed ? "\\" : "") + file.sha256 + "  " + name + "\n";
    }
    return text;
}
