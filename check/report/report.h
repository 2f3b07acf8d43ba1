#pragma once

#include "../base/result.h"

#include <cstdint>
#include <string>

struct ReportStyle {
    bool color = false;
    bool verbose = false;  ///< every part and every listed run; else at most 40 and 20 lines of them
};

/// The report for people. Ends with the closing line and a line feed.
std::string text_report(const CheckResult& result, const ReportStyle& style);

/// The report for programs: one JSON document and a line feed. All of it is ASCII.
std::string json_report(const CheckResult& result);
