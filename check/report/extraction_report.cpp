#include "extraction_report.h"
#include "../base/words.h"
#include "flip_lines.h"
#include "json_parts.h"
#include "table.h"

#include <algorithm>

namespace {

constexpr std::size_t kMostRows = 40;
constexpr std::size_t kMostPlaces = 20;
constexpr std::size_t kMostWarnings = 10;

/// What all parts come to.
struct Sums {
    std::size_t wanted = 0;
    std::size_t right = 0;
    std::size_t damaged = 0;
    std::size_t not_extracted = 0;
    uint64_t bytes = 0;
    UnitCounts units;

    explicit Sums(const ExtractionResult& result) {
        for (const ExtractedPart& part : result.parts) {
            if (part.verdict == Verdict::kIgnored)
                continue;
            ++wanted;
            right += part.verdict == Verdict::kSame ? 1 : 0;
            damaged += part.verdict == Verdict::kDiffers ? 1 : 0;
            not_extracted += part.verdict == Verdict::kMissing ? 1 : 0;
            bytes += part.bytes;
            units.add(part.counts.units);
        }
    }
};

Place place_in(const ExtractedPart& part, const DataCounts::BadUnits& units, const Geometry& geometry) {
    return part.places.place_in_target(units.offset, geometry);
}

/// What is wrong with the data of a part, in a row of the table.
std::string damage_of(const ExtractedPart& part) {
    std::vector<std::string> pieces;
    const auto add = [&](uint64_t number, std::string_view noun, const std::string& what) {
        if (number != 0)
            pieces.push_back(counted(number, noun) + what);
    };
    add(part.counts.units.beyond, "unit", " not correctable");
    add(part.counts.erased_pages, "page", " erased");
    add(part.counts.foreign_pages, "page", " of another place");
    add(part.counts.unreadable, "byte", " unreadable");
    add(part.missing, "byte", " missing at the end");
    add(part.surplus, "byte", " after the last whole page left out");
    if (part.overwritten)
        pieces.emplace_back("a later part lies over some of it");
    return joined(pieces, ", ");
}

std::string words_of(const ExtractedPart& part, bool color) {
    std::string words;
    switch (part.verdict) {
    case Verdict::kSame:
        words = painted("same", Color::kGreen, color);
        break;
    case Verdict::kIgnored:
        return "ignored";
    case Verdict::kMissing:
        words = painted("not extracted", Color::kRed, color);
        break;
    case Verdict::kDiffers:
        words = painted("differs", Color::kRed, color) + ": " + damage_of(part);
        break;
    case Verdict::kTrouble:
        words = painted("trouble", Color::kRed, color);
        break;
    }
    return words + (part.note.empty() ? "" : ": " + escaped(part.note));
}

class TextReport {
public:
    TextReport(const ExtractionResult& result, const ReportStyle& style)
        : m_result(result), m_style(style), m_sums(result) {}

    std::string text() {
        add_table();
        add_places();
        add_units();
        add_warnings();
        add_line(m_text, closing_line());
        return m_text;
    }

private:
    std::size_t limit(std::size_t usual) const { return m_style.verbose ? SIZE_MAX : usual; }

    void add_table() {
        if (m_result.parts.empty())
            return;
        const bool units = m_result.geometry.spare_areas;
        TableRow head{.name = "file", .numbers = {"bytes"}, .words = "verdict"};
        if (units)
            head.numbers = {"bytes", "flips", "worst unit"};
        std::vector<const ExtractedPart*> parts;
        for (const ExtractedPart& part : m_result.parts)
            parts.push_back(&part);
        if (parts.size() > limit(kMostRows)) {
            std::stable_partition(parts.begin(), parts.end(),
                                  [](const ExtractedPart* part) { return part->verdict != Verdict::kSame; });
            parts.resize(kMostRows);
        }
        std::vector<TableRow> rows;
        for (const ExtractedPart* part : parts) {
            TableRow row{.name = part->file, .numbers = {}, .words = words_of(*part, m_style.color)};
            if (part->verdict == Verdict::kSame || part->verdict == Verdict::kDiffers) {
                row.numbers.push_back(std::to_string(part->bytes));
                if (units) {
                    row.numbers.push_back(std::to_string(part->counts.units.flipped_bits()));
                    row.numbers.push_back(std::to_string(part->counts.units.worst()));
                }
            }
            rows.push_back(std::move(row));
        }
        m_text += table_text(head, rows);
        if (rows.size() != m_result.parts.size())
            add_line(m_text, "and " + counted(m_result.parts.size() - rows.size(), "more file"));
    }

    /// A line for each listed place with units that could not be corrected.
    void add_places() {
        std::size_t lines = 0;
        for (const ExtractedPart& part : m_result.parts) {
            const auto& units = part.counts.bad_units;
            if (units.empty() || lines >= limit(kMostPlaces))
                continue;
            add_line(m_text, escaped(part.file) + ": not corrected, written as read:");
            const std::size_t shown = std::min(units.size(), limit(kMostPlaces) - lines);
            uint64_t left = part.counts.units.beyond;
            for (std::size_t i = 0; i < shown; ++i) {
                add_line(m_text, place_line(part, units[i]));
                left -= units[i].units;
            }
            lines += shown;
            if (left != 0)
                add_line(m_text, "  and " + counted(left, "more unit"));
        }
    }

