#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class When { kAuto, kAlways, kNever };

/// Where a file of the conversion begins in a chip.
struct PlaceOption {
    std::string name;
    uint64_t block = 0;
};

/// What the command line says of the dump of a chip, and of extraction.
struct ChipOptions {
    std::vector<PlaceOption> at;             ///< --at=NAME=BLOCK, each name once
    std::string layout_file;                 ///< --layout=CSV; empty: none
    std::vector<uint64_t> bad_blocks;        ///< --bad-blocks=LIST: ascending, each once
    std::optional<uint64_t> max_bad_blocks;  ///< --max-bad-blocks=N: most that may be skipped for a file
    uint32_t max_flips = 16;                 ///< --max-flips=N: most of a unit that still count as the same
    uint32_t warn_flips = 12;                ///< --warn-flips=N: units with more are warned of
    uint64_t dump_spare = 0;        ///< --dump-spare=BYTES: spare area of each page of a SPI NAND dump
    uint64_t skip = 0;              ///< --skip=BYTES: header of the dump file
    std::string extract_directory;  ///< --extract=DIR
    bool force = false;             ///< --force: extraction replaces existing files
    When holes = When::kAuto;       ///< --holes=WHEN: extracted files have holes in place of zeros
};

/// Codes of the long options that set them, from this one on.
enum ChipOptionCode : int {
    kFirstChipOption = 512,
    kAt = kFirstChipOption,
    kLayout,
    kBadBlocks,
    kMaxBadBlocks,
    kMaxFlips,
    kWarnFlips,
    kDumpSpare,
    kSkip,
    kLastChipOption = kSkip,
};

/// Reads what the command line says of a chip, option by option.
class ChipOptionReader {
public:
    explicit ChipOptionReader(ChipOptions& options) : m_options(options) {}

    /// Takes over the value of an option. Returns what is wrong with it.
    std::optional<std::string> take(int code, std::string_view value);
    /// All options were read: sorts, and sets what depends on others. Returns what is wrong with them.
    std::optional<std::string> finish();

private:
    std::optional<std::string> take_place(std::string_view value);
    std::optional<std::string> take_blocks(std::string_view value);

    ChipOptions& m_options;
    std::optional<uint32_t> m_warn_flips;
};
