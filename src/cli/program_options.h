#pragma once

#include "../options/conversion_options.h"

#include <getopt.h>
#include <string>
#include <vector>

/// The letters of nandsmith's options, for getopt_long.
inline std::string program_letters() {
    return std::string(kConversionLetters) + "vh";
}

/// The table of nandsmith's long options, for getopt_long, with the row of zeros at its end.
inline std::vector<option> program_options() {
    return with_conversion_options({
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
    });
}