    std::string place_line(const ExtractedPart& part, const DataCounts::BadUnits& units) const {
        const Place place = place_in(part, units, m_result.geometry);
        return "  byte " + std::to_string(units.position) + " of the data: block " +
               std::to_string(place.block) + ", page " + std::to_string(place.page) + ", unit " +
               std::to_string(place.unit.value_or(0)) + " of the target" +
               (units.units == 1 ? "" : " and " + counted(units.units - 1, "unit") + " after it");
    }

    void add_units() {
        if (!m_result.geometry.spare_areas || m_sums.units.units == 0)
            return;
        add_line(m_text, flips_per_unit(m_sums.units));
        add_line(m_text, directions(m_sums.units));
    }

    void add_warnings() {
        const std::vector<std::string>& warnings = m_result.warnings;
        const std::size_t shown = std::min(warnings.size(), limit(kMostWarnings));
        for (std::size_t i = 0; i < shown; ++i)
            add_line(m_text, painted("warning", Color::kYellow, m_style.color) + ": " + escaped(warnings[i]));
        if (shown != warnings.size())
            add_line(m_text, "and " + counted(warnings.size() - shown, "more warning"));
    }

    std::string closing_line() const {
        if (m_result.verdict == Verdict::kTrouble)
            return painted("trouble", Color::kRed, m_style.color) + ": " +
                   escaped(m_result.error.value_or("no answer"));
        const bool same = m_result.verdict == Verdict::kSame;
        std::vector<std::string> pieces = {std::to_string(same ? m_sums.right : m_sums.damaged) + " of " +
                                           counted(m_sums.wanted, "file")};
        if (m_sums.not_extracted != 0)
            pieces.push_back(std::to_string(m_sums.not_extracted) + " not extracted");
        if (m_sums.units.beyond != 0)
            pieces.push_back(counted(m_sums.units.beyond, "unit") + " not correctable");
        std::string line =
            painted(same ? "same" : "differs", same ? Color::kGreen : Color::kRed, m_style.color) + ": " +
            joined(pieces, ", ") + "; " + readable_bytes(m_sums.bytes) + " extracted";
        if (m_result.geometry.spare_areas)
            line += ", " + counted(m_sums.units.flipped_bits(), "bit") + " corrected";
        return line;
    }

    const ExtractionResult& m_result;
    const ReportStyle m_style;
    const Sums m_sums;
    std::string m_text;
};

Json bad_units_array(const ExtractedPart& part, const Geometry& geometry) {
    Json list = Json::array();
    for (const DataCounts::BadUnits& units : part.counts.bad_units) {
        const Place place = place_in(part, units, geometry);
        Json object;
        object["position"] = units.position;
        object["offset"] = units.offset;
        object["units"] = units.units;
        object["block"] = place.block;
        object["page"] = place.page;
        object["unit"] = place.unit.value_or(0);
        list.push_back(std::move(object));
    }
    return list;
}

Json part_object(const ExtractedPart& part, const ExtractionResult& result) {
    const bool extracted = part.verdict == Verdict::kSame || part.verdict == Verdict::kDiffers;
    Json object;
    add_name(object, "name", part.name);
    if (extracted)
        add_name(object, "file", part.file);
    else
        object["file"] = nullptr;
    object["verdict"] = verdict_word(part.verdict);
    object["bytes"] = part.bytes;
    object["ecc"] = result.geometry.spare_areas && extracted ? units_object(part.counts.units) : Json();
    object["uncorrectable"] = bad_units_array(part, result.geometry);
    object["erased_pages"] = part.counts.erased_pages;
    object["foreign_pages"] = part.counts.foreign_pages;
    object["missing_bytes"] = part.missing;
    object["surplus_bytes"] = part.surplus;
    object["unreadable_bytes"] = part.counts.unreadable;
    object["overwritten"] = part.overwritten;
    object["note"] = text_or_null(part.note);
    return object;
}

}  // namespace

std::string extraction_text(const ExtractionResult& result, const ReportStyle& style) {
    return TextReport(result, style).text();
}

std::string extraction_json(const ExtractionResult& result) {
    Json document;
    document["schema"] = 1;
    document["program"] = "nandsmith-check";
    document["verdict"] = verdict_word(result.verdict);
    document["status"] = static_cast<int>(result.status());
    document["conversion"] = conversion_object(result.conversion);
    document["firmware"] =
        result.firmware_path.empty() ? Json() : firmware_object(result.firmware_path, result.firmware_bytes);
    document["target"] = target_object(result.target_kind, result.target_path, result.past_the_cache);
    add_name(document, "directory", result.directory);
    Json files = Json::array();
    for (const ExtractedPart& part : result.parts)
        files.push_back(part_object(part, result));
    document["files"] = std::move(files);
    document["warnings"] = json_strings(result.warnings);
    document["error"] = result.error ? Json(json_string(*result.error)) : Json();
    return document_text(document);
}
