// Files of the NAND types that cannot be created or written; both types share what is tested here.

#include "nand_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace storage_test {
namespace {

using test_support::patterned;

class NandFailure : public NandTest {
protected:
    std::unique_ptr<Exposed<CSpiStorage>> make_spi() const {
        return make<Exposed<CSpiStorage>>({.block_kb = 128});
    }
    std::unique_ptr<Exposed<CSlcStorage>> make_slc() const {
        return make<Exposed<CSlcStorage>>({.block_kb = 128, .oob_bytes = 64}, false);
    }

    std::string not_created(const std::string& name, int error) const {
        return line("failed to create " + out_dir().string() + "/" + name + ",err=" + std::to_string(error));
    }

    // Preparing this partition fails with exactly that line, on both types.
    void expect_refused(const std::string& name, int error) const {
        const auto refuse = [&](auto& storage) {
            STRUCT_QZIMAGE_ITEM item = named(name);
            EXPECT_EQ(output_of([&] { EXPECT_FALSE(storage.prepare_write_partition(item)); }),
                      not_created(name + ".img", error));
            EXPECT_FALSE(storage.m_fout.is_open());
        };
        refuse(*make_spi());
        refuse(*make_slc());
    }
};

TEST_F(NandFailure, BootBlockFileThatCannotBeCreatedEndsTheRun) {
    write_firmware(nand_firmware());
    std::filesystem::create_directory(out_path("idblock.img"));
    const auto expect_end = [&](auto& storage) {
        EXPECT_FALSE(create(storage));
        EXPECT_EQ(m_output, line("writing idblock...") + not_created("idblock.img", EISDIR) +
                                error_line("failed to write idblock,ret=-3"));
    };
    expect_end(*make_spi());
    expect_end(*make_slc());
    EXPECT_EQ(names_in(out_dir()), std::set<std::string>{"idblock.img"});
}

TEST_F(NandFailure, PartitionFileThatCannotBeCreatedEndsTheRun) {
    write_firmware(nand_firmware());
    std::filesystem::create_directory(out_path("boot.img"));
    const auto expect_end = [&](auto& storage) {
        EXPECT_FALSE(create(storage));
        EXPECT_EQ(m_output, line("writing idblock...") + line("start to write partitions...gpt=0") +
                                line("preparing parameter saving at " + out_path("parameter.img").string()) +
                                line("writing parameter...") + redrawn("writing parameter...OK") +
                                not_created("boot.img", EISDIR) + error_line("failed to prepare boot"));
    };
    expect_end(*make_spi());
    expect_end(*make_slc());
    EXPECT_EQ(names_in(out_dir()), (std::set<std::string>{"idblock.img", "parameter.img", "boot.img"}));
}

TEST_F(NandFailure, MissingDirectoryIsReported) {
    std::filesystem::remove(out_dir());
    expect_refused("boot", ENOENT);
}

TEST_F(NandFailure, NameWithASlashDoesNotLeaveTheDirectory) {
    std::filesystem::create_directory(out_path("sub"));
    for (const std::string name : {"../escaped", "sub/escaped", "/escaped", "sub/", "./x", "a/../b"})
        expect_refused(name, EINVAL);
    EXPECT_EQ(names_in(out_dir()), std::set<std::string>{"sub"});
    EXPECT_TRUE(std::filesystem::is_empty(out_path("sub")));
    EXPECT_EQ(names_in(m_directory.path()), std::set<std::string>{"out"});
}

TEST_F(NandFailure, NameWithASlashEndsTheRun) {
    auto firmware = nand_firmware();
    firmware.item("boot").name = "../boot";
    write_firmware(firmware);
    EXPECT_FALSE(create(*make_spi()));
    const std::string ending = not_created("../boot.img", EINVAL) + error_line("failed to prepare ../boot");
    EXPECT_EQ(m_output.substr(m_output.size() - ending.size()), ending);
    EXPECT_EQ(names_in(m_directory.path()), (std::set<std::string>{"out", "firmware.img"}));
}

TEST_F(NandFailure, FirmwareIsNeverOverwritten) {
    const auto firmware = nand_firmware();
    for (const std::string name : {"idblock.img", "boot.img"}) {
        for (const bool symbolic : {false, true}) {
            write_firmware(firmware);
            std::filesystem::remove(out_path(name));
            if (symbolic)
                std::filesystem::create_symlink(firmware_path(), out_path(name));
            else
                std::filesystem::create_hard_link(firmware_path(), out_path(name));
            const auto expect_end = [&](auto& storage) {
                EXPECT_FALSE(create(storage));
                const std::string ending = not_created(name, EBUSY) +
                                           error_line(name == "boot.img" ? "failed to prepare boot"
                                                                         : "failed to write idblock,ret=-3");
                EXPECT_EQ(m_output.substr(m_output.size() - ending.size()), ending);
                EXPECT_TRUE(same_bytes(test_support::read_file(firmware_path()), firmware.build()));
            };
            expect_end(*make_spi());
            expect_end(*make_slc());
            std::filesystem::remove(out_path(name));
        }
    }
}

TEST_F(NandFailure, FileThatCannotBeWrittenIsNamedAtTheEnd) {
    auto firmware = nand_firmware();
    firmware.item("boot").data = patterned(3 * 1024 * 1024, 1);  // far more than is gathered before a write
    write_firmware(firmware);
    std::filesystem::create_symlink("/dev/full", out_path("boot.img"));
    const std::string success = line("creating programming image ok.");
    std::string expected = nand_lines(firmware, out_dir().string(), 2048);
    expected.resize(expected.size() - success.size());
    expected +=
        error_line("failed to write " + out_path("boot.img").string() + ",err=" + std::to_string(ENOSPC));
    const auto expect_end = [&](auto& storage) {
        EXPECT_FALSE(create(storage));
        EXPECT_EQ(m_output, expected) << "the steps are those of any other run";
    };
    expect_end(*make_spi());
    EXPECT_TRUE(same_bytes(out_file("misc.img"), padded(patterned(1024, 4), 131072)))
        << "later files are whole";
    expect_end(*make_slc());
    EXPECT_EQ(out_file("misc.img").size(), 64U * 2112U);
}

TEST_F(NandFailure, FirstFileThatFailedIsTheOneNamed) {
    write_firmware(nand_firmware());
    for (const std::string name : {"idblock.img", "misc.img"})
        std::filesystem::create_symlink("/dev/full", out_path(name));
    const std::string ending =
        redrawn("writing rootfs...OK") +
        error_line("failed to write " + out_path("idblock.img").string() + ",err=" + std::to_string(ENOSPC));
    EXPECT_FALSE(create(*make_spi()));
    EXPECT_EQ(m_output.substr(m_output.size() - ending.size()), ending);
    EXPECT_FALSE(create(*make_slc()));
    EXPECT_EQ(m_output.substr(m_output.size() - ending.size()), ending);
}

}  // namespace
}  // namespace storage_test
