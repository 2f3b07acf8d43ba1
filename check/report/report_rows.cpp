#include "report_rows.h"

#include "../base/places.h"
#include "../base/words.h"
#include "report.h"
#include "report_chip.h"
#include "report_copies.h"

#include <algorithm>
#include <numeric>

namespace {

/// Left in the directory by a conversion that ended while it expanded a sparse image.
constexpr std::string_view kLeftOverFile = "unsparse_tmp.bin";

std::string how_much_differs(const PartResult& part, bool whole_image) {
    if (whole_image && all_runs_listed(part) && !part.runs.empty())
        return counted(differing_sectors(part), "sector");
    return part.differing_pages != 0 ? counted(part.differing_pages, "page")
                                     : counted(part.differing, "byte");
}

std::string verdict_text(const PartResult& part, bool whole_image, bool color) {
    std::vector<std::string> facts;
    const bool nothing_there = part.missing != 0 && part.missing == part.bytes;
    if (part.differing != 0 && part.verdict == Verdict::kDiffers)
        facts.push_back(how_much_differs(part, whole_image));
    else if (part.differing != 0)
        facts.push_back(counted(part.differing, "byte") + (part.differing == 1 ? " differs" : " differ"));
    if (part.verdict == Verdict::kIgnored && nothing_there)
        facts.emplace_back("missing");
    else if (part.missing != 0 && part.verdict != Verdict::kMissing)
        facts.push_back("shorter by " + counted(part.missing, "byte"));
    if (part.surplus != 0)
        facts.push_back("longer by " + counted(part.surplus, "byte"));
    if (part.unreadable != 0)
        facts.push_back(counted(part.unreadable, "byte") + " unreadable");
    if (!part.note.empty())
        facts.push_back(escaped(part.note));

    std::string word;
    std::string_view separator = ": ";
    switch (part.verdict) {
    case Verdict::kSame:
        word = part.unreadable == 0 ? painted("same", Color::kGreen, color)
                                    : painted("same", Color::kYellow, color) + " where read";
        separator = "; ";
        break;
    case Verdict::kDiffers:
        word = painted("differs", Color::kRed, color);
        break;
    case Verdict::kMissing:
        word = painted("missing", Color::kRed, color);
        separator = "; ";
        break;
    case Verdict::kIgnored:
        word = painted("ignored", Color::kYellow, color);
        break;
    case Verdict::kTrouble:
        word = painted("trouble", Color::kRed, color);
        break;
    }
    return facts.empty() ? word : word.append(separator) + joined(facts, "; ");
}

ReportRow row_of(const PartResult& part, const Geometry& geometry, bool color, bool verbose) {
    ReportRow row;
    row.verdict = part.verdict;
    row.cells.name = name_for_people(part);
    row.cells.words = verdict_text(part, geometry.whole_image, color);
    if (geometry.chip) {
        row.cells.numbers = chip_numbers(part, geometry);
        row.cells.below = skipped_line(part, geometry, verbose);
    } else if (geometry.whole_image)
        row.cells.numbers = {std::to_string(part.offset / kSector),
                             std::to_string(divided_up(part.bytes, kSector))};
    else
        row.cells.numbers = {std::to_string(divided_up(part.bytes, geometry.block)),
                             std::to_string(divided_up(part.bytes, geometry.page)),
                             std::to_string(part.bytes)};
    return row;
}

/// A row for parts of an image that lie side by side: copies of one thing.
ReportRow row_of(const Alike& copies, const Geometry& geometry, bool color, bool verbose) {
    ReportRow row = row_of(*copies.front(), geometry, color, verbose);
    if (copies.size() == 1)
        return row;
    std::vector<uint64_t> numbers;
    for (const PartResult* part : copies)
        numbers.push_back(copy_name(*part)->number);
    const uint64_t end = copies.back()->offset + copies.back()->bytes;
    row.cells.name = std::string(copy_name(*copies.front())->thing) + ", " + copies_text(numbers);
    row.cells.numbers[1] = std::to_string(divided_up(end - copies.front()->offset, kSector));
    row.parts = copies.size();
    return row;
}

/// True when the part is the next copy of the same thing after the other one, and their rows say the same.
bool goes_on(const PartResult& part, const PartResult& other, bool whole_image) {
    const auto name = copy_name(part);
    const auto before = copy_name(other);
    return whole_image && name && before && name->thing == before->thing &&
           name->number == before->number + 1 && part.offset == other.offset + other.bytes &&
           verdict_text(part, whole_image, false) == verdict_text(other, whole_image, false);
}

std::vector<ReportRow> rows_of_parts(const CheckResult& result, bool color, bool each_part) {
    std::vector<ReportRow> list;
    Alike together;
    const auto add = [&] {
        if (!together.empty())
            list.push_back(row_of(together, result.geometry, color, each_part));
        together.clear();
    };
    for (const PartResult& part : result.parts) {
        if (!together.empty() && (each_part || !goes_on(part, *together.back(), result.geometry.whole_image)))
            add();
        together.push_back(&part);
    }
    add();
    return list;
}

ReportRow row_of_missing(const std::string& name, bool color) {
    ReportRow row;
    row.verdict = Verdict::kMissing;
    row.cells.name = name;
    row.cells.words = painted("missing", Color::kRed, color);
    return row;
}

ReportRow row_of_extra(const std::string& name, bool color) {
    ReportRow row;
    row.kind = ReportRow::Kind::kExtra;
    row.cells.name = name;
    row.cells.words =
        painted("extra", Color::kYellow, color) +
        (name == kLeftOverFile ? ": left over by a conversion that failed" : ": not of this firmware");
    return row;
}

ReportRow row_of_rest(const CheckResult& result) {
    const RestOfTarget& rest = result.rest;
    ReportRow row;
    row.kind = ReportRow::Kind::kRest;
    row.cells.name = result.target_kind == "device"   ? "rest of the device"
                     : result.target_kind == "stream" ? "rest of the stream"
                                                      : "rest of the image";
    if (result.geometry.whole_image)
        row.cells.numbers = {std::to_string(rest.offset / kSector),
                             std::to_string(divided_up(rest.bytes, kSector))};
    else
        row.cells.numbers = {"", "", std::to_string(rest.bytes)};
    row.cells.words = "not compared";
    if (rest.content == RestOfTarget::Content::kEmpty)
        row.cells.words += ", empty";
    else if (rest.content == RestOfTarget::Content::kNotEmpty)
        row.cells.words += ", not empty";
    return row;
}

/// The rows that are shown when there are too many: those that are not "same" go first.
std::vector<ReportRow> most_important(const std::vector<ReportRow>& rows, std::size_t most) {
    const auto is_same = [](const ReportRow& row) {
        return row.kind == ReportRow::Kind::kPart && row.verdict == Verdict::kSame;
    };
    const auto same_rows = static_cast<std::size_t>(std::count_if(rows.begin(), rows.end(), is_same));
    std::size_t others_left = std::min(rows.size() - same_rows, most);
    std::size_t same_left = std::min(same_rows, most - others_left);
    std::vector<ReportRow> shown;
    for (const ReportRow& row : rows) {
        std::size_t& left = is_same(row) ? same_left : others_left;
        if (left == 0)
            continue;
        left--;
        shown.push_back(row);
    }
    return shown;
}

Tally tally_of_rows(const std::vector<ReportRow>& rows) {
    Tally tally;
    for (const ReportRow& row : rows)
        if (row.kind == ReportRow::Kind::kPart)
            tally.add(row.verdict, row.parts);
        else if (row.kind == ReportRow::Kind::kExtra)
            tally.extra++;
    return tally;
}

std::size_t parts_of(const std::vector<ReportRow>& rows) {
    return std::accumulate(rows.begin(), rows.end(), std::size_t{0},
                           [](std::size_t sum, const ReportRow& row) { return sum + row.parts; });
}

/// "and 12 more: 10 same, 2 different (all with --verbose)"
std::string line_of_others(const std::vector<ReportRow>& all, const std::vector<ReportRow>& shown) {
    const Tally of_all = tally_of_rows(all);
    const Tally of_shown = tally_of_rows(shown);
    std::vector<std::string> kinds;
    const auto add = [&](std::size_t Tally::*kind, std::string_view word) {
        if (of_all.*kind != of_shown.*kind)
            kinds.push_back(std::to_string(of_all.*kind - of_shown.*kind).append(word));
    };
    add(&Tally::same, " same");
    add(&Tally::differ, " different");
    add(&Tally::missing, " missing");
    add(&Tally::ignored, " ignored");
    add(&Tally::extra, " extra");
    return "and " + std::to_string(parts_of(all) - parts_of(shown)) + " more" + (kinds.empty() ? "" : ": ") +
           joined(kinds, ", ") + " (all with --verbose)";
}

}  // namespace

