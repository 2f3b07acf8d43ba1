#pragma once

// Firmware small enough to be bent byte by byte that still has every structure: entries of all three kinds,
// the parameter, a plain and a sparse image with every kind of chunk, a partition that grows.

#include "support/firmware_builder.h"
#include "support/sparse_builder.h"

namespace robustness {

test_support::Firmware small_firmware(const test_support::SampleOptions& options = {});

// The sparse image of small_firmware: blocks of 512 bytes, two raw chunks, a fill, a don't-care, a checksum.
test_support::SparseImage small_sparse_image();

// Its boot container by itself, as it comes in a file named ".bin".
test_support::Bytes small_container(bool scramble_stages = false);

}  // namespace robustness
