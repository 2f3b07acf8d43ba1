// The files of SLC NAND, read back as a flash controller does: the pages are clean, and every partition is
// what the firmware holds.

#include "interop/sample.h"
#include "support/nand_geometries.h"

namespace {

using namespace interop_test;

std::string name_of(const testing::TestParamInfo<NandGeometry>& tested) {
    return tested.param.name();
}

class SlcNandTrip : public testing::TestWithParam<NandGeometry> {
protected:
    // The data that the pages of a file carry.
    Bytes read(const fs::path& file) const {
        const SlcContents contents = read_slc_file(read_file(file), GetParam().of_reader());
        EXPECT_EQ(contents.error_text(), "");
        return contents.data;
    }
};

TEST_P(SlcNandTrip, GivesThePartitionsBack) {
    REQUIRE_SAMPLE_TOOLS();
    const Sample& firmware = sample(GetParam().page_list, true);  // both kinds of table get their turn
    const TemporaryDirectory directory;
    const fs::path out = directory / "out";
    convert(firmware, GetParam().conversion(), out);
    Names names{"idblock.img"};
    expect_boot_block(read(out / "idblock.img"), 0, firmware);
    for (const PackedItem& item : firmware.items()) {
        SCOPED_TRACE(item.name);
        const bool is_gpt = item.name == "parameter" && firmware.gpt();
        const std::string name = (is_gpt ? "gpt" : item.name) + ".img";
        names.insert(name);
        const Bytes data = read(out / name);
        const Bytes& contents = firmware.contents(item);
        if (item.name == "parameter") {
            const Bytes start = is_gpt ? to_bytes("EFI PART") : contents;
            EXPECT_EQ(slice(data, is_gpt ? kSectorSize : 0, start.size()), start);
            continue;
        }
        ASSERT_GE(data.size(), contents.size());
        EXPECT_TRUE(same_bytes(data, zero_padded(contents, data.size())));
        EXPECT_EQ(data.size() % GetParam().of_reader().page_size, 0U);
        if (item.name == "rootfs")
            expect_clean_ext4(slice(data, 0, contents.size()));
    }
    EXPECT_EQ(names_in(out), names);
    convert(firmware, GetParam().conversion(), directory / "again");
    EXPECT_TRUE(files_in(out) == files_in(directory / "again"));
}

INSTANTIATE_TEST_SUITE_P(Sample, SlcNandTrip, testing::ValuesIn(all_nand_geometries()), name_of);

}  // namespace
