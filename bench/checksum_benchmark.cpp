// Checksums and the scrambler. They see the boot container, the table and the boot block, so kilobytes to a
// few megabytes a run.

#include "common/common_define.h"
#include "support/bytes.h"

#include <benchmark/benchmark.h>
#include <cstdint>

namespace {

constexpr uint32_t kMebibyte = 1U << 20;
constexpr uint32_t kSector = 512;

// Checksums and scrambles what it is given; a result that nobody uses would not be computed.
template <typename Function>
void run_over_buffer(benchmark::State& state, Function function) {
    test_support::Bytes bytes = test_support::patterned(kMebibyte, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(function(bytes.data(), kMebibyte));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kMebibyte);
}

void boot_crc32(benchmark::State& state) {
    run_over_buffer(state, [](const uint8_t* data, uint32_t size) { return crc32(data, size, nullptr); });
}
BENCHMARK(boot_crc32)->Name("crc32");

void gpt_crc32(benchmark::State& state) {
    run_over_buffer(state, [](const uint8_t* data, uint32_t size) { return crc32_le(data, size, 0); });
}
BENCHMARK(gpt_crc32)->Name("crc32_le");

void plain_crc16(benchmark::State& state) {
    run_over_buffer(state, [](const uint8_t* data, uint32_t size) { return crc16(data, size); });
}
BENCHMARK(plain_crc16)->Name("crc16");

// The key schedule restarts at every sector, as in the boot block.
void scramble_sectors(benchmark::State& state) {
    run_over_buffer(state, [](uint8_t* data, uint32_t size) {
        for (uint32_t offset = 0; offset < size; offset += kSector)
            rc4(data + offset, kSector);
        return data[0];
    });
}
BENCHMARK(scramble_sectors)->Name("rc4/sectors");

void scramble_at_once(benchmark::State& state) {
    run_over_buffer(state, [](uint8_t* data, uint32_t size) {
        rc4(data, size);
        return data[0];
    });
}
BENCHMARK(scramble_at_once)->Name("rc4/at_once");

}  // namespace
