#pragma once

#include <string>
#include <vector>

/// A row of a table: a name to the left, numbers to the right, and words at the end. Texts of the words and
/// numbers are ready for people; the name is escaped and shortened here.
struct TableRow {
    std::string name;
    std::vector<std::string> numbers;  ///< fewer than in the head: the others are empty
    std::string words;
    std::string below{};  ///< a line after the row; empty: none
};

/// The head and the rows, a line for each. Columns are as wide as what is in them.
std::string table_text(const TableRow& head, const std::vector<TableRow>& rows);
