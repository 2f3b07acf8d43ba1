// The files of SLC NAND, read back as a flash controller does: the pages are clean, and every partition is
// what the firmware holds.

#include "interop/sample.h"
#include "support/slc_reader.h"

namespace {

using namespace interop_test;

struct NandGeometry {
    uint32_t page_kb = 0;
    bool two_kilobytes_data = false;
    bool page_list = false;

    SlcGeometry of_reader() const {
        return {.page_size = page_kb * 1024,
                .spare_size = 32 * page_kb + 10,  // 10 bytes are left over
                .two_kilobytes_data = two_kilobytes_data,
                .list_step = page_list ? 1U : 4U};
    }

    // 96 pages of any size are whole blocks.
    Conversion conversion() const {
        return {"slc",
                std::to_string(96 * page_kb),
                std::to_string(page_kb),
                std::to_string(of_reader().spare_size),
                two_kilobytes_data,
                page_list};
    }
};

std::string name_of(const testing::TestParamInfo<NandGeometry>& tested) {
    return "Pages" + std::to_string(tested.param.page_kb) +
           (tested.param.two_kilobytes_data ? "With2K" : "") + (tested.param.page_list ? "List" : "");
}

std::vector<NandGeometry> all_geometries() {
    std::vector<NandGeometry> geometries;
    for (const uint32_t page_kb : {1U, 2U, 3U, 4U, 8U})
        for (const bool two_kilobytes_data : {false, true})
            for (const bool page_list : {false, true})
                geometries.push_back({page_kb, two_kilobytes_data, page_list});
    return geometries;
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

INSTANTIATE_TEST_SUITE_P(Sample, SlcNandTrip, testing::ValuesIn(all_geometries()), name_of);

}  // namespace
