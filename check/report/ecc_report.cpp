#include "ecc_report.h"

#include "../base/words.h"
#include "flip_lines.h"
#include "json_parts.h"

#include <algorithm>

namespace {

constexpr std::size_t kMostWarnings = 10;

std::string place_text(const UnitPlace& place) {
    return "block " + std::to_string(place.block) + ", page " + std::to_string(place.page) + ", unit " +
           std::to_string(place.unit);
}

uint64_t pages_of_block(const EccResult& result) {
    return result.geometry.block / result.geometry.page;
}

class EccText {
public:
    EccText(const EccResult& result, const ReportStyle& style) : m_result(result), m_style(style) {}

    std::string text() {
        if (m_result.judged) {
            line(dump_line());
            line(flips_per_unit(m_result.units));
            line(directions(m_result.units) + worst_unit());
            add_lost_units();
            add_list_indexes();
            add_tails();
            if (m_style.verbose)
                add_blocks();
        }
        add_diagnoses();
        add_warnings();
        line(closing_line());
        return m_text;
    }

private:
    void line(const std::string& text) { add_line(m_text, text); }

    std::string dump_line() const {
        const uint64_t whole = m_result.blocks - (m_result.pages_of_last != 0 ? 1 : 0);
        std::vector<std::string> pieces;
        if (whole != 0)
            pieces.push_back(counted(whole, "block") + " of " + counted(pages_of_block(m_result), "page"));
        if (m_result.pages_of_last != 0)
            pieces.push_back("1 block of " + counted(m_result.pages_of_last, "page"));
        std::string text =
            "dump             " + enumerated(pieces) + ", " + counted(m_result.units.units, "unit");
        std::vector<std::string> others;
        if (m_result.erased_blocks != 0)
            others.push_back(counted(m_result.erased_blocks, "block") + " erased");
        if (m_result.passed_blocks != 0)
            others.push_back(counted(m_result.passed_blocks, "block") + " passed over");
        return text + (others.empty() ? "" : "; ") + joined(others, ", ");
    }

    std::string worst_unit() const {
        if (!m_result.worst)
            return "";
        return "   worst unit: " + counted(m_result.units.worst(), "flip") + " at " +
               place_text(*m_result.worst);
    }

    void add_lost_units() {
        for (const LostUnits& block : m_result.lost)
            line("not correctable: " + lost_text(block));
        if (m_result.lost_blocks > m_result.lost.size())
            line("and units of " + counted(m_result.lost_blocks - m_result.lost.size(), "more block"));
    }

    static std::string lost_text(const LostUnits& block) {
        if (block.lost == 1)
            return place_text(block.first);
        const std::string text = "block " + std::to_string(block.first.block) + ", ";
        if (block.lost == block.units)
            return text + "all " + counted(block.units, "unit");
        return text + std::to_string(block.lost) + " of " + counted(block.units, "unit") +
               ", the first in page " + std::to_string(block.first.page);
    }

    void add_list_indexes() {
        const ListIndexes& indexes = m_result.indexes;
        if (indexes.pages == 0)
            return;
        std::vector<std::string> pieces = {counted(indexes.runs, "run")};
        if (indexes.step != 0)
            pieces.push_back("step " + std::to_string(indexes.step));
        pieces.push_back(indexes.out_of_order == 0 ? "right"
                                                   : counted(indexes.out_of_order, "page") + " out of order");
        line("list indexes: " + joined(pieces, ", "));
    }

    void add_tails() {
        if (m_result.tail_bytes != 0)
            line("after the units: " + counted(m_result.tail_bytes, "byte") + " not 0xFF, in " +
                 counted(m_result.tail_pages, "page"));
    }

    void add_blocks() {
        for (const BlockCounts& block : m_result.flipped_blocks)
            line("block " + std::to_string(block.block) + ": " + counted(block.flipped_bits, "flipped bit") +
                 ", at most " + std::to_string(block.worst) + " in a unit; " + counted(block.beyond, "unit") +
                 " not correctable");
        const uint64_t more = m_result.flipped_blocks_found - m_result.flipped_blocks.size();
        if (more != 0)
            line("and " + counted(more, "more block"));
    }

    void add_diagnoses() {
        for (const Diagnosis& diagnosis : m_result.diagnoses)
            line("geometry: " + escaped(diagnosis.text));
    }

