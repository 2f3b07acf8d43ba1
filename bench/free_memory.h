#pragma once

#include <cstdint>

// A virtual machine gives memory that nobody uses back to its host, and whoever touches it next waits several
// times as long for it as a write to the page cache takes. Takes that many bytes and frees them again, so
// that the process that is measured next finds them ready. std::runtime_error when that many cannot be had.
void make_memory_ready(uint64_t bytes);
