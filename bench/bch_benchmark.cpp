// Parity of SLC NAND pages on every path that this processor has, beside a plain copy of the same bytes. The
// speed counts data alone, without system bytes and parity.

#include "common/bch.h"
#include "support/bch_paths.h"
#include "support/bytes.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint16_t kStrength = 16;  // what SLC NAND pages are encoded with
constexpr uint32_t kUnitData = 1024;
constexpr uint32_t kUnitStride = kUnitData + 32;  // data, system bytes and parity
constexpr uint32_t kUnitsInSet = 256;             // 256 KiB of data

void encode_pages(benchmark::State& state, const BchPath& path) {
    const auto units_together = static_cast<uint32_t>(state.range(0));
    test_support::Bytes pages = test_support::patterned(kUnitsInSet * kUnitStride, 1);
    std::vector<uint8_t*> units;
    for (uint32_t unit = 0; unit < kUnitsInSet; ++unit)
        units.push_back(pages.data() + unit * kUnitStride);
    bch_init(kStrength);
    bch_select_path(path);
    for (auto _ : state) {
        for (uint32_t unit = 0; unit < kUnitsInSet; unit += units_together)
            bch_encode_units(units.data() + unit, units_together);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kUnitsInSet * kUnitData);
}

void copy_pages(benchmark::State& state) {
    const test_support::Bytes pages = test_support::patterned(kUnitsInSet * kUnitStride, 1);
    test_support::Bytes copy(pages.size());
    for (auto _ : state) {
        std::memcpy(copy.data(), pages.data(), pages.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kUnitsInSet * kUnitData);
}

[[maybe_unused]] const bool kRegistered = [] {
    benchmark::RegisterBenchmark("memcpy", copy_pages);
    for (const BchPath& path : test_support::available_bch_paths()) {
        const std::string name = "bch_encode_units/" + std::string(path.name) + "/units_together";
        benchmark::RegisterBenchmark(name.c_str(), encode_pages, path)->Arg(2)->Arg(4)->Arg(8);
    }
    return true;
}();

}  // namespace
