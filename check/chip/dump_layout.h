#pragma once

#include "../options/options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Erase blocks of a dump, from first to last.
struct BlockWindow {
    uint64_t first = 0;
    uint64_t last = 0;

    uint64_t blocks() const { return last - first + 1; }
};

/// Where files lie in the dump of a chip, as far as the command line says it. Names are those of items, or
/// idblock, parameter and gpt. A window that is named by its first block alone goes up to the next window.
class DumpLayout {
public:
    /// Adds the window of a name. Nothing, or what is wrong with it.
    std::optional<std::string> add(const std::string& name, const BlockWindow& window);
    /// Adds a name whose file starts at this block.
    std::optional<std::string> add_start(const std::string& name, uint64_t block);
    /// Adds the lines of a text: name,first block,last block. Nothing, or a sentence with the line's number.
    std::optional<std::string> add_lines(std::string_view text);
    /// Adds what the options name; a file is read. Nothing, or what is wrong.
    std::optional<std::string> add_options(const ChipOptions& options);

    /// The blocks that the file of this name may use. Nothing when it is to be searched.
    std::optional<BlockWindow> window_of(const std::string& name) const;
    /// How many blocks a window of the layout has; nothing when only the first block is known, or none.
    std::optional<uint64_t> blocks_of(const std::string& name) const;
    /// Sets those blocks that belong to windows of other names. Of a window without a last block that is its
    /// first one alone.
    void mark_others(const std::string& name, std::vector<bool>& blocks) const;
    /// Names with windows.
    std::vector<std::string> names() const;

private:
    struct Entry {
        std::string name;
        uint64_t first = 0;
        std::optional<uint64_t> last;
    };
    std::optional<std::string> add_entry(Entry entry);
    std::optional<std::string> add_line(std::string_view line);
    BlockWindow window(const Entry& entry) const;

    std::vector<Entry> m_entries;
};
