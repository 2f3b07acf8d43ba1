#include "../base/places.h"
#include "../base/words.h"
#include "../report/json_parts.h"
#include "manifest.h"

namespace {

void add_range(Json& object, const std::string& unit, const std::optional<ManifestRange>& range) {
    object["first_" + unit] = range ? Json(range->first) : Json();
    object["last_" + unit] = range && range->last ? Json(*range->last) : Json();
}

Json file_object(const ManifestFile& file, const Geometry& geometry) {
    Json object;
    add_name(object, "name", file.name);
    add_name(object, "file", file.file);
    object["bytes"] = file.bytes;
    object["pages"] = divided_up(file.bytes, geometry.page);
    object["blocks"] = divided_up(file.bytes, geometry.block);
    add_range(object, "sector", file.sectors);
    add_range(object, "block", file.blocks);
    object["sum32"] = hexadecimal(file.sum32, 8);
    object["crc32"] = hexadecimal(file.crc32, 8);
    object["sha256"] = file.sha256;
    return object;
}

Json partition_object(const ManifestPartition& partition) {
    Json object;
    add_name(object, "name", partition.name);
    add_range(object, "sector", partition.sectors);
    return object;
}

Json programmer_object(const Geometry& geometry) {
    const ProgrammerSettings settings = programmer_settings(geometry);
    Json object;
    object["page_bytes"] = geometry.page;
    object["page_data_bytes"] = geometry.page_data;
    object["pages_per_block"] = geometry.block / geometry.page;
    object["block_bytes"] = geometry.block;
    object["spare_area"] = settings.spare_area;
    object["ecc"] = settings.ecc;
    object["ecc_bits"] = settings.has_units ? Json(kCorrectedBits) : Json();
    object["ecc_bytes"] = settings.has_units ? Json(kUnit) : Json();
    object["bad_block_mark"] = settings.bad_block_mark;
    object["sentences"] = json_strings(settings.sentences);
    return object;
}

}  // namespace

std::string manifest_json(const Manifest& manifest) {
    Json firmware;
    add_name(firmware, "name", manifest.firmware_name);
    firmware["bytes"] = manifest.firmware_bytes;
    firmware["version"] = text_or_null(manifest.firmware_version);

    Json document;
    document["schema"] = 1;
    document["program"] = "nandsmith-check";
    document["status"] = static_cast<int>(manifest.status());
    document["conversion"] = conversion_object(manifest.conversion);
    document["firmware"] = firmware;
    document["files"] = Json::array();
    for (const ManifestFile& file : manifest.files)
        document["files"].push_back(file_object(file, manifest.geometry));
    document["partitions"] = Json::array();
    for (const ManifestPartition& partition : manifest.partitions)
        document["partitions"].push_back(partition_object(partition));
    document["programmer"] = manifest.error ? Json() : programmer_object(manifest.geometry);
    document["error"] = manifest.error ? Json(json_string(*manifest.error)) : Json();
    return document_text(document);
}
