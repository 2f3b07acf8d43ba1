#include "program_run.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace robustness {

using namespace test_support;

namespace {

// A line, in which * stands for any text and # for a number.
using Pattern = std::string_view;

struct Ending {
    int exit_status;
    Pattern last_line;
};

constexpr Ending kEndings[] = {
    {status_of(-9), "* failed to access"},  // the output directory
    {status_of(-10), "* is not a directory"},
    {status_of(-11), "* failed to access"},  // the firmware
    {status_of(-12), "* is not a file"},
    {kInitFailed, "page size is out of range"},
    {kInitFailed, "block size is out of range"},
    {kInitFailed, "failed to load firmware,ret=1"},
    {kInitFailed, "failed to create */out_image.img,err=#"},
    {kCreationFailed, "Failed to create programming image."},
    {kOutOfMemory, "out of memory"},
};

// What a failed creation says in colour before its last line, and the line before that: the cause. A step
// that got no memory has no line for it; then the line before is the last one of the progress.
struct Verdict {
    Pattern line;
    Pattern line_before;
};

constexpr Pattern kProgress = "writing *...";
constexpr Pattern kAnything = "*";

constexpr Verdict kVerdicts[] = {
    {"failed to write idblock,ret=-1", "writing idblock..."},  // no stage of the loader
    {"failed to write idblock,ret=-2", "writing idblock..."},
    {"failed to write idblock,ret=-3", "failed to create */idblock.img,err=#"},
    {"failed to write idblock,ret=-4", "Failed to create idblock,ret=-#"},
    {"failed to write idblock,ret=-5", "writing idblock..."},  // memory
    {"failed to get header of firmware", kAnything},
    {"failed to get extended info of firmware", kAnything},
    {"not found any of partition items in the firmware", kAnything},
    {"not found parameter in the firmware", kAnything},
    {"failed to create param buffer", kAnything},
    {"failed to prepare *", "failed to create *.img,err=#"},
    {"failed to prepare *", "*...OK"},                             // memory
    {"failed to prepare *", "start to write partitions...gpt=#"},  // memory
    {"failed to write *,ret=-1", "partition size is too small"},   // a plain image or the parameter
    {"failed to write *,ret=-2", "partition size is too small"},   // a sparse image
    {"failed to write *,ret=-1", "failed to get sparse header"},
    {"failed to write *,ret=-2", "failed to get data from firmware"},
    {"failed to write gpt,ret=-2", "failed to parse gpt parameter file"},
    {"failed to write gpt,ret=-3", "too many partitions for gpt"},
    {"failed to write *,ret=-3", "failed to create */unsparse_tmp.bin,err=#"},
    {"failed to write *,ret=-4", "failed to get sparse chunk"},
    {"failed to write *,ret=-5", "failed to get raw chunk data"},
    {"failed to write *,ret=-6", "failed to get fill chunk data"},
    {"failed to write parameter,ret=-2", "writing parameter..."},  // memory, as all below
    {"failed to write gpt,ret=-4", "writing gpt..."},
    {"failed to write *,ret=-3", kProgress},
    {"failed to write *,ret=-7", kProgress},
    {"failed to read *,err=#", kAnything},
    {"failed to write *,err=#", kAnything},
};

constexpr std::string_view kColourBefore = "\033[30;41m";
constexpr std::string_view kColourAfter = "\033[37;40m";
constexpr std::string_view kLineAbove = "\033[1A\033[2K";

bool matches(std::string_view line, Pattern pattern) {
    if (pattern.empty())
        return line.empty();
    const Pattern rest = pattern.substr(1);
    if (pattern.front() == '*')
        return matches(line, rest) || (!line.empty() && matches(line.substr(1), pattern));
    if (pattern.front() != '#')
        return line.starts_with(pattern.front()) && matches(line.substr(1), rest);
    const std::size_t digits = std::min(line.find_first_not_of("0123456789"), line.size());
    return digits != 0 && matches(line.substr(digits), rest);
}

// The line that many lines before the last one, without what redraws it; empty when there are too few.
std::string_view line_from_end(const std::vector<std::string>& lines, std::size_t before) {
    if (lines.size() <= before)
        return {};
    std::string_view line = lines[lines.size() - 1 - before];
    if (line.starts_with(kLineAbove))
        line.remove_prefix(kLineAbove.size());
    return line;
}

// The text between the colours of an error, empty when the line is not one.
std::string_view error_text(std::string_view line) {
    if (!line.starts_with(kColourBefore) || !line.ends_with(kColourAfter) ||
        line.size() < kColourBefore.size() + kColourAfter.size())
        return {};
    line.remove_prefix(kColourBefore.size());
    line.remove_suffix(kColourAfter.size());
    return line;
}

}  // namespace

std::string wrong_reason(int exit_status, const std::string& out) {
    if (!out.ends_with('\n'))
        return "the last line does not end";
    const std::vector<std::string> lines = split(out, '\n');
    const std::string_view last = line_from_end(lines, 0);
    if (std::none_of(std::begin(kEndings), std::end(kEndings), [&](const Ending& ending) {
            return ending.exit_status == exit_status && matches(last, ending.last_line);
        }))
        return "status " + std::to_string(exit_status) + " with the last line: " + std::string(last);
    if (exit_status != kCreationFailed)
        return {};
    const std::string_view verdict = error_text(line_from_end(lines, 1));
    const std::string_view cause = line_from_end(lines, 2);
    if (std::none_of(std::begin(kVerdicts), std::end(kVerdicts), [&](const Verdict& known) {
            return matches(verdict, known.line) && matches(cause, known.line_before);
        }))
        return "the verdict \"" + std::string(verdict) + "\" after the line: " + std::string(cause);
    return {};
}

std::optional<int> errno_of_reason(const std::string& out) {
    const std::vector<std::string> lines = split(out, '\n');
    for (std::size_t before = 0; before < std::min<std::size_t>(lines.size(), 3); ++before) {
        std::string_view line = line_from_end(lines, before);
        if (const std::string_view text = error_text(line); !text.empty())
            line = text;
        if (matches(line, "*,err=#"))
            return std::stoi(std::string(line.substr(line.rfind('=') + 1)));
    }
    return std::nullopt;
}

}  // namespace robustness
