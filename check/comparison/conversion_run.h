#pragma once

#include "../../src/options/conversion_options.h"

#include <string>

class Comparison;
class OutputReceiver;

/// How a conversion ended whose output went to a receiver.
struct ConversionRun {
    bool done = false;   ///< with all bytes handed over
    std::string reason;  ///< when not done: the conversion's own lines, without colours
    /// The last message as the conversion sent it: with colours, and with all bytes of a name.
    std::string last_message;
};

/// Runs the conversion silently. Writes nothing: all bytes go to the receiver, under names without a
/// directory.
ConversionRun run_conversion(const ConversionOptions& options, OutputReceiver& receiver);

/// True when the conversion failed because the receiver refused bytes of this file with this errno, and for
/// no other reason. It still handed over the files after that one.
bool failed_to_write(const ConversionRun& run, const std::string& file, int error);

/// Runs the conversion into a comparison; a second time, as far as it is needed, where places are written
/// several times.
ConversionRun compare_conversion(const ConversionOptions& options, Comparison& comparison);
