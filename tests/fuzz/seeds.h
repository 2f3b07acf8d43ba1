#pragma once

// What fuzzing starts from: correct inputs of every kind, and the numbers that cost most when they are wild.

#include "fuzz_target.h"

#include <vector>

namespace robustness {

std::vector<NamedInput> boot_container_seeds();
std::vector<NamedInput> update_image_seeds();
std::vector<NamedInput> parameter_text_seeds();
std::vector<NamedInput> sparse_expansion_seeds();
std::vector<NamedInput> conversion_seeds();

}  // namespace robustness
