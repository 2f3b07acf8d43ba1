// Dumps of garbage and sizes at the edge: the answer comes soon, is short, and takes little memory.

#include "chip_bench.h"

#include <fstream>
#include <functional>

namespace {

using namespace check_test;

struct Garbage {
    std::string name;
    std::function<Bytes(std::size_t size, uint32_t number)> block;
    std::string ecc_line;  // the closing lines
    std::string firmware_line;
};

void PrintTo(const Garbage& garbage, std::ostream* out) {
    *out << garbage.name;
}

constexpr uint32_t kBlocks = 5000;  // of the dump, 80 MiB in all

const std::vector<Garbage> kGarbage{
    {"Random", [](std::size_t size, uint32_t number) { return patterned(size, number); },
     "differs: the geometry is wrong", "differs: 0 of 5 files, 5 missing; 5000 blocks bad or foreign"},
    {"Zeros", [](std::size_t size, uint32_t) { return Bytes(size, 0); }, "differs: the geometry is wrong",
     "differs: 0 of 5 files, 5 missing; 5000 blocks bad or foreign"},
    {"Erased", [](std::size_t size, uint32_t) { return Bytes(size, 0xFF); },
     "same: all units correct or correctable; 0 bits flipped",
     "differs: 0 of 5 files, 5 missing; 0 blocks bad or foreign"},
};

class GarbageDump : public testing::TestWithParam<Garbage> {
protected:
    void expect(Arguments arguments, const std::string& line) const {
        arguments.push_back(m_bench.dump());
        RunOptions options;
        if (kMemoryCanBeLimited)
            options.address_space_limit = 32 * kMib;  // libraries take 8
        const RunResult run = run_check_program(arguments, options);
        EXPECT_EQ(last_line(run.out), line);
        EXPECT_LT(split(run.out, '\n').size(), 60U) << run.out;
    }

    const ChipBench m_bench{kSmallSlc, chip_firmware(), 1};
};

TEST_P(GarbageDump, EndsInAShortReport) {
    std::ofstream dump(m_bench.dump(), std::ios::binary);
    for (uint32_t number = 0; number < kBlocks; ++number) {
        const Bytes block = GetParam().block(m_bench.block(), number);
        dump.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
    }
    dump.close();
    expect({"--ecc", "-t", "slc", "-b", "16", "-p", "2", "-s", "64"}, GetParam().ecc_line);
    expect(m_bench.arguments_without_target(), GetParam().firmware_line);
}

INSTANTIATE_TEST_SUITE_P(Kinds, GarbageDump, testing::ValuesIn(kGarbage),
                         [](const auto& tested) { return tested.param.name; });

TEST(DumpSizes, BlocksOfOnePage) {
    for (const Conversion& conversion :
         {Conversion{.type = "slc", .block_kb = "2", .page_kb = "2", .spare_bytes = "64"},
          Conversion{.type = "slc", .block_kb = "64", .page_kb = "64", .spare_bytes = "2048"},
          Conversion{.type = "spinand", .block_kb = "2", .page_kb = "2"}}) {
        SCOPED_TRACE(conversion.type + " " + conversion.page_kb);
        ChipBench bench(conversion, chip_firmware(), 256);
        bench.place_all();
        expect_same(bench.result());
        bench.ruin(200);
        EXPECT_EQ(bench.result().blocks_of_chip->other, 1U);
    }
}

TEST(DumpSizes, HeaderOfMoreThanTheDump) {
    ChipBench bench;
    bench.place_all();
    ChipOptions chip;
    for (const uint64_t header : {uint64_t{bench.bytes().size()}, uint64_t{INT64_MAX}}) {
        chip.skip = header;
        const CheckResult result = bench.result(chip);
        EXPECT_EQ(result.verdict, Verdict::kDiffers);
        EXPECT_EQ(result.missing.size(), 5U);
        EXPECT_EQ(result.blocks_of_chip->all, 0U);
    }
}

TEST(DumpSizes, SpareAreaOfMoreThanTheDump) {
    ChipBench bench(kSmallSpiNand);
    bench.place_all();
    ChipOptions chip;
    chip.dump_spare = UINT32_MAX;
    const CheckResult result = bench.result(chip);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.blocks_of_chip->all, 1U);
    EXPECT_EQ(result.geometry.block, 8 * (uint64_t{2048} + UINT32_MAX));
}

}  // namespace
