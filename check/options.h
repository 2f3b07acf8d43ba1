#pragma once

#include "../src/options/conversion_options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class When { kAuto, kAlways, kNever };

enum class Action { kCheck, kList, kEcc, kExtract, kVersion, kHelp };

struct PlaceOption {
    std::string name;
    uint64_t block;
};
struct ChipOptions {
    std::vector<PlaceOption> at;  // --at=NAME=BLOCK, repeatable
    std::string layout_file;  // --layout=CSV, lines name,first block,last block (both included); empty: none
    std::vector<uint64_t> bad_blocks;        // --bad-blocks=LIST, ascending, each once
    std::optional<uint64_t> max_bad_blocks;  // --max-bad-blocks=N per file; default 2 % of the file's window
                                             // or blocks, at least 2
    uint32_t max_flips = 16;                 // --max-flips=N, 0 to 16
    uint32_t warn_flips = 12;                // --warn-flips=N, default three quarters of max_flips
    uint64_t dump_spare = 0;                 // --dump-spare=BYTES: SPI NAND dump with its spare area
    uint64_t skip = 0;                       // --skip=BYTES: header of the dump file
    std::string extract_directory;           // --extract=DIR
    bool force = false;                      // --force: existing files are replaced
    When holes = When::kAuto;  // --holes=WHEN of extracted files: auto and always leave holes for long runs
                                // of zeros, never writes them
};

/// The command line of nandsmith-check.
struct CheckOptions {
    ConversionOptions conversion;  ///< as nandsmith reads them
    ChipOptions chip;
    Action action = Action::kCheck;
    std::string target;  ///< directory, file, device or "-"; never empty after parsing: "." is the default
    std::vector<std::string> only;    ///< names of parts; empty: all
    std::vector<std::string> ignore;  ///< names of parts
    bool strict = false;
    uint64_t max_differences = 10;  ///< listed for a part; UINT64_MAX: all (0 on the command line)
    bool json = false;
    std::string json_file;  ///< empty: standard output
    bool quiet = false;
    bool verbose = false;
    bool second_opinion = true;
    When color = When::kAuto;
    When progress = When::kAuto;
    std::vector<std::string> warnings;  ///< one line for each part of the command line that is ignored
    std::optional<std::string> error;   ///< the first thing that is wrong with it
};

/// Reads the command line. What is wrong with it is in error; the rest is then as far as it was read.
CheckOptions parse_check_options(int argc, char* argv[]);

/// The help text, with four examples.
std::string check_help();
