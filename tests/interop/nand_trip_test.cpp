// The files of the NAND types, read back as a flash controller does: the pages are clean, and every partition
// is what the firmware holds.

#include "interop/sample.h"
#include "support/slc_reader.h"

#include <array>
#include <functional>

namespace {

using namespace interop_test;

// Turns a file of pages into the data that they carry.
using PageReader = std::function<Bytes(const Bytes& file)>;

std::string table_name(const Sample& firmware) {
    return firmware.gpt() ? "gpt.img" : "parameter.img";
}

void expect_files(const Sample& firmware, const fs::path& out, std::size_t page_size,
                  const PageReader& read) {
    expect_boot_block(read(read_file(out / "idblock.img")), 0, firmware);
    std::size_t files = 1;
    for (const PackedItem& item : firmware.items()) {
        ++files;
        if (item.name == "parameter") {
            const Bytes table = read(read_file(out / table_name(firmware)));
            const Bytes start = firmware.gpt() ? to_bytes("EFI PART") : item.data;
            EXPECT_TRUE(slice(table, firmware.gpt() ? kSectorSize : 0, start.size()) == start);
            continue;
        }
        SCOPED_TRACE(item.name);
        const Bytes& contents = firmware.contents(item);
        const Bytes data = read(read_file(out / (item.name + ".img")));
        EXPECT_TRUE(same_bytes(slice(data, 0, contents.size()), contents)) << item.name;
        EXPECT_TRUE(all_bytes_are(data, 0, contents.size(), data.size() - contents.size()));
        EXPECT_EQ(data.size() % page_size, 0U);
        if (item.name == "rootfs")
            expect_clean_ext4(slice(data, 0, contents.size()));
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()),
              static_cast<std::ptrdiff_t>(files));
}

void expect_same_directories(const fs::path& one, const fs::path& other) {
    for (const auto& entry : fs::directory_iterator(one)) {
        const fs::path name = entry.path().filename();
        EXPECT_TRUE(same_bytes(read_file(other / name), read_file(one / name))) << name;
    }
}

void expect_trip(const Conversion& conversion, std::size_t page_size, const PageReader& read) {
    // Both kinds of table get their turn.
    const Sample& firmware = sample(conversion.page_list, true);
    const TemporaryDirectory directory;
    convert(firmware, conversion, directory / "out");
    expect_files(firmware, directory / "out", page_size, read);
    convert(firmware, conversion, directory / "again");
    expect_same_directories(directory / "out", directory / "again");
}

struct NandGeometry {
    uint32_t page_kb = 0;
    bool two_kilobytes_data = false;
    bool page_list = false;

    uint32_t page_size() const { return page_kb * 1024; }
    uint32_t spare_size() const { return 32 * page_kb + 10; }  // 10 bytes are left over

    // 96 pages of any size are whole blocks.
    Conversion conversion(const std::string& type) const {
        return {type,
                std::to_string(96 * page_kb),
                std::to_string(page_kb),
                std::to_string(spare_size()),
                two_kilobytes_data,
                page_list};
    }
};

void PrintTo(const NandGeometry& geometry, std::ostream* out) {
    *out << geometry.page_kb << " KB";
}

std::string name_of(const testing::TestParamInfo<NandGeometry>& tested) {
    return "Pages" + std::to_string(tested.param.page_kb) +
           (tested.param.two_kilobytes_data ? "With2K" : "") + (tested.param.page_list ? "List" : "");
}

constexpr std::array<uint32_t, 5> kPageSizesKb{1, 2, 3, 4, 8};

std::vector<NandGeometry> all_geometries() {
    std::vector<NandGeometry> geometries;
    for (const uint32_t page_kb : kPageSizesKb) {
        for (const bool two_kilobytes_data : {false, true})
            for (const bool page_list : {false, true})
                geometries.push_back({page_kb, two_kilobytes_data, page_list});
    }
    return geometries;
}

class SlcNandTrip : public testing::TestWithParam<NandGeometry> {};

TEST_P(SlcNandTrip, GivesThePartitionsBack) {
    REQUIRE_SAMPLE_TOOLS();
    const NandGeometry& tested = GetParam();
    const SlcGeometry geometry{.page_size = tested.page_size(),
                               .spare_size = tested.spare_size(),
                               .two_kilobytes_data = tested.two_kilobytes_data,
                               .list_step = tested.page_list ? 1U : 4U};
    expect_trip(tested.conversion("slc"), tested.page_size(), [&geometry](const Bytes& file) {
        const SlcContents contents = read_slc_file(file, geometry);
        EXPECT_TRUE(contents.ok()) << contents.error_text();
        return contents.data;
    });
}

INSTANTIATE_TEST_SUITE_P(Sample, SlcNandTrip, testing::ValuesIn(all_geometries()), name_of);

// Takes the data out of flash pages: all of a page or, when it holds 2 KB only, its start.
Bytes spi_nand_data(const Bytes& file, std::size_t page_size, bool two_kilobytes_data) {
    const std::size_t most = two_kilobytes_data ? 2048 : page_size;
    Bytes data;
    for (std::size_t offset = 0; offset < file.size(); offset += page_size) {
        const std::size_t size = std::min(most, page_size - data.size() % page_size);
        put_bytes(data, slice(file, offset, size));
        EXPECT_TRUE(all_bytes_are(file, 0, offset + size, page_size - size)) << "page at " << offset;
    }
    return data;
}

class SpiNandTrip : public testing::TestWithParam<uint32_t> {};

TEST_P(SpiNandTrip, GivesThePartitionsBack) {
    REQUIRE_SAMPLE_TOOLS();
    for (const NandGeometry& geometry : all_geometries()) {
        if (geometry.page_kb == GetParam()) {
            SCOPED_TRACE(geometry.two_kilobytes_data);
            expect_trip(geometry.conversion("spinand"), geometry.page_size(), [&geometry](const Bytes& file) {
                return spi_nand_data(file, geometry.page_size(), geometry.two_kilobytes_data);
            });
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sample, SpiNandTrip, testing::ValuesIn(kPageSizesKb),
                         [](const testing::TestParamInfo<uint32_t>& tested) {
                             return "Pages" + std::to_string(tested.param);
                         });

}  // namespace
