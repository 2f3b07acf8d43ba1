// Whole runs for SLC NAND: every file read back as a flash controller reads it.

#include "common/bch.h"
#include "nand_fixture.h"
#include "slc_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

using test_support::get32;
using test_support::patterned;
using test_support::read_slc_file;
using test_support::round_up;

class SlcNandRun : public NandTest {
protected:
    std::unique_ptr<SlcStorage> make_slc(const SlcCase& chip) const {
        return make<SlcStorage>(chip.geometry(), chip.page_list);
    }

    // The data of a file whose every byte is in order.
    Bytes contents_of(const std::string& name, const SlcCase& chip) const {
        auto contents = read_slc_file(out_file(name), chip.reader());
        EXPECT_EQ(contents.error_text(), "") << name;
        return std::move(contents.data);
    }
};

// Data pages that fill a partition of so many up to whole blocks.
std::size_t partition_fill(const SlcCase& chip, std::size_t pages) {
    const std::size_t sectors = pages * 2 * chip.page_kb;
    const std::size_t rest = round_up(sectors, 2 * chip.block_kb) - sectors;
    if (rest == 0)
        return 0;
    return (rest - 1) / (2 * chip.page_kb) / chip.factor() + 1;
}

TEST_F(SlcNandRun, FilesAreReadBackForEveryGeometry) {
    const auto firmware = nand_firmware();
    write_firmware(firmware);
    for (SlcCase chip : all_slc_cases()) {
        chip.block_kb = 24;
        SCOPED_TRACE(chip.name());
        const auto storage = make_slc(chip);
        EXPECT_TRUE(create(*storage));
        EXPECT_EQ(m_output, nand_lines(firmware, out_dir().string(), chip.page_size()));
        EXPECT_EQ(names_in(out_dir()), nand_files);
        for (const auto& [name, data] : nand_partitions(firmware, chip.page_size())) {
            const std::size_t fill = partition_fill(chip, data.size() / chip.page_size());
            EXPECT_TRUE(same_bytes(contents_of(name, chip), data + Bytes(fill * chip.page_size(), 0)))
                << name;
        }
    }
}

TEST_F(SlcNandRun, BootBlockIsReadBackFromWholeBlocks) {
    struct Case {
        SlcCase chip;
        std::size_t data_pages;  // of the whole file: the boot block's 16 sectors and the fill pages
    };
    const auto firmware = nand_firmware();
    write_firmware(firmware);
    const std::vector<Case> cases{
        {{.page_kb = 2, .spare = 64}, 64},
        {{.page_kb = 1, .spare = 100, .page_list = true}, 128},
        {{.page_kb = 3, .spare = 96}, 3 + 40},
        {{.page_kb = 4, .spare = 128}, 32},
        {{.page_kb = 4, .spare = 128, .page_2k = true}, 2 + 14},
        {{.page_kb = 3, .spare = 128, .page_2k = true, .page_list = true}, 3 + 19},
        {{.page_kb = 8, .spare = 256, .page_2k = true}, 1 + 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.chip.name());
        EXPECT_TRUE(create(*make_slc(c.chip)));
        EXPECT_TRUE(same_bytes(contents_of("idblock.img", c.chip),
                               zero_padded(boot_block(firmware), c.data_pages * c.chip.page_size())));
        EXPECT_EQ(out_file("idblock.img").size(), c.data_pages * c.chip.factor() * c.chip.flash_page_size());
    }
}

TEST_F(SlcNandRun, EveryFileStartsWithListIndexZero) {
    write_firmware(nand_firmware());
    for (const bool page_list : {false, true}) {
        const SlcCase chip{.page_list = page_list};
        EXPECT_TRUE(create(*make_slc(chip)));
        for (const std::string& name : nand_files) {
            const Bytes file = out_file(name);
            for (std::size_t page = 0; page < 3; ++page)
                EXPECT_EQ(get32(file, page * 2112 + 1024), page * (page_list ? 1 : 4)) << name;
        }
    }
}

TEST_F(SlcNandRun, BytesEqualTheSlowEncoders) {
    const auto firmware = nand_firmware();
    write_firmware(firmware);
    const SlcCase chip{.page_kb = 4, .spare = 224, .page_2k = true, .block_kb = 16};
    EXPECT_TRUE(create(*make_slc(chip)));
    for (const std::string& name : nand_files)
        EXPECT_TRUE(same_bytes(out_file(name), slow_flash_pages(contents_of(name, chip), chip))) << name;
}

