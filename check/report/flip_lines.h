#pragma once

#include "../base/chip_result.h"

#include <optional>
#include <string>

/// What all reports say of flipped bits.

/// "flips per unit   0: 16301   1: 80   2: 3   3 to 16: 0   beyond: 0". Numbers of flips that no unit has are
/// put together.
std::string flips_per_unit(const UnitCounts& counts);

/// "1 to 0: 40   0 to 1: 46   bit error rate 6.2e-07", without the rate where it is not known.
std::string directions(const UnitCounts& counts);

/// Flipped bits for each bit of the written units that were told from what is right. Nothing when there is no
/// such unit.
std::optional<double> bit_error_rate(const UnitCounts& counts);
