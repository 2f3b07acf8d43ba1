#pragma once

// Speed of the encoder alone, taken from the benchmark program.

#include "compare_table.h"

#include <filesystem>
#include <vector>

// Runs the benchmark of the encoder; median of that many repetitions. scratch: the file for its report.
std::vector<EncoderResult> measure_encoder(const std::filesystem::path& benchmark, int repetitions,
                                           const std::filesystem::path& scratch);
