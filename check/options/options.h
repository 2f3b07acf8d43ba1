#pragma once

#include "../../src/options/conversion_options.h"
#include "chip_options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class Action { kCheck, kEcc, kExtract, kList, kManifest, kVersion, kHelp };

enum class ManifestForm { kCsv, kJson, kSums };

/// The command line of nandsmith-check.
struct CheckOptions {
    ConversionOptions conversion;  ///< as nandsmith reads them
    ChipOptions chip;
    Action action = Action::kCheck;
    std::string target;  ///< directory, file, device or "-"; never empty after parsing: "." is the default
    bool has_target = false;  ///< the command line names one
    ManifestForm manifest_form = ManifestForm::kCsv;
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

/// The letters of the options, for getopt_long.
std::string check_letters();

/// The table of the long options, for getopt_long, with the row of zeros at its end. Rows for the beginnings
/// of a name come after the row of the whole name and have its code.
std::vector<option> check_long_options();

/// The help text, with four examples.
std::string check_help();
