// The files of SLC NAND, to the byte: interleaved data and parity, list indexes, fill pages.

#include "cli/sample_runs.h"
#include "cli/workbench.h"
#include "support/bch_judge.h"

namespace {

using namespace cli_test;
using namespace test_support;

constexpr std::size_t unit_bytes = 1024;
constexpr std::size_t unit_stride = 1056;

struct SlcCase {
    std::string situation;
    Conversion conversion;
    // Logical fill pages behind boot block, parameter, boot, misc and rootfs.
    std::array<std::size_t, 5> fill_pages;
    bool gpt = false;
    // Sectors of the parameter partition, few of them because the slow encoder makes every page.
    static constexpr uint32_t table_sectors = 40;
};

void PrintTo(const SlcCase& tested, std::ostream* out) {
    *out << tested.situation;
}

// A file as the chip will hold it, page after page.
class ExpectedSlcFile {
public:
    explicit ExpectedSlcFile(const Conversion& conversion)
        : page_size_(std::stoul(conversion.page_kb) * kib), spare_(std::stoul(conversion.spare_bytes)),
          two_kilobytes_data_(conversion.two_kilobytes_data), list_step_(conversion.page_list ? 1 : 4) {}

    const Bytes& bytes() const { return bytes_; }

    // The data in whole logical pages, and so many of them behind it that hold nothing.
    ExpectedSlcFile& write(Bytes data, std::size_t fill_pages) {
        data.resize(round_up(data.size(), page_size_) + fill_pages * page_size_, 0);
        const std::size_t piece = two_kilobytes_data_ ? 2 * kib : page_size_;
        for (std::size_t offset = 0; offset < data.size(); offset += page_size_) {
            for (std::size_t at = 0; at < page_size_; at += piece) {
                add_page(slice(data, offset + at, std::min(piece, page_size_ - at)));
            }
        }
        return *this;
    }

private:
    void add_page(Bytes data) {
        data.resize(page_size_, 0);
        Bytes page(page_size_ + spare_, 0xFF);
        for (std::size_t unit = 0; unit < page_size_ / unit_bytes; ++unit) {
            const std::size_t start = unit * unit_stride;
            put_bytes_at(page, start, slice(data, unit * unit_bytes, unit_bytes));
            if (unit == 0) {
                put32_at(page, unit_bytes, list_index_);
            }
            put_bytes_at(page, start + bch_message_bytes, parity_of(slice(page, start, bch_message_bytes)));
        }
        list_index_ += list_step_;
        put_bytes(bytes_, page);
    }

    // Many units are the same; each is encoded once.
    static Bytes parity_of(const Bytes& message) {
        static std::map<Bytes, Bytes> known;
        const auto found = known.find(message);
        return found != known.end()
                   ? found->second
                   : known.emplace(message, bch_slow_parity(message.data(), 16)).first->second;
    }

