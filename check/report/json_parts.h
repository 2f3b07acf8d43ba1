#pragma once

#include "../base/chip_result.h"
#include "../base/result.h"
#include "json_text.h"

#include <cstdint>
#include <string>
#include <vector>

/// Objects that the documents of several actions have.

/// A verdict as the documents and the closing lines say it.
std::string verdict_word(Verdict verdict);

/// Null for an empty text.
Json text_or_null(const std::string& text);

Json conversion_object(const ConversionSummary& conversion);

Json firmware_object(const std::string& path, uint64_t bytes);

/// past_the_cache is said of a device alone.
Json target_object(const std::string& kind, const std::string& path, bool past_the_cache);

Json diagnoses_array(const std::vector<Diagnosis>& diagnoses);

/// What is counted of units. flips lists how many have 0, 1, 2 and so on flipped bits, up to the most that
/// are corrected. with_foreign: also how many are valid data of something else.
Json units_object(const UnitCounts& units, bool with_foreign = false);

/// Erase blocks of a dump with flipped bits. The documents differ in the key of the number of these bits.
Json blocks_array(const std::vector<BlockCounts>& blocks, const std::string& key_of_flips);
