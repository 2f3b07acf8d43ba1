// Two runs on the same firmware print and write the same, whatever lay in the output directory before.

#include "cli/sample_runs.h"
#include "cli/sparse_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

class Repetition : public testing::TestWithParam<std::string> {};

TEST_P(Repetition, GivesTheSame) {
    SparseImage sparse;
    sparse.chunks = {SparseChunk::raw(patterned(50000, 1)), SparseChunk::dont_care(7),
                     SparseChunk::fill(0x01020304, 9)};
    for (const bool gpt : {false, true}) {
        for (const bool two_kilobytes_data : {false, true}) {
            SCOPED_TRACE(gpt);
            Firmware firmware = sample_firmware({.gpt = gpt, .scramble_stages = true});
            firmware.item("rootfs").data = sparse.build();
            const Workbench bench(firmware);
            const Conversion conversion{GetParam(), "64", "4", "128", two_kilobytes_data, true};
            const auto first = bench.convert(conversion);
            ASSERT_EQ(first.exit_status, 0) << first.out;
            const Names names = bench.output_names();
            std::vector<Bytes> files;
            for (const std::string& name : names) {
                files.push_back(bench.output(name));
            }

            const auto second = bench.convert(conversion);
            EXPECT_EQ(second.out, first.out);
            EXPECT_EQ(second.err, "");
            EXPECT_EQ(bench.output_names(), names);
            for (std::size_t i = 0; i < names.size(); ++i) {
                expect_same_bytes(bench.output(names[i]), files[i], names[i]);
            }
            expect_same_bytes(read_file(bench.firmware()), firmware.build(), "firmware");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Types, Repetition, testing::Values("emmc", "spinor", "spinand", "slc"),
                         [](const testing::TestParamInfo<std::string>& tested) { return tested.param; });

}  // namespace
