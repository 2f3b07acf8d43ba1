#pragma once

#include "../base/result.h"
#include "report_tally.h"
#include "table.h"

#include <string>
#include <vector>

/// A row of the table of a report for people.
struct ReportRow {
    TableRow cells;
    enum class Kind { kPart, kExtra, kRest } kind = Kind::kPart;
    Verdict verdict = Verdict::kSame;  ///< of a part
    std::size_t parts = 1;             ///< that it stands for
};

/// A row for each part, missing file and extra file, and for the rest of the target. An image that is missing
/// has one row in place of those of its parts. Copies side by side of which the same is to be said share a
/// row, unless each part is wanted; then all blocks that were skipped are named too.
std::vector<ReportRow> rows_of(const CheckResult& result, bool color, bool each_part);

/// The table with at most so many rows, and a line that counts the others. Rows that are not "same" go first.
/// Nothing when there are no rows.
std::string table_of(const CheckResult& result, const std::vector<ReportRow>& rows, std::size_t most_rows);