    void add_warnings() {
        const std::size_t shown =
            m_style.verbose ? m_result.warnings.size() : std::min(m_result.warnings.size(), kMostWarnings);
        for (std::size_t i = 0; i < shown; ++i)
            line(painted("warning", Color::kYellow, m_style.color) + ": " + escaped(m_result.warnings[i]));
        if (shown != m_result.warnings.size())
            line("and " + counted(m_result.warnings.size() - shown, "more warning"));
    }

    std::string closing_line() const {
        const Color hue = m_result.verdict == Verdict::kSame ? Color::kGreen : Color::kRed;
        return painted(verdict_word(m_result.verdict), hue, m_style.color) + ": " + reason();
    }

    std::string reason() const {
        if (m_result.verdict == Verdict::kTrouble)
            return escaped(m_result.error.value_or("no answer"));
        if (!m_result.diagnoses.empty())
            return "the geometry is wrong";
        const UnitCounts& units = m_result.units;
        std::vector<std::string> reasons;
        if (units.beyond != 0)
            reasons.push_back(std::to_string(units.beyond) + " of " + counted(units.units, "unit") +
                              " not correctable, in " + counted(m_result.lost_blocks, "block"));
        if (m_result.over_limit() != 0)
            reasons.push_back(counted(m_result.over_limit(), "unit") + " with more than " +
                              counted(m_result.max_flips, "flip"));
        if (reasons.empty() && m_result.verdict == Verdict::kDiffers)
            reasons.push_back(counted(m_result.warnings.size(), "warning"));
        if (reasons.empty())
            reasons.emplace_back("all units correct or correctable");
        return joined(reasons, ", ") + "; " + counted(units.flipped_bits(), "bit") + " flipped";
    }

    const EccResult& m_result;
    const ReportStyle m_style;
    std::string m_text;
};

// The document

Json place_object(const UnitPlace& place) {
    Json object;
    object["block"] = place.block;
    object["page"] = place.page;
    object["unit"] = place.unit;
    return object;
}

Json dump_object(const EccResult& result) {
    if (!result.judged)
        return {};
    Json object;
    object["pages"] = result.pages;
    object["blocks"] = result.blocks;
    object["pages_of_block"] = pages_of_block(result);
    object["erased_blocks"] = result.erased_blocks;
    object["passed_blocks"] = result.passed_blocks;
    object["tail_bytes"] = result.tail_bytes;
    object["tail_pages"] = result.tail_pages;
    return object;
}

Json worst_object(const EccResult& result) {
    if (!result.worst)
        return {};
    Json object;
    object["flips"] = result.units.worst();
    object.update(place_object(*result.worst));
    return object;
}

Json indexes_object(const ListIndexes& indexes) {
    Json object;
    object["pages"] = indexes.pages;
    object["runs"] = indexes.runs;
    object["step"] = indexes.step != 0 ? Json(indexes.step) : Json();
    object["out_of_order"] = indexes.out_of_order;
    return object;
}

Json ecc_object(const EccResult& result) {
    if (!result.judged)
        return {};
    const std::optional<double> rate = bit_error_rate(result.units);
    Json object = units_object(result.units);
    object["over_limit"] = result.over_limit();
    object["worst"] = worst_object(result);
    object["bit_error_rate"] = rate ? Json(*rate) : Json();
    object["indexes"] = indexes_object(result.indexes);
    object["uncorrectable_units"] = Json::array();
    for (const UnitPlace& place : result.beyond)
        object["uncorrectable_units"].push_back(place_object(place));
    return object;
}

}  // namespace

std::string ecc_text(const EccResult& result, const ReportStyle& style) {
    return EccText(result, style).text();
}

std::string ecc_json(const EccResult& result) {
    Json document;
    document["schema"] = 1;
    document["program"] = "nandsmith-check";
    document["verdict"] = verdict_word(result.verdict);
    document["status"] = static_cast<int>(status_of(result.verdict));
    document["conversion"] = conversion_object(result.conversion);
    document["target"] = target_object(result.target_kind, result.target_path, result.past_the_cache);
    document["dump"] = dump_object(result);
    document["ecc"] = ecc_object(result);
    document["blocks"] = blocks_array(result.flipped_blocks, "flipped_bits");
    document["blocks_found"] = result.flipped_blocks_found;
    document["diagnoses"] = diagnoses_array(result.diagnoses);
    document["warnings"] = json_strings(result.warnings);
    document["error"] = result.error ? Json(json_string(*result.error)) : Json();
    return document_text(document);
}
