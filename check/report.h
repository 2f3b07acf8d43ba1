#pragma once

#include "result.h"

#include <cstdint>
#include <string>

struct ReportStyle {
    bool color = false;
    bool verbose = false;  ///< every part and every listed run; else at most 20 lines of them
};

/// Text that came from a file, for people: control bytes and what is not UTF-8 as \xNN.
std::string escaped(const std::string& text);

/// The report for people. Ends with the closing line and a line feed.
std::string text_report(const CheckResult& result, const ReportStyle& style);

/// The report for programs: one JSON document and a line feed.
std::string json_report(const CheckResult& result);