TEST_F(SlcNandRun, RunTwiceGivesTheSameFiles) {
    write_firmware(nand_firmware());
    EXPECT_TRUE(create(*make_slc({})));
    std::map<std::string, Bytes> first;
    for (const std::string& name : nand_files) {
        first[name] = out_file(name);
        test_support::write_file(out_path(name), Bytes(300000, 0xEE));
    }
    EXPECT_TRUE(create(*make_slc({})));
    for (const std::string& name : nand_files)
        EXPECT_TRUE(same_bytes(out_file(name), first[name])) << name;
}

TEST_F(SlcNandRun, SpareAreaThatIsTooSmallIsReportedForEveryPage) {
    const auto firmware = nand_firmware();
    write_firmware(firmware);
    const SlcCase chip{.page_kb = 2, .spare = 32, .block_kb = 16};
    EXPECT_TRUE(create(*make_slc(chip)));

    const auto dropped = [](std::size_t pages) {
        std::string lines;
        for (std::size_t i = 0; i < pages; ++i)
            lines += error_line("size of oob is not enough");
        return lines;
    };
    const auto preparing = [&](const std::string& name) {
        return line("preparing " + name + " saving at " + out_path(name + ".img").string());
    };
    const auto percent = [](const std::string& prefix, int value) {
        return redrawn(prefix + "..." + std::to_string(value) + "%");
    };
    // A block has eight pages. The boot block has four, the parameter partition 64, boot three, misc one and
    // rootfs nine; the lines of the fill pages follow at each end.
    std::string expected = line("writing idblock...") + dropped(4 + 4) +
                           line("start to write partitions...gpt=0") + preparing("parameter") +
                           line("writing parameter...") + dropped(64) + redrawn("writing parameter...OK") +
                           preparing("boot") + line("writing boot...");
    for (const int value : {33, 66, 100})
        expected += dropped(1) + percent("writing boot", value);
    expected += redrawn("writing boot...OK") + dropped(5) + preparing("misc") + line("writing misc...") +
                dropped(1) + percent("writing misc", 100) + redrawn("writing misc...OK") + dropped(7) +
                preparing("rootfs") + line("writing rootfs...") + line("extracting rootfs...");
    // Pieces of 2,048, 2,048, 2,048 and 856 raw bytes, and so on, of 18,000.
    for (const int value : {11, 22, 34, 38, 50, 61, 66, 78, 83, 94, 97})
        expected += percent("extracting... rootfs", value);
    expected += line("");
    for (const int value : {11, 22, 33, 44, 55, 66, 77, 88, 100})
        expected += dropped(1) + percent("writing rootfs", value);
    expected += redrawn("writing rootfs...OK") + dropped(7) + line("creating programming image ok.");
    EXPECT_EQ(m_output, expected);
    for (const std::string& name : nand_files)
        EXPECT_EQ(out_file(name), Bytes{}) << name;
}

// ---- a file that cannot be written ----

TEST_F(SlcNandRun, NothingMoreIsEncodedForAFileThatFailed) {
    auto firmware = nand_firmware();
    firmware.item("boot").data = patterned(16 * 1024 * 1024, 1);
    write_firmware(firmware);
    std::filesystem::create_symlink("/dev/full", out_path("boot.img"));
    const uint64_t before = bch_encoded_codewords();
    EXPECT_FALSE(create(*make_slc({})));
    // Of 16,384 codewords only those are made that are gathered before the first write shows the failure.
    EXPECT_LT(bch_encoded_codewords() - before, 4096U);

    std::filesystem::remove(out_path("boot.img"));
    EXPECT_TRUE(create(*make_slc({}))) << "the next run is whole again";
    EXPECT_TRUE(same_bytes(contents_of("boot.img", {}), firmware.item("boot").data));
}

TEST_F(SlcNandRun, FillPagesOfAFileThatFailedAreNotMade) {
    const SlcCase chip{.block_kb = 1024 * 1024};
    write_firmware(nand_firmware());
    auto storage = make_slc(chip);
    std::filesystem::create_symlink("/dev/full", out_path("idblock.img"));
    storage->m_idb_total_sector = 4;
    ASSERT_TRUE(storage->prepare_write_idblock());
    EXPECT_EQ(storage->m_idb_fill_page_num, 524287U);
    EXPECT_TRUE(storage->post_write_idblock());
    EXPECT_EQ(storage->m_write_failure.path, out_path("idblock.img").string());
    EXPECT_EQ(storage->m_write_failure.error, ENOSPC);
    EXPECT_FALSE(storage->m_fout.is_open());
}

}  // namespace
}  // namespace storage_test
