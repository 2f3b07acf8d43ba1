#pragma once

#include "../chip/ecc_result.h"
#include "report.h"

#include <string>

/// The report on a dump for people. Ends with the closing line and a line feed.
std::string ecc_text(const EccResult& result, const ReportStyle& style);

/// The report on a dump for programs: one JSON document and a line feed. All of it is ASCII.
std::string ecc_json(const EccResult& result);
