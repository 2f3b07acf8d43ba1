// The copies of the parameter record in its partition.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

struct CopyCase {
    std::string situation;
    uint32_t sectors;
    std::size_t record_bytes;
    std::size_t copies;
    std::size_t slot_pages;
    std::string page_kb = "2";
};

void PrintTo(const CopyCase& tested, std::ostream* out) {
    *out << tested.situation;
}

// A record whose text asks for no GPT.
Bytes record_of(std::size_t size) {
    Bytes record(size, 'x');
    for (std::size_t i = 0; i < size; ++i) {
        record[i] = static_cast<uint8_t>('a' + i / 7 % 19);
    }
    return record;
}

Firmware with_record(uint32_t sectors, std::size_t record_bytes) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].part_size = sectors;
    firmware.items[0].data = record_of(record_bytes);
    return firmware;
}

class ParameterPartition : public testing::TestWithParam<CopyCase> {};

TEST_P(ParameterPartition, HoldsEvenlySpacedCopies) {
    const CopyCase& tested = GetParam();
    const Firmware firmware = with_record(tested.sectors, tested.record_bytes);
    const std::size_t page_size = std::stoul(tested.page_kb) * kib;
    const Bytes copies =
        parameter_copies(firmware.items[0].data, tested.copies, tested.slot_pages * page_size);

    for (const std::string type : {"emmc", "spinor"}) {
        SCOPED_TRACE(type);
        const Conversion conversion{type, "4", tested.page_kb};
        const Workbench bench(firmware);
        Transcript expected = bench.echo(conversion);
        expected.start_of_raw_run();
        expect_run(bench.convert(conversion), 0, expected.success());
        const Bytes image = bench.output("out_image.img");
        ExpectedImage partition(page_size);
        partition.partition(copies, tested.sectors).pad_to_block(4 * kib);
        expect_same_bytes(slice(image, 0x2000 * sector_size, image.size() - 0x2000 * sector_size),
                          partition.bytes(), "partition");
    }

    // The whole partition also for SPI NAND: unlike other partitions, its file is no shorter than it.
    const Conversion nand{"spinand", "4", tested.page_kb};
    const Workbench bench(firmware);
    ASSERT_EQ(bench.convert(nand).exit_status, 0);
    ExpectedImage file(page_size);
    file.partition(copies, tested.sectors).pad_to_block(4 * kib);
    expect_same_bytes(bench.output("parameter.img"), file.bytes(), "parameter.img");
}

const std::vector<CopyCase> copy_cases{
    {"EightCopiesThatFillTheirSlots", 64 * 4, 8 * 2048, 8, 8},
    {"EightCopiesOfOneByteLess", 64 * 4, 8 * 2048 - 1, 8, 8},
    {"FourCopiesWhenEightDoNotFit", 64 * 4, 9 * 2048, 4, 16},
    {"FourCopiesOfOneByteMoreThanAnEighth", 64 * 4, 8 * 2048 + 1, 4, 16},
    {"FourCopiesThatFillTheirSlots", 64 * 4, 16 * 2048, 4, 16},
    {"EightCopiesAndATail", 70 * 4, 2 * 2048, 8, 8},
    {"FourCopiesAndATail", 70 * 4, 9 * 2048, 4, 17},
    {"FourCopiesInFourPages", 16, 100, 4, 1},
    {"FourCopiesInSevenPages", 7 * 4, 100, 4, 1},
    {"EightCopiesInEightPages", 8 * 4, 100, 8, 1},
    {"PagesThatGoPastThePartition", 31 * 4 + 1, 2048, 8, 4},
    {"PagesOf1Kilobyte", 64 * 2, 5000, 8, 8, "1"},
    {"PagesOf3Kilobytes", 100, 3072, 8, 2, "3"},
    {"EmptyRecord", 64 * 4, 0, 8, 8},
};

std::string situation_of(const testing::TestParamInfo<CopyCase>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Parameter, ParameterPartition, testing::ValuesIn(copy_cases), situation_of);

TEST(EmptyParameterPartition, IsEnoughForAnEmptyRecord) {
    const Workbench bench(with_record(0, 0));
    const Conversion nor{"spinor", "4", "2"};
    Transcript expected = bench.echo(nor);
    expected.start_of_raw_run();
    expect_run(bench.convert(nor), 0, expected.success());
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), 0x2000 * sector_size);
}

}  // namespace
