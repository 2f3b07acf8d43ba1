// Parity of SLC NAND pages on every path that this processor has, beside a plain copy of the same bytes: to
// write it, and to judge units by it. The speed counts data alone, without system bytes and parity. Then the
// time in which the flipped bits of one unit are found.

#include "common/bch.h"
#include "common/bch/decoder.h"
#include "support/bch_paths.h"
#include "support/bytes.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint16_t kStrength = 16;  // what SLC NAND pages are encoded with
constexpr uint32_t kUnitData = 1024;
constexpr uint32_t kUnitStride = kUnitData + 32;  // data, system bytes and parity
constexpr uint32_t kUnitsInSet = 256;             // 256 KiB of data

std::vector<uint8_t*> units_of(test_support::Bytes& pages) {
    std::vector<uint8_t*> units;
    for (uint32_t unit = 0; unit < kUnitsInSet; ++unit)
        units.push_back(pages.data() + unit * kUnitStride);
    return units;
}

void encode_pages(benchmark::State& state, const BchPath& path) {
    const auto units_together = static_cast<uint32_t>(state.range(0));
    test_support::Bytes pages = test_support::patterned(kUnitsInSet * kUnitStride, 1);
    const std::vector<uint8_t*> units = units_of(pages);
    bch_init(kStrength);
    bch_select_path(path);
    for (auto _ : state) {
        for (uint32_t unit = 0; unit < kUnitsInSet; unit += units_together)
            bch_encode_units(units.data() + unit, units_together);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kUnitsInSet * kUnitData);
}

// All units are valid, and the decoder is asked about each of them.
void judge_clean_units(benchmark::State& state, const BchPath& path) {
    test_support::Bytes pages = test_support::patterned(kUnitsInSet * kUnitStride, 1);
    const std::vector<uint8_t*> units = units_of(pages);
    const BchDecoder decoder;
    bch_encode_units(units.data(), kUnitsInSet);
    bch_select_path(path);
    std::vector<BchDecoder::Remainder> remainders(kBchUnitsTogether);
    uint64_t flips = 0;
    for (auto _ : state) {
        for (uint32_t unit = 0; unit < kUnitsInSet; unit += kBchUnitsTogether) {
            decoder.remainders(units.data() + unit, kBchUnitsTogether, remainders.data());
            for (const BchDecoder::Remainder& remainder : remainders)
                flips += decoder.find_flips(remainder).count;
        }
    }
    if (flips != 0)
        state.SkipWithError("a unit is not valid");
    state.SetBytesProcessed(state.iterations() * kUnitsInSet * kUnitData);
}

// Another pattern of flipped bits each time. With more than 16 the unit is hopeless.
void find_flips(benchmark::State& state) {
    const auto count = static_cast<uint32_t>(state.range(0));
    const BchDecoder decoder;
    std::mt19937 generator(1);
    test_support::Bytes pages = test_support::patterned(kUnitsInSet * kUnitStride, 1);
    const std::vector<uint8_t*> units = units_of(pages);
    bch_encode_units(units.data(), kUnitsInSet);
    for (uint8_t* unit : units) {
        std::vector<bool> flipped(8 * BchDecoder::kUnitBytes);
        for (uint32_t left = count; left != 0;) {
            const uint32_t bit = static_cast<uint32_t>(generator() % flipped.size());
            if (flipped[bit])
                continue;
            flipped[bit] = true;
            unit[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
            --left;
        }
    }
    std::vector<BchDecoder::Remainder> remainders(kUnitsInSet);
    decoder.remainders(units.data(), kUnitsInSet, remainders.data());
    uint32_t next = 0;
    const uint32_t expected = count <= kStrength ? count : 0;
    for (auto _ : state)
        if (decoder.find_flips(remainders[next++ % kUnitsInSet]).count != expected)
            state.SkipWithError("other flips were found");
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
    for (const BchPath& path : test_support::available_bch_paths()) {
        const std::string name = "clean_units/" + std::string(path.name);
        benchmark::RegisterBenchmark(name.c_str(), judge_clean_units, path);
    }
    benchmark::RegisterBenchmark("find_flips", find_flips)->Arg(1)->Arg(8)->Arg(16)->Arg(40);
    return true;
}();

}  // namespace
