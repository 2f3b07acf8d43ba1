#include "dump_layout.h"

#include "../../src/common/text_pieces.h"
#include "../../src/io/retry.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr std::size_t kMostLayoutBytes = 1024 * 1024;
constexpr std::size_t kMostEntries = 1024;  // a firmware has at most 583 items
constexpr std::size_t kFields = 3;

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

/// Decimal digits, or 0x and hexadecimal digits.
std::optional<uint64_t> block_number(std::string_view text) {
    const int base = text.starts_with("0x") ? 16 : 10;
    if (base == 16)
        text.remove_prefix(2);
    uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || rest != end)
        return std::nullopt;
    return value;
}

/// All bytes of a file, which may be a pipe. Nothing, with the reason, when that fails.
std::optional<std::string> read_text(const std::string& path, std::string& reason) {
    const int file = retry_interrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); });
    std::string text;
    std::array<char, 4096> block{};
    ssize_t count = file < 0 ? -1 : 1;
    while (count > 0 && text.size() <= kMostLayoutBytes) {
        count = retry_interrupted([&] { return ::read(file, block.data(), block.size()); });
        text.append(block.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    if (count < 0)
        reason = path + " failed to be read: " + std::generic_category().message(errno);
    else if (text.size() > kMostLayoutBytes)
        reason = path + " is longer than 1 MiB: this is not a layout";
    if (file >= 0)
        ::close(file);
    return reason.empty() ? std::optional<std::string>(std::move(text)) : std::nullopt;
}

std::string range_text(uint64_t first, std::optional<uint64_t> last) {
    return last ? "blocks " + std::to_string(first) + " to " + std::to_string(*last)
                : "block " + std::to_string(first);
}

}  // namespace

std::optional<std::string> DumpLayout::add(const std::string& name, const BlockWindow& window) {
    return add_entry({.name = name, .first = window.first, .last = window.last});
}

std::optional<std::string> DumpLayout::add_start(const std::string& name, uint64_t block) {
    return add_entry({.name = name, .first = block, .last = std::nullopt});
}

std::optional<std::string> DumpLayout::add_entry(Entry entry) {
    if (m_entries.size() == kMostEntries)
        return "more than " + std::to_string(kMostEntries) + " names have places";
    if (entry.name.empty())
        return "the name is empty";
    if (entry.last && *entry.last < entry.first)
        return "the last block " + std::to_string(*entry.last) + " of " + quoted(entry.name) +
               " is before its first block " + std::to_string(entry.first);
    for (const Entry& other : m_entries) {
        if (other.name == entry.name)
            return quoted(entry.name) + " has a place already: " + range_text(other.first, other.last);
        if (entry.first <= other.last.value_or(other.first) &&
            other.first <= entry.last.value_or(entry.first))
            return range_text(entry.first, entry.last) + " of " + quoted(entry.name) + " overlap " +
                   range_text(other.first, other.last) + " of " + quoted(other.name);
    }
    m_entries.push_back(std::move(entry));
    return std::nullopt;
}

std::optional<std::string> DumpLayout::add_line(std::string_view line) {
    std::vector<std::string_view> fields;
    std::string_view rest = line;
    for (std::string_view field; next_piece(rest, ',', field);)
        fields.push_back(field);
    if (line.ends_with(','))
        fields.emplace_back();
    if (fields.size() != kFields)
        return "a line is name,first block,last block, and this has " + std::to_string(fields.size()) +
               (fields.size() == 1 ? " field" : " fields");
    std::array<uint64_t, 2> blocks{};
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const std::optional<uint64_t> number = block_number(fields[i + 1]);
        if (!number)
            return quoted(fields[i + 1]) + " is not the number of a block";
        blocks[i] = *number;
    }
    return add(std::string(fields[0]), {.first = blocks[0], .last = blocks[1]});
}

std::optional<std::string> DumpLayout::add_lines(std::string_view text) {
    std::string_view line;
    for (uint64_t number = 1; next_piece(text, '\n', line); ++number) {
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (line.empty())
            continue;
        if (const auto wrong = add_line(line))
            return "line " + std::to_string(number) + ": " + *wrong;
    }
    return std::nullopt;
}

std::optional<std::string> DumpLayout::add_options(const ChipOptions& options) {
    if (!options.layout_file.empty()) {
        std::string reason;
        const std::optional<std::string> text = read_text(options.layout_file, reason);
        if (!text)
            return reason;
        if (const auto wrong = add_lines(*text))
            return options.layout_file + ", " + *wrong;
    }
    for (const PlaceOption& place : options.at)
        if (const auto wrong = add_start(place.name, place.block))
            return "--at: " + *wrong;
    return std::nullopt;
}

/// Up to the next one, where the last block is not known.
BlockWindow DumpLayout::window(const Entry& entry) const {
    uint64_t last = UINT64_MAX - 1;  // so that the number of blocks fits
    for (const Entry& other : m_entries)
        if (other.first > entry.first)
            last = std::min(last, other.first - 1);
    return {.first = entry.first, .last = entry.last.value_or(last)};
}

std::optional<BlockWindow> DumpLayout::window_of(const std::string& name) const {
    for (const Entry& entry : m_entries)
        if (entry.name == name)
            return window(entry);
    return std::nullopt;
}

std::optional<uint64_t> DumpLayout::blocks_of(const std::string& name) const {
    for (const Entry& entry : m_entries)
        if (entry.name == name && entry.last)
            return window(entry).blocks();
    return std::nullopt;
}

void DumpLayout::mark_others(const std::string& name, std::vector<bool>& blocks) const {
    for (const Entry& entry : m_entries) {
        if (entry.name == name)
            continue;
        // Where a file ends that has only its start is not known before it is compared.
        const uint64_t last = entry.last.value_or(entry.first);
        for (uint64_t block = entry.first; block <= last && block < blocks.size(); ++block)
            blocks[block] = true;
    }
}

std::vector<std::string> DumpLayout::names() const {
    std::vector<std::string> names;
    for (const Entry& entry : m_entries)
        names.push_back(entry.name);
    return names;
}