    std::size_t page_size_;
    std::size_t spare_;
    bool two_kilobytes_data_;
    uint32_t list_step_;
    uint32_t list_index_ = 0;
    Bytes bytes_{};
};

class SlcNand : public testing::TestWithParam<SlcCase> {};

TEST_P(SlcNand, FilesAreRightToTheByte) {
    const SlcCase& tested = GetParam();
    Firmware firmware = sample_firmware({.gpt = tested.gpt});
    firmware.items[0].part_size = SlcCase::table_sectors;
    const Workbench bench(firmware);
    const std::size_t page_size = std::stoul(tested.conversion.page_kb) * kib;

    expect_run(bench.convert(tested.conversion), 0,
               bench.echo(tested.conversion).then(sample_nand_run(tested.gpt, page_size, bench.out_dir())));

    const auto expect_file = [&](const std::string& name, const Bytes& data, std::size_t fill_pages) {
        expect_same_bytes(bench.output(name),
                          ExpectedSlcFile(tested.conversion).write(data, fill_pages).bytes(), name);
    };
    expect_file("idblock.img", boot_block(firmware.boot, 16), tested.fill_pages[0]);
    if (tested.gpt) {
        expect_file("gpt.img", gpt_table(sample_gpt_entries()), tested.fill_pages[1]);
    } else {
        const std::size_t pages = pages_of(SlcCase::table_sectors * sector_size, page_size);
        const std::size_t copies = pages >= 8 ? 8 : 4;
        Bytes partition = parameter_copies(firmware.items[0].data, copies, pages / copies * page_size);
        partition.resize(pages * page_size, 0);
        expect_file("parameter.img", partition, tested.fill_pages[1]);
    }
    for (const std::size_t i : {1U, 2U, 3U}) {
        expect_file(firmware.items[i].name + ".img", firmware.items[i].data, tested.fill_pages[i + 1]);
    }
    EXPECT_EQ(bench.output_names().size(), 5U);
}

// The boot block has 16 sectors, boot 5000 bytes, misc 1024, rootfs 20001; the GPT has 34 sectors.
const std::vector<SlcCase> slc_cases{
    {"Pages1", {"slc", "16", "1", "32"}, {8, 12, 11, 15, 12}},
    {"Pages2", {"slc", "16", "2", "64"}, {4, 6, 5, 7, 6}},
    {"Pages2Gpt", {"SLC", "16", "2", "64"}, {4, 7, 5, 7, 6}, true},
    {"Pages2PageList", {"slc", "16", "2", "64", false, true}, {4, 6, 5, 7, 6}},
    {"Pages2WithSpareLeft", {"slc", "16", "2", "128"}, {4, 6, 5, 7, 6}},
    {"Pages2WithAByteOfSpareLeft", {"slc", "16", "2", "65"}, {4, 6, 5, 7, 6}},
    {"Pages2With2K", {"slc", "16", "2", "64", true}, {4, 6, 5, 7, 6}},
    {"Pages1With2K", {"slc", "16", "1", "32", true}, {8, 12, 11, 15, 12}},
    {"Pages3OddBlocks", {"slc", "5", "3", "128"}, {1, 2, 2, 1, 2}},
    {"Pages3OddBlocksWith2K", {"slc", "5", "3", "128", true}, {1, 1, 1, 1, 1}},
    {"Pages4", {"slc", "32", "4", "128"}, {6, 3, 6, 7, 3}},
    {"Pages4With2K", {"slc", "32", "4", "128", true}, {2, 2, 3, 4, 2}},
    {"Pages4With2KGpt", {"slc", "32", "4", "128", true}, {2, 2, 3, 4, 2}, true},
    {"Pages4With2KPageList", {"slc", "32", "4", "128", true, true}, {2, 2, 3, 4, 2}},
    {"Pages4With2KAndBlocksThatTheBootBlockFills", {"slc", "16", "4", "128", true}, {0, 2, 1, 2, 2}},
    {"BlocksSmallerThanAPage", {"slc", "1", "4", "128"}, {0, 0, 0, 0, 0}},
};

std::string situation_of(const testing::TestParamInfo<SlcCase>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Conversion, SlcNand, testing::ValuesIn(slc_cases), situation_of);

// ---- what stands where in a page ----

Firmware with_boot_image(Bytes image) {
    Firmware firmware = sample_firmware();
    firmware.item("boot").data = std::move(image);
    return firmware;
}

TEST(SlcNandPage, Of2KilobytesAnd64OfSpareHasNothingLeft) {
    const Bytes image = patterned(2 * 2048, 9);
    const Workbench bench(with_boot_image(image));
    ASSERT_EQ(bench.convert({"slc", "4", "2", "64"}).exit_status, 0);
    const Bytes file = bench.output("boot.img");
    ASSERT_EQ(file.size(), 2 * 2112U);
    const Bytes page = slice(file, 2112, 2112);
    EXPECT_EQ(slice(page, 0, 1024), slice(image, 2048, 1024));
    EXPECT_EQ(get32(page, 1024), 4U);
    EXPECT_EQ(slice(page, 1028, 28), bch_slow_parity(page.data(), 16));
    EXPECT_EQ(slice(page, 1056, 1024), slice(image, 3072, 1024));
    EXPECT_EQ(get32(page, 2080), 0xFFFFFFFF);
    EXPECT_EQ(slice(page, 2084, 28), bch_slow_parity(page.data() + 1056, 16));
}

TEST(SlcNandPage, OfErasedBytesDiffersFromAnErasedPageInItsFirstUnitAlone) {
    const Workbench bench(with_boot_image(Bytes(4096, 0xFF)));
    ASSERT_EQ(bench.convert({"slc", "4", "4", "200"}).exit_status, 0);
    const Bytes page = bench.output("boot.img");
    ASSERT_EQ(page.size(), 4096U + 200U);
    EXPECT_TRUE(all_bytes_are(page, 0xFF, 0, 1024));
    EXPECT_EQ(get32(page, 1024), 0U);
    EXPECT_FALSE(all_bytes_are(page, 0xFF, 1028, 28));
    EXPECT_TRUE(all_bytes_are(page, 0xFF, 1056, page.size() - 1056));
}

// The first three list indexes of every file.
std::vector<uint32_t> list_indexes(const Bytes& file, std::size_t flash_page) {
    return {get32(file, 1024), get32(file, flash_page + 1024), get32(file, 2 * flash_page + 1024)};
}

TEST(SlcNandPage, CarriesTheListIndexFromTheStartOfEachFile) {
    const Workbench bench(sample_firmware());
    const std::vector<uint32_t> by_four{0, 4, 8};
    const std::vector<uint32_t> by_one{0, 1, 2};
    struct {
        std::string option;
        std::vector<uint32_t> indexes;
    } const cases[] = {{"-2", by_four}, {"-l", by_four}, {"--page_list", by_one}};  // -l is no option
    for (const auto& [option, indexes] : cases) {
        SCOPED_TRACE(option);
        Arguments arguments = Conversion{"slc", "16", "2", "64"}.arguments(bench.firmware(), bench.out_dir());
        arguments.push_back(option);
        ASSERT_EQ(run(arguments).exit_status, 0);
        for (const std::string& name : bench.output_names()) {
            EXPECT_EQ(list_indexes(bench.output(name), 2112), indexes) << name;
        }
    }
}

TEST(SlcNandFiles, OfABareContainerAreTheBootBlockAlone) {
    Workbench bench;
    bench.name_firmware("loader.bin");
    const BootContainer boot = sample_firmware().boot;
    write_file(bench.firmware(), boot.build());
    const Conversion slc{"slc", "16", "2", "64"};
    expect_run(bench.convert(slc), 0, bench.echo(slc).line("writing idblock...").success());
    EXPECT_EQ(bench.output_names(), Names{"idblock.img"});
    expect_same_bytes(bench.output("idblock.img"),
                      ExpectedSlcFile(slc).write(boot_block(boot, 16), 4).bytes(), "idblock.img");
}

}  // namespace
