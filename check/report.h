#pragma once

#include "result.h"

#include <cstdint>
#include <string>

struct ReportStyle {
    bool color = false;
    bool verbose = false;  ///< every part and every listed run; else at most 40 and 20 lines of them
};

/// Text that came from a file, for people: what is not UTF-8, control characters and others that are not seen
/// but change how the text reads, as \xNN for each byte. An escaped text stays the same when escaped again.
std::string escaped(const std::string& text);

/// The report for people. Ends with the closing line and a line feed.
std::string text_report(const CheckResult& result, const ReportStyle& style);

/// The report for programs: one JSON document and a line feed. All of it is ASCII.
std::string json_report(const CheckResult& result);
