#include "table.h"

#include "../base/words.h"

#include <algorithm>

namespace {

constexpr std::size_t kWidestName = 40;
constexpr std::string_view kGap = "   ";

struct Widths {
    std::size_t name = 0;
    std::vector<std::size_t> numbers;
};

std::size_t name_width(const TableRow& row) {
    return characters(shortened(row.name, kWidestName));
}

Widths widths_of(const TableRow& head, const std::vector<TableRow>& rows) {
    Widths widths;
    widths.name = name_width(head);
    for (const std::string& number : head.numbers)
        widths.numbers.push_back(number.size());
    for (const TableRow& row : rows) {
        widths.name = std::max(widths.name, name_width(row));
        for (std::size_t i = 0; i < std::min(row.numbers.size(), widths.numbers.size()); i++)
            widths.numbers[i] = std::max(widths.numbers[i], row.numbers[i].size());
    }
    return widths;
}

std::string line_of(const TableRow& row, const Widths& widths) {
    std::string line = shortened(row.name, kWidestName);
    line.append(widths.name - characters(line), ' ');
    for (std::size_t i = 0; i < widths.numbers.size(); i++) {
        const std::string number = i < row.numbers.size() ? row.numbers[i] : "";
        line.append(kGap).append(widths.numbers[i] - number.size(), ' ').append(number);
    }
    return line.append(kGap).append(row.words);
}

}  // namespace

std::string table_text(const TableRow& head, const std::vector<TableRow>& rows) {
    const Widths widths = widths_of(head, rows);
    std::string text;
    add_line(text, line_of(head, widths));
    for (const TableRow& row : rows) {
        add_line(text, line_of(row, widths));
        if (!row.below.empty())
            add_line(text, row.below);
    }
    return text;
}
