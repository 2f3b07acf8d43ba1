#pragma once

#include <cstdint>
#include <functional>

/// Told while a run goes on: bytes that were dealt with so far, and their expected number (0: unknown).
using CheckProgress = std::function<void(uint64_t done, uint64_t total)>;
