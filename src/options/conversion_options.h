#pragma once

#include "../storage/storage_types.h"

#include <getopt.h>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

/// What the command line says of a conversion. nandsmith and nandsmith-check read it alike.
struct ConversionOptions {
    const StorageType* type = nullptr;
    StorageSettings settings;
};

/// Why options are refused; nandsmith ends with this value.
enum RefusalCode : int {
    kUnknownFlashType = -1,
    kBlockSizeNotANumber = -2,
    kPageSizeNotANumber = -3,
    kOobSizeNotANumber = -4,
    kNoFlashType = -5,
    kNoBlockSize = -6,
    kNoPageSize = -7,
    kNoOobSize = -8,
};

struct Refusal {
    std::string line;
    RefusalCode code;
};

/// The letters of the conversion's options, for getopt_long. Kept: there is no letter l, only the long option
/// switches the page list on.
constexpr char kConversionLetters[] = "i:o:t:b:p:s:2";

/// The table for getopt_long: the conversion's options, then those of the program, then the row of zeros.
std::vector<option> with_conversion_options(std::initializer_list<option> own);

/// What applying one option gives.
struct AppliedOption {
    std::string echo;  ///< the line that repeats it; empty: not an option of the conversion
    std::optional<Refusal> refusal{};
};

/// Takes over an option of this code of getopt_long. The argument is null when the option has none.
AppliedOption apply_conversion_option(int code, const char* argument, ConversionOptions& options);

/// What is missing when all options were read: type, block size, page size and, for SLC NAND, spare size.
std::optional<Refusal> check_geometry(const ConversionOptions& options);
