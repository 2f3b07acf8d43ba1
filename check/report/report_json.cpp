#include "../base/places.h"
#include "json_parts.h"
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
    if (run.holds != DifferenceRun::Holds::kNotKnown)
        object["holds"] = run.holds == DifferenceRun::Holds::kErased      ? "erased"
                          : run.holds == DifferenceRun::Holds::kOtherData ? "other-data"
                                                                          : "ruined";
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

Json skipped_blocks_array(const PartResult& part) {
    Json list = Json::array();
    for (const SkippedBlock& skipped : part.skipped)
        list.push_back(skipped.block);
    return list;
}

std::string reason_word(SkippedBlock::Reason reason) {
    switch (reason) {
    case SkippedBlock::Reason::kListed:
        return "listed";
    case SkippedBlock::Reason::kMark:
        return "mark";
    case SkippedBlock::Reason::kContent:
        break;
    }
    return "content";
}

/// Keys that only files in a dump have.
void add_chip_facts(const PartResult& part, const Geometry& geometry, Json& object) {
    Json reasons = Json::array();
    for (const SkippedBlock& skipped : part.skipped)
        reasons.push_back(reason_word(skipped.reason));
    object["skipped_because"] = reasons;
    object["units"] = units_object(part.units, true);
    Json worst;
    if (part.worst_unit) {
        const Place place = place_of(*part.worst_unit, geometry);
        worst["block"] = place.block;
        worst["page"] = place.page;
        if (place.unit)
            worst["unit"] = *place.unit;
        worst["flips"] = part.units.worst();
    }
    object["worst_unit"] = worst;
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
    object["found_at"] = part.found_at ? Json(*part.found_at) : Json();
    object["skipped_blocks"] = skipped_blocks_array(part);
    object["flips"] = geometry.chip ? Json(part.units.flipped_bits()) : flips_of(part);
    object["missing_bytes"] = part.missing;
    object["surplus_bytes"] = part.surplus;
    object["unreadable_bytes"] = part.unreadable;
    object["note"] = text_or_null(part.note);
    if (geometry.chip)
        add_chip_facts(part, geometry, object);
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
    if (result.chip) {
        Json object = units_object(*result.chip, true);
        object["wrong_units"] = opinion.wrong_units;
        object["wrong_indexes"] = opinion.wrong_indexes;
        return object;
    }
    if (!result.geometry.spare_areas || opinion.units == 0)
        return {};
    Json object;
    object["units"] = opinion.units;
    object["wrong_units"] = opinion.wrong_units;
    object["wrong_indexes"] = opinion.wrong_indexes;
    // Only the units of a chip are counted by their flips.
    for (const char* key : {"flips", "uncorrectable", "erased", "set", "cleared"})
        object[key] = nullptr;
    return object;
}

/// The erase blocks of a dump. Null for other targets.
Json dump_object(const CheckResult& result) {
    if (!result.blocks_of_chip)
        return {};
    const ChipBlocks& blocks = *result.blocks_of_chip;
    Json object;
    object["blocks"] = blocks.all;
    object["used"] = blocks.used;
    object["bad"] = blocks.bad;
    object["erased"] = blocks.erased;
    object["other"] = blocks.other;
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
    if (result.geometry.chip) {
        document["dump"] = dump_object(result);
        document["blocks"] = blocks_array(result.flipped_blocks, "flips");
    }
    document["second_opinion"] = opinion_object(result);
    document["diagnoses"] = diagnoses_array(result.diagnoses);
    document["warnings"] = json_strings(result.warnings);
    document["error"] = result.error ? Json(json_string(*result.error)) : Json();
    return document_text(document);
}