std::vector<ReportRow> rows_of(const CheckResult& result, bool color, bool each_part) {
    std::vector<ReportRow> list;
    if (image_is_missing(result)) {
        for (const std::string& name : result.missing)
            list.push_back(row_of_missing(name, color));
    } else {
        list = rows_of_parts(result, color, each_part);
        for (const std::string& name : missing_without_part(result))
            list.push_back(row_of_missing(name, color));
    }
    for (const std::string& name : result.extra)
        list.push_back(row_of_extra(name, color));
    if (result.rest.bytes != 0)
        list.push_back(row_of_rest(result));
    return list;
}

std::string table_of(const CheckResult& result, const std::vector<ReportRow>& rows, std::size_t most_rows) {
    if (rows.empty())
        return "";
    const std::vector<ReportRow> shown = most_important(rows, most_rows);
    std::vector<TableRow> cells;
    for (const ReportRow& row : shown)
        cells.push_back(row.cells);
    const TableRow head =
        result.geometry.chip
            ? TableRow{"file", {"found at", "blocks", "skipped", "flips", "worst unit"}, "verdict"}
        : result.geometry.whole_image ? TableRow{"part", {"first sector", "sectors"}, "verdict"}
                                      : TableRow{"file", {"blocks", "pages", "bytes"}, "verdict"};
    std::string text = table_text(head, cells);
    if (shown.size() != rows.size())
        add_line(text, line_of_others(rows, shown));
    return text;
}
