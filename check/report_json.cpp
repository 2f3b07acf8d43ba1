#include "json_parts.h"
#include "places.h"
#include "report.h"
#include "report_tally.h"

#include <algorithm>

namespace {

Json difference_object(const DifferenceRun& run, Correction correction, const Geometry& geometry) {
    const Place place = place_of(run.offset, geometry);
    Json object;
    object["offset"] = run.offset;
    object["length"] = run.length;
    object["block"] = place.block;
    object["page"] = place.page;
    if (geometry.whole_image)
        object["sector"] = place.sector;
    if (place.unit)
        object["unit"] = *place.unit;
    object["flips"] = run.flips;
    object["expected"] = run.expected;
    object["actual"] = run.actual;
    if (correction != Correction::kNotKnown)
        object["kind"] = correction == Correction::kCorrectable ? "correctable" : "not-correctable";
    return object;
}

Json differences_array(const PartResult& part, const Geometry& geometry) {
    const std::vector<Correction> of_runs = corrections(part, geometry);
    Json list = Json::array();
    for (std::size_t i = 0; i < part.runs.size(); i++)
        list.push_back(difference_object(part.runs[i], of_runs[i], geometry));
    return list;
}

/// Bits that differ in the part. Null when not all runs are listed.
Json flips_of(const PartResult& part) {
    if (!all_runs_listed(part))
        return {};
    uint64_t flips = 0;
    for (const DifferenceRun& run : part.runs)
        flips += run.flips;
    return flips;
}

Json part_object(const PartResult& part, const Geometry& geometry) {
    Json object;
    add_name(object, "name", part.name);
    if (geometry.whole_image) {
        object["first_sector"] = part.offset / kSector;
        object["sectors"] = divided_up(part.bytes, kSector);
    } else {
        add_name(object, "file", part.file);
    }
    object["verdict"] = verdict_word(part.verdict);
    object["bytes"] = part.bytes;
    object["compared"] = part.compared;
    const DifferenceRun* first = first_run(part);
    object["first_difference"] = first != nullptr ? Json(first->offset) : Json();
    object["differing_bytes"] = part.differing;
    object["differing_pages"] = part.differing_pages;
    object["differences"] = differences_array(part, geometry);
    object["differences_found"] = std::max<uint64_t>(part.runs_found, part.runs.size());
    object["found_at"] = nullptr;
    object["skipped_blocks"] = Json::array();
    object["flips"] = flips_of(part);
    object["missing_bytes"] = part.missing;
    object["surplus_bytes"] = part.surplus;
    object["unreadable_bytes"] = part.unreadable;
    object["note"] = text_or_null(part.note);
    return object;
}

Json parts_array(const CheckResult& result) {
    Json list = Json::array();
    for (const PartResult& part : result.parts)
        list.push_back(part_object(part, result.geometry));
    return list;
}

Json rest_object(const RestOfTarget& rest) {
    if (rest.bytes == 0)
        return {};
    Json object;
    object["offset"] = rest.offset;
    object["bytes"] = rest.bytes;
    object["content"] = rest.content == RestOfTarget::Content::kEmpty      ? "empty"
                        : rest.content == RestOfTarget::Content::kNotEmpty ? "not-empty"
                                                                           : "unknown";
    return object;
}

/// What the parity of SLC NAND says. Null without spare areas, and when no unit was judged.
Json ecc_object(const CheckResult& result) {
    const SecondOpinion& opinion = result.opinion;
    if (!result.geometry.spare_areas || opinion.units == 0)
        return {};
    Json object;
    object["units"] = opinion.units;
    object["wrong_units"] = opinion.wrong_units;
    object["wrong_indexes"] = opinion.wrong_indexes;
    // Nothing is decoded, so these are not known.
    for (const char* key : {"flips", "uncorrectable", "erased", "set", "cleared"})
        object[key] = nullptr;
    return object;
}

Json opinion_object(const CheckResult& result) {
    Json verdict;
    switch (opinion_verdict(result)) {
    case OpinionVerdict::kNotAsked:
        verdict = "not-asked";
        break;
    case OpinionVerdict::kNone:
        break;
    case OpinionVerdict::kSame:
        verdict = "same";
        break;
    case OpinionVerdict::kDiffers:
        verdict = "differs";
        break;
    }
    Json object;
    object["verdict"] = verdict;
    object["findings"] = json_strings(result.opinion.findings);
    object["findings_found"] = number_of_findings(result.opinion);
    object["judged"] = json_strings(result.opinion.judged);
    return object;
}

}  // namespace

std::string json_report(const CheckResult& result) {
    Json document;
    document["schema"] = 1;
    document["program"] = "nandsmith-check";
    document["verdict"] = verdict_word(result.verdict);
    document["status"] = static_cast<int>(result.status());
    document["conversion"] = conversion_object(result.conversion);
    document["firmware"] = firmware_object(result.firmware_path, result.firmware_bytes);
    document["target"] = target_object(result.target_kind, result.target_path, result.past_the_cache);
    document["parts"] = parts_array(result);
    add_names(document, "missing", result.missing);
    add_names(document, "extra", result.extra);
    document["rest"] = rest_object(result.rest);
    document["ecc"] = ecc_object(result);
    document["second_opinion"] = opinion_object(result);
    document["diagnoses"] = diagnoses_array(result.diagnoses);
    document["warnings"] = json_strings(result.warnings);
    document["error"] = result.error ? Json(json_string(*result.error)) : Json();
    return document_text(document);
}
