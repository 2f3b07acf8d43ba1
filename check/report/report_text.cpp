#include "../base/words.h"
#include "report.h"
#include "report_chip.h"
#include "report_copies.h"
#include "report_details.h"
#include "report_rows.h"
#include "report_tally.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>

namespace {

// What a report may take without --verbose. A report that is explained by a diagnosis has fewer than 20
// lines: a head and 6 rows, 1 line on the device, 3 warnings, 4 lines of the second opinion, 3 diagnoses, 1
// closing line.
constexpr std::size_t kMostRows = 40;
constexpr std::size_t kMostRowsExplained = 6;
constexpr std::size_t kMostDetails = 20;
constexpr std::size_t kMostWarnings = 10;
constexpr std::size_t kMostWarningsExplained = 2;
constexpr std::size_t kMostFindings = 10;
constexpr std::size_t kMostFindingsExplained = 2;
constexpr std::size_t kMostDiagnoses = 3;

// A report in which one thing differs has fewer than 20 lines, too. Its table and its list of places give
// way, but not further than this.
constexpr std::size_t kMostLinesOfOneThing = 19;
constexpr std::size_t kLeastRows = 4;
constexpr std::size_t kLeastDetails = 2;
constexpr std::size_t kUsualDetails = 4;  // for which the table gives way

/// Diagnoses that explain all differences at once.
constexpr std::array<std::string_view, 11> kExplainingCodes = {
    "page-list", "2k-data",  "rc4-key",        "block-size", "page-or-spare-size", "other-firmware",
    "blank",     "no-spare", "spare-not-read", "offset",     "byte-swapped"};

bool explains_all(const Diagnosis& diagnosis) {
    return std::find(kExplainingCodes.begin(), kExplainingCodes.end(), diagnosis.code) !=
           kExplainingCodes.end();
}

/// True when one part, or copies that differ alike, are all that is wrong in the target.
bool one_thing_differs(const CheckResult& result) {
    std::vector<const PartResult*> wrong;
    for (const PartResult& part : result.parts)
        if (part.verdict == Verdict::kDiffers || part.verdict == Verdict::kMissing)
            wrong.push_back(&part);
    return grouped_copies(wrong).size() == 1 && missing_without_part(result).empty();
}

std::size_t lines_of(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

/// What is left of a number of lines, but not less than so many.
std::size_t left_of(std::size_t lines, std::size_t used, std::size_t least) {
    return lines > used + least ? lines - used : least;
}

/// List indexes that were judged, one for each page. Nothing when the units do not fill whole pages.
std::optional<uint64_t> indexes_judged(const CheckResult& result) {
    const uint64_t units_of_page = result.geometry.page_data / 1024;
    if (units_of_page == 0 || result.opinion.units % units_of_page != 0)
        return {};
    return result.opinion.units / units_of_page;
}

class TextReport {
public:
    TextReport(const CheckResult& result, const ReportStyle& style)
        : m_result(result), m_style(style), m_tally(tally_of(result)),
          m_explained(!style.verbose &&
                      std::any_of(result.diagnoses.begin(), result.diagnoses.end(), explains_all)),
          m_one_thing(!style.verbose && !m_explained && one_thing_differs(result)) {}

    std::string text() {
        add_way_of_reading();
        m_text += chip_lines(m_result);
        add_warnings();
        add_second_opinion();
        add_diagnoses();
        line(closing_line());
        const std::string end = std::move(m_text);
        m_text.clear();
        add_table(lines_of(end));
        add_details(lines_of(end));
        return m_text + end;
    }

private:
    void line(const std::string& text) { add_line(m_text, text); }
    std::string paint(std::string_view word, Color hue) const { return painted(word, hue, m_style.color); }
    std::size_t limit(std::size_t usual, std::size_t explained) const {
        return m_style.verbose ? SIZE_MAX : m_explained || m_one_thing ? explained : usual;
    }
    std::string counted_parts(std::size_t number) const { return counted(number, noun_of_parts(m_result)); }

    void add_table(std::size_t lines_after);
    void add_details(std::size_t lines_after);
    void add_way_of_reading();
    void add_warnings();
    void add_second_opinion();
    std::string opinion_of_right_target() const;
    std::string opinion_of_wrong_target() const;
    void add_diagnoses();
    std::string closing_line() const;
    std::string numbers_of_parts() const;
    std::string why_not_same() const;
    std::string reason_of_trouble() const;

    const CheckResult& m_result;
    const ReportStyle m_style;
    const Tally m_tally;
    const bool m_explained;  ///< one diagnosis stands for all details
    const bool m_one_thing;  ///< differs: the report is short
    std::string m_text;
};

void TextReport::add_table(std::size_t lines_after) {
    const std::vector<ReportRow> rows = rows_of(m_result, m_style.color, m_style.verbose);
    // The head, the line that counts other rows, an empty line.
    const std::size_t of_one_thing =
        left_of(kMostLinesOfOneThing, lines_after + kUsualDetails + 3, kLeastRows);
    if (m_explained && rows.size() > kMostRowsExplained)
        line(std::to_string(m_tally.differ) + " of " + counted_parts(m_tally.judged()) +
             (m_tally.differ == 1 ? " differs" : " differ") + " (all with --verbose)");
    else
        m_text += table_of(m_result, rows, m_one_thing ? of_one_thing : limit(kMostRows, kMostRows));
}

void TextReport::add_details(std::size_t lines_after) {
    if (m_explained)
        return;
    const std::size_t of_one_thing =
        left_of(kMostLinesOfOneThing, lines_of(m_text) + 1 + lines_after, kLeastDetails);
    const std::string details =
        details_of(m_result, m_one_thing ? of_one_thing : limit(kMostDetails, kMostDetails), m_style.verbose);
    if (!details.empty())
        m_text += '\n' + details;
}

void TextReport::add_way_of_reading() {
    if (m_result.target_kind != "device" || m_result.parts.empty())
        return;
    line(m_result.past_the_cache ? "device: read past the page cache"
                                 : "device: read through the page cache, which may not be what it holds");
}

void TextReport::add_warnings() {
    const std::vector<std::string>& warnings = m_result.warnings;
    const std::size_t shown = std::min(warnings.size(), limit(kMostWarnings, kMostWarningsExplained));
    for (std::size_t i = 0; i < shown; i++)
        line(paint("warning", Color::kYellow) + ": " + escaped(warnings[i]));
    if (shown != warnings.size())
        line("and " + counted(warnings.size() - shown, "more warning"));
}

std::string TextReport::opinion_of_right_target() const {
    const SecondOpinion& opinion = m_result.opinion;
    std::vector<std::string> things;
    if (opinion.units != 0) {
        things.push_back(counted(opinion.units, "unit"));
        const std::optional<uint64_t> indexes = indexes_judged(m_result);
        things.push_back(!indexes        ? "their list indexes"
                         : *indexes == 1 ? "1 list index"
                                         : std::to_string(*indexes) + " list indexes");
    }
    for (const std::string& name : opinion.judged)
        things.push_back(escaped(name));
    return enumerated(things) + (opinion.units != 0   ? " right"
                                 : things.size() == 1 ? " is right"
                                                      : " are right");
}

std::string TextReport::opinion_of_wrong_target() const {
    const SecondOpinion& opinion = m_result.opinion;
    std::vector<std::string> things;
    if (opinion.wrong_units != 0)
        things.push_back(std::to_string(opinion.wrong_units) + " of " + counted(opinion.units, "unit") +
                         " wrong");
    if (opinion.wrong_indexes != 0)
        things.push_back(std::to_string(opinion.wrong_indexes) +
                         (opinion.wrong_indexes == 1 ? " list index wrong" : " list indexes wrong"));
    if (things.empty())
        things.push_back(counted(number_of_findings(opinion), "finding"));
    return joined(things, ", ");
}

void TextReport::add_second_opinion() {
    const SecondOpinion& opinion = m_result.opinion;
    switch (opinion_verdict(m_result)) {
    case OpinionVerdict::kNotAsked:
        return;
    case OpinionVerdict::kNone:
        if (m_result.verdict != Verdict::kTrouble)
            line("second opinion: nothing was judged");
        return;
    case OpinionVerdict::kSame:
        line("second opinion: " + opinion_of_right_target());
        return;
    case OpinionVerdict::kDiffers:
        break;
    }
    line("second opinion: " + opinion_of_wrong_target());
    const uint64_t found = number_of_findings(opinion);
    const std::size_t shown = std::min(opinion.findings.size(), limit(kMostFindings, kMostFindingsExplained));
    for (std::size_t i = 0; i < shown; i++)
        line("  " + escaped(opinion.findings[i]));
    if (shown != 0 && shown != found)
        line("  and " + std::to_string(found - shown) + " more");
}

void TextReport::add_diagnoses() {
    const std::size_t shown = std::min(m_result.diagnoses.size(), limit(kMostDiagnoses, kMostDiagnoses));
    for (std::size_t i = 0; i < shown; i++)
        line("looks like: " + escaped(m_result.diagnoses[i].text) + " [" +
             escaped(m_result.diagnoses[i].code) + "]");
}

// The closing line

std::string TextReport::reason_of_trouble() const {
    if (m_result.error) {
        std::string reason = *m_result.error;
        while (!reason.empty() && reason.back() == '\n')
            reason.pop_back();
        return escaped(reason);
    }
    const uint64_t unreadable =
        std::accumulate(m_result.parts.begin(), m_result.parts.end(), uint64_t{0},
                        [](uint64_t sum, const PartResult& part) { return sum + part.unreadable; });
    return unreadable != 0 ? counted(unreadable, "byte") + " unreadable" : "no answer";
}

std::string TextReport::numbers_of_parts() const {
    const std::size_t number = m_result.verdict == Verdict::kSame ? m_tally.same : m_tally.differ;
    std::vector<std::string> numbers = {std::to_string(number) + " of " + counted_parts(m_tally.judged())};
    if (m_tally.missing != 0)
        numbers.push_back(std::to_string(m_tally.missing) + " missing");
    if (m_tally.ignored != 0)
        numbers.push_back(std::to_string(m_tally.ignored) + " ignored");
    if (m_tally.extra != 0)
        numbers.push_back(std::to_string(m_tally.extra) + " extra");
    return joined(numbers, ", ");
}

/// Reasons that are in no number of parts: what the second opinion or --strict made of the target.
std::string TextReport::why_not_same() const {
    if (m_result.verdict != Verdict::kDiffers || m_tally.differ != 0 || m_tally.missing != 0)
        return "";
    std::vector<std::string> reasons = {""};
    if (opinion_verdict(m_result) == OpinionVerdict::kDiffers)
        reasons.emplace_back("second opinion differs");
    if (m_result.rest_counts && m_result.blocks_of_chip)
        reasons.push_back(counted(m_result.blocks_of_chip->other, "other block") + " not erased");
    else if (m_result.rest_counts)
        reasons.emplace_back("rest not empty");
    if (m_result.warnings_count)
        reasons.push_back(counted(m_result.warnings.size(), "warning"));
    return joined(reasons, ", ");
}

std::string TextReport::closing_line() const {
    if (m_result.verdict == Verdict::kTrouble)
        return paint("trouble", Color::kRed) + ": " + reason_of_trouble();
    uint64_t compared = 0;
    for (const PartResult& part : m_result.parts)
        if (part.verdict != Verdict::kIgnored)
            compared += part.compared;
    const std::string word =
        m_result.verdict == Verdict::kSame ? paint("same", Color::kGreen) : paint("differs", Color::kRed);
    const std::string answer = word + ": " + numbers_of_parts() + why_not_same() + "; ";
    if (m_result.blocks_of_chip)
        return answer + counted(m_result.blocks_of_chip->bad + m_result.blocks_of_chip->other, "block") +
               " bad or foreign";
    return answer + readable_bytes(compared) + " compared";
}

}  // namespace

std::string text_report(const CheckResult& result, const ReportStyle& style) {
    return TextReport(result, style).text();
}
