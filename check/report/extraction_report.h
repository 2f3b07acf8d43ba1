#pragma once

#include "../extraction/extraction_result.h"
#include "report.h"

#include <string>

/// The report for people. Ends with the closing line and a line feed.
std::string extraction_text(const ExtractionResult& result, const ReportStyle& style);

/// The report for programs: one JSON document and a line feed.
std::string extraction_json(const ExtractionResult& result);
