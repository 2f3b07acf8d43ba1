#include "json_parts.h"

std::string verdict_word(Verdict verdict) {
    switch (verdict) {
    case Verdict::kSame:
        return "same";
    case Verdict::kDiffers:
        return "differs";
    case Verdict::kMissing:
        return "missing";
    case Verdict::kIgnored:
        return "ignored";
    case Verdict::kTrouble:
        break;
    }
    return "trouble";
}

Json text_or_null(const std::string& text) {
    return text.empty() ? Json() : Json(json_string(text));
}

Json conversion_object(const ConversionSummary& conversion) {
    Json object;
    object["type"] = text_or_null(conversion.type);
    object["block_kb"] = conversion.block_kb;
    object["page_kb"] = conversion.page_kb;
    object["spare"] = conversion.spare;
    object["two_kb"] = conversion.two_kb;
    object["page_list"] = conversion.page_list;
    object["key"] = text_or_null(conversion.key);
    return object;
}

Json firmware_object(const std::string& path, uint64_t bytes) {
    Json object;
    add_name(object, "path", path);
    object["bytes"] = bytes;
    return object;
}

Json target_object(const std::string& kind, const std::string& path, bool past_the_cache) {
    Json object;
    object["kind"] = text_or_null(kind);
    add_name(object, "path", path);
    if (kind == "device")
        object["past_the_cache"] = past_the_cache;
    return object;
}

Json diagnoses_array(const std::vector<Diagnosis>& diagnoses) {
    Json list = Json::array();
    for (const Diagnosis& diagnosis : diagnoses) {
        Json object;
        object["code"] = json_string(diagnosis.code);
        object["text"] = json_string(diagnosis.text);
        list.push_back(std::move(object));
    }
    return list;
}

Json units_object(const UnitCounts& units, bool with_foreign) {
    Json object;
    object["units"] = units.units;
    object["flips"] = units.flips;
    object["uncorrectable"] = units.beyond;
    if (with_foreign)
        object["foreign"] = units.foreign;
    object["erased"] = units.erased;
    object["set"] = units.set;
    object["cleared"] = units.cleared;
    return object;
}

Json blocks_array(const std::vector<BlockCounts>& blocks, const std::string& key_of_flips) {
    Json list = Json::array();
    for (const BlockCounts& block : blocks) {
        Json object;
        object["block"] = block.block;
        object[key_of_flips] = block.flipped_bits;
        object["worst"] = block.worst;
        object["uncorrectable"] = block.beyond;
        list.push_back(std::move(object));
    }
    return list;
}
