#pragma once

#include <cstdint>

/// Sizes of pages, erase blocks (both in KB) and spare areas (in bytes) that chips usually have. Where the
/// given ones do not fit, these are tried.

constexpr uint32_t kUsualPageSizes[] = {1, 2, 4, 8, 16};
constexpr uint32_t kUsualBlockSizes[] = {4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096};
constexpr uint32_t kUsualSpareSizes[] = {32,  64,  96,  128, 192, 208, 218,  224,  232,  256, 320,
                                         384, 436, 448, 512, 640, 744, 1024, 1280, 1664, 2208};
