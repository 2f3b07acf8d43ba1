#pragma once

#include <cstdint>

/// True when the unit of SLC NAND is valid, or can be corrected to a valid one.
bool holds_other_data(const uint8_t* unit);
