#include "listing_report.h"

#include "../base/words.h"
#include "json_text.h"
#include "report.h"
#include "table.h"

namespace {

std::string kind_word(ItemKind kind) {
    switch (kind) {
    case ItemKind::kPlain:
        return "plain";
    case ItemKind::kSparse:
        return "sparse";
    case ItemKind::kParameter:
        return "parameter";
    case ItemKind::kEmpty:
        return "empty";
    case ItemKind::kNotPlaced:
        break;
    }
    return "not on storage";
}

std::string head_line(const Listing& listing) {
    std::vector<std::string> facts;
    if (!listing.version.empty())
        facts.push_back("version " + escaped(listing.version));
    if (!listing.date.empty())
        facts.push_back("of " + escaped(listing.date));
    facts.push_back("chip " + hexadecimal(listing.chip, 8));
    facts.push_back(counted(listing.firmware_bytes, "byte"));
    return joined(facts, ", ");
}

TableRow row_of(const ListedItem& item) {
    std::string words = kind_word(item.kind);
    if (item.sparse_chunks >= 0)
        words += ", " + counted(static_cast<uint64_t>(item.sparse_chunks), "chunk");
    const std::string first = item.first_sector == kNoPlace ? "-" : std::to_string(item.first_sector);
    const std::string sectors =
        item.partition_sectors == kGrows ? "to the end" : std::to_string(item.partition_sectors);
    return {
        item.name, {std::to_string(item.bytes), std::to_string(item.package_offset), first, sectors}, words};
}

TableRow row_of(const ListedLoaderEntry& entry) {
    return {entry.name, {std::to_string(entry.bytes)}, escaped(entry.type)};
}

template <typename Entry>
std::vector<TableRow> rows_of(const std::vector<Entry>& entries) {
    std::vector<TableRow> rows;
    for (const Entry& entry : entries)
        rows.push_back(row_of(entry));
    return rows;
}

Json firmware_object(const Listing& listing) {
    Json object;
    add_name(object, "path", listing.firmware_path);
    object["bytes"] = listing.firmware_bytes;
    object["version"] = json_string(listing.version);
    object["date"] = json_string(listing.date);
    object["chip"] = listing.chip;
    return object;
}

Json item_object(const ListedItem& item) {
    Json object;
    add_name(object, "name", item.name);
    object["kind"] = kind_word(item.kind);
    object["bytes"] = item.bytes;
    object["package_offset"] = item.package_offset;
    object["first_sector"] = item.first_sector == kNoPlace ? Json() : Json(item.first_sector);
    object["partition_sectors"] = item.partition_sectors == kGrows ? Json() : Json(item.partition_sectors);
    object["sparse_chunks"] = item.sparse_chunks < 0 ? Json() : Json(item.sparse_chunks);
    return object;
}

Json entry_object(const ListedLoaderEntry& entry) {
    Json object;
    add_name(object, "name", entry.name);
    object["bytes"] = entry.bytes;
    object["type"] = json_string(entry.type);
    return object;
}

template <typename Entry>
Json array_of(const std::vector<Entry>& entries, Json (*object_of)(const Entry&)) {
    Json list = Json::array();
    for (const Entry& entry : entries)
        list.push_back(object_of(entry));
    return list;
}

}  // namespace

std::string text_listing(const Listing& listing, bool color) {
    std::string text;
    const bool nothing_read =
        !listing.error.empty() && listing.items.empty() && listing.loader_entries.empty();
    if (!nothing_read)
        add_line(text, head_line(listing));
    if (!listing.items.empty()) {
        const TableRow head = {"item", {"bytes", "at byte", "first sector", "sectors"}, "kind"};
        text += '\n' + table_text(head, rows_of(listing.items));
    }
    if (!listing.loader_entries.empty())
        text += '\n' + table_text({"loader entry", {"bytes"}, "table"}, rows_of(listing.loader_entries));
    for (const std::string& warning : listing.warnings)
        add_line(text, painted("warning", Color::kYellow, color) + ": " + escaped(warning));
    if (!listing.error.empty())
        add_line(text, painted("trouble", Color::kRed, color) + ": " + escaped(listing.error));
    return text;
}

std::string json_listing(const Listing& listing) {
    Json document;
    document["schema"] = 1;
    document["program"] = "nandsmith-check";
    document["status"] = listing.error.empty() ? 0 : 2;
    document["firmware"] = firmware_object(listing);
    document["items"] = array_of(listing.items, item_object);
    document["loader_entries"] = array_of(listing.loader_entries, entry_object);
    document["warnings"] = json_strings(listing.warnings);
    document["error"] = listing.error.empty() ? Json() : Json(json_string(listing.error));
    return document_text(document);
}
