#include "report_details.h"

#include "../base/places.h"
#include "../base/words.h"
#include "report.h"
#include "report_chip.h"
#include "report_copies.h"
#include "report_tally.h"

#include <algorithm>

namespace {

bool has_details(const PartResult& part, bool ignored_too) {
    const bool wanted =
        part.verdict == Verdict::kDiffers || (ignored_too && part.verdict == Verdict::kIgnored);
    return wanted && !part.runs.empty();
}

/// Of the first of parts that differ alike.
std::string first_difference(const Alike& alike) {
    const PartResult& part = *alike.front();
    const DifferenceRun& run = *first_run(part);
    std::string text = escaped(name_for_people(part)) + ": first difference at byte " +
                       std::to_string(run.offset) + " (" + hexadecimal(run.offset) + "): is " +
                       hexadecimal(run.actual, 2) + ", should be " + hexadecimal(run.expected, 2);
    std::vector<uint64_t> others;
    for (std::size_t i = 1; i < alike.size(); i++)
        others.push_back(copy_name(*alike[i])->number);
    return others.empty() ? text : text.append("; the same in ") + copies_text(others);
}

/// The bytes of a run in what holds them: "byte 12 of unit 0", "bytes 12 to 15". A run that goes on after its
/// holder: "100 bytes from byte 12 of unit 0".
std::string bytes_of_run(const DifferenceRun& run, uint64_t first, uint64_t size, const std::string& holder) {
    const std::string start = "byte " + std::to_string(first) + holder;
    if (run.length > size - first)
        return counted(run.length, "byte") + " from " + start;
    if (run.length == 1)
        return start;
    return "bytes " + std::to_string(first) + " to " + std::to_string(first + run.length - 1) + holder;
}

std::string run_line(const DifferenceRun& run, Correction correction, const Geometry& geometry) {
    const Place place = place_of(run.offset, geometry);
    std::string text;
    if (geometry.whole_image) {
        text = "  sector " + std::to_string(place.sector) + ", " +
               bytes_of_run(run, place.byte_of_sector, kSector, "");
    } else {
        text = "  block " + std::to_string(place.block) + ", page " + std::to_string(place.page) + " (page " +
               std::to_string(place.page_of_target) + (geometry.chip ? " of the dump), " : " of the file), ");
        text += place.unit
                    ? bytes_of_run(run, place.byte_of_unit, kUnit, " of unit " + std::to_string(*place.unit))
                    : bytes_of_run(run, place.byte_of_page, std::max<uint64_t>(geometry.page, 1), "");
    }
    text += ": " + counted(run.flips, "bit") + (run.flips == 1 ? " differs" : " differ");
    if (correction == Correction::kCorrectable)
        text += ", correctable";
    else if (correction == Correction::kNotCorrectable)
        text += ", not correctable";
    return text + held_instead(run);
}

/// Lines that all listed runs of the part and "and N more" take.
std::size_t lines_of_runs(const PartResult& part) {
    return part.runs.size() + (all_runs_listed(part) ? 0 : 1);
}

/// Adds as many runs as fit. Returns how many lines they take.
std::size_t add_runs(const PartResult& part, const Geometry& geometry, std::size_t most_lines,
                     std::string& out) {
    const bool all_fit = lines_of_runs(part) <= most_lines;
    if (!all_fit && most_lines < 2)
        return 0;
    const std::size_t shown = all_fit ? part.runs.size() : most_lines - 1;
    const std::vector<Correction> of_runs = corrections(part, geometry);
    for (std::size_t i = 0; i < shown; i++)
        add_line(out, run_line(part.runs[i], of_runs[i], geometry));
    const uint64_t found = std::max<uint64_t>(part.runs_found, part.runs.size());
    if (found == shown)
        return shown;
    add_line(out, "  and " + std::to_string(found - shown) + " more");
    return shown + 1;
}

}  // namespace

std::string details_of(const CheckResult& result, std::size_t most_lines, bool verbose) {
    std::vector<const PartResult*> listed;
    for (const PartResult& part : result.parts)
        if (has_details(part, verbose))
            listed.push_back(&part);
    std::vector<Alike> parts;
    if (verbose)
        for (const PartResult* part : listed)
            parts.push_back({part});
    else
        parts = grouped_copies(listed);

    const bool all_fit = parts.size() <= most_lines;
    const std::size_t shown = all_fit ? parts.size() : most_lines - 1;
    std::size_t lines_left = all_fit ? most_lines - shown : 0;
    std::string text;
    for (std::size_t i = 0; i < shown; i++) {
        add_line(text, first_difference(parts[i]));
        lines_left -= add_runs(*parts[i].front(), result.geometry, lines_left, text);
    }
    if (!all_fit)
        add_line(text, "and " + counted(parts.size() - shown, "more " + std::string(noun_of_parts(result))));
    return text;
}
