#include "report_tally.h"

#include <set>

void Tally::add(Verdict verdict, std::size_t number) {
    switch (verdict) {
    case Verdict::kSame:
        same += number;
        break;
    case Verdict::kMissing:
        missing += number;
        break;
    case Verdict::kIgnored:
        ignored += number;
        break;
    case Verdict::kDiffers:
    case Verdict::kTrouble:
        differ += number;
        break;
    }
}

Tally tally_of(const CheckResult& result) {
    Tally tally;
    for (const PartResult& part : result.parts)
        tally.add(part.verdict);
    tally.missing += missing_without_part(result).size();
    tally.extra = result.extra.size();
    return tally;
}

std::vector<std::string> missing_without_part(const CheckResult& result) {
    if (image_is_missing(result) && !result.parts.empty())
        return {};
    std::set<std::string_view> names_of_parts;
    for (const PartResult& part : result.parts)
        names_of_parts.insert(name_for_people(part));
    std::vector<std::string> names;
    for (const std::string& name : result.missing)
        if (!names_of_parts.contains(name))
            names.push_back(name);
    return names;
}

OpinionVerdict opinion_verdict(const CheckResult& result) {
    const SecondOpinion& opinion = result.opinion;
    if (!opinion.asked)
        return OpinionVerdict::kNotAsked;
    if (opinion.wrong_units != 0 || opinion.wrong_indexes != 0 || opinion.findings_found != 0 ||
        !opinion.findings.empty())
        return OpinionVerdict::kDiffers;
    if (opinion.units == 0 && opinion.judged.empty())
        return OpinionVerdict::kNone;
    return OpinionVerdict::kSame;
}
