#include "report_copies.h"

#include "../base/words.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view kCopy = ", copy ";

/// The runs lie at the same places of their parts and begin with the same bytes.
bool same_runs(const PartResult& a, const PartResult& b) {
    return std::equal(a.runs.begin(), a.runs.end(), b.runs.begin(), b.runs.end(),
                      [&](const DifferenceRun& one, const DifferenceRun& other) {
                          return one.offset - a.offset == other.offset - b.offset &&
                                 one.length == other.length && one.flips == other.flips &&
                                 one.expected == other.expected && one.actual == other.actual;
                      });
}

bool are_alike(const PartResult& a, const PartResult& b) {
    const std::optional<CopyName> name = copy_name(a);
    const std::optional<CopyName> other = copy_name(b);
    return name && other && name->thing == other->thing && a.verdict == b.verdict &&
           a.differing == b.differing && a.runs_found == b.runs_found && a.missing == b.missing &&
           a.surplus == b.surplus && a.unreadable == b.unreadable && same_runs(a, b);
}

}  // namespace

std::optional<CopyName> copy_name(const PartResult& part) {
    if (part.item)  // its name is its own
        return std::nullopt;
    const std::string_view name = part.name;
    const std::size_t at = name.rfind(kCopy);
    if (at == std::string_view::npos)
        return std::nullopt;
    CopyName copy{name.substr(0, at), 0};
    const char* first = name.data() + at + kCopy.size();
    const char* end = name.data() + name.size();
    const auto [read_to, error] = std::from_chars(first, end, copy.number);
    return error == std::errc() && read_to == end ? std::optional(copy) : std::nullopt;
}

std::string copies_text(const std::vector<uint64_t>& numbers) {
    if (numbers.size() == 1)
        return "copy " + std::to_string(numbers[0]);
    if (numbers.size() > 2 && numbers.back() - numbers.front() + 1 == numbers.size())
        return "copies " + std::to_string(numbers.front()) + " to " + std::to_string(numbers.back());
    std::vector<std::string> words;
    for (const uint64_t number : numbers)
        words.push_back(std::to_string(number));
    return "copies " + enumerated(words);
}

std::vector<Alike> grouped_copies(const std::vector<const PartResult*>& parts) {
    std::vector<Alike> groups;
    for (const PartResult* part : parts) {
        const auto group = std::find_if(groups.begin(), groups.end(),
                                        [&](const Alike& alike) { return are_alike(*alike.front(), *part); });
        if (group != groups.end())
            group->push_back(part);
        else
            groups.push_back({part});
    }
    return groups;
}
