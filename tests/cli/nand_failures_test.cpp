// NAND files that cannot be created, and a spare area that is too small.

#include "cli/sample_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

// Both NAND types create their files in the same way.
class NandFile : public testing::TestWithParam<std::string> {
protected:
    Conversion nand() const { return {GetParam(), "128", "2", "64"}; }

    // Up to the end of the parameter partition.
    Transcript start(const Workbench& bench) const {
        return bench.echo(nand()).start_of_nand_run(bench.out_dir());
    }
};

INSTANTIATE_TEST_SUITE_P(Types, NandFile, testing::Values("spinand", "slc"),
                         [](const testing::TestParamInfo<std::string>& tested) { return tested.param; });

TEST_P(NandFile, OfTheBootBlockMustBeCreated) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("idblock.img"));
    Transcript expected = bench.echo(nand());
    expected.line("writing idblock...")
        .line("failed to create " + bench.out("idblock.img").string() + ",err=21")
        .error("failed to write idblock,ret=-3");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
    EXPECT_EQ(bench.output_names(), Names{"idblock.img"});
}

TEST_P(NandFile, OfAPartitionMustBeCreated) {
    const Workbench bench(sample_firmware());
    fs::create_symlink("missing/boot", bench.out("boot.img"));
    Transcript expected = start(bench);
    expected.line("failed to create " + bench.out("boot.img").string() + ",err=2")
        .error("failed to prepare boot");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
    EXPECT_EQ(bench.output_names(), (Names{"boot.img", "idblock.img", "parameter.img"}));
}

TEST_P(NandFile, OfTheParameterPartitionMustBeCreated) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("parameter.img"));
    Transcript expected = bench.echo(nand());
    expected.line("writing idblock...")
        .line("start to write partitions...gpt=0")
        .line("failed to create " + bench.out("parameter.img").string() + ",err=21")
        .error("failed to prepare parameter");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
}

TEST_P(NandFile, OfTheGptMustBeCreated) {
    const Workbench bench(sample_firmware({.gpt = true}));
    fs::create_directory(bench.out("gpt.img"));
    Transcript expected = bench.echo(nand());
    expected.line("writing idblock...")
        .line("start to write partitions...gpt=1")
        .line("failed to create " + bench.out("gpt.img").string() + ",err=21")
        .error("failed to prepare gpt");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
}

TEST_P(NandFile, DoesNotLeaveTheOutputDirectory) {
    const std::string outside = "../escaped";
    for (const std::string& name : {outside, std::string("/escaped"), std::string("sub/boot"),
                                    std::string("boot/"), std::string("./boot")}) {
        SCOPED_TRACE(name);
        Firmware firmware = sample_firmware();
        firmware.item("boot").name = name;
        const Workbench bench(firmware);
        fs::create_directory(bench.out("sub"));
        Transcript expected = start(bench);
        expected.line("failed to create " + bench.out_dir().string() + "/" + name + ".img,err=22")
            .error("failed to prepare " + name);
        expect_run(bench.convert(nand()), creation_failed, expected.failure());
        EXPECT_EQ(bench.output_names(), (Names{"idblock.img", "parameter.img", "sub"}));
        EXPECT_FALSE(fs::exists(bench.directory() / "escaped.img"));
        EXPECT_TRUE(fs::is_empty(bench.out("sub")));
    }
}

TEST_P(NandFile, OfAPartitionThatCannotBeReadKeepsThePagesBefore) {
    const Firmware firmware = sample_firmware();
    const Workbench bench;
    Bytes bytes = firmware.build();
    bytes.resize(firmware.layout().item_data[1] + 2 * 2048 + 10);
    write_file(bench.firmware(), bytes);
    Transcript expected = bench.echo(nand());
    expected
        .start_of_nand_run(bench.out_dir(), 2)  // misc and rootfs are missing
        .line("preparing boot saving at " + bench.out("boot.img").string())
        .line("writing boot...")
        .redraw("writing boot...33%")
        .redraw("writing boot...66%")
        .line("failed to get data from firmware")
        .error("failed to write boot,ret=-2");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
    EXPECT_EQ(fs::file_size(bench.out("boot.img")), GetParam() == "slc" ? 2 * 2112U : 2 * 2048U);
}

TEST_P(NandFile, OfAParameterPartitionThatIsTooSmallStaysEmpty) {
    Firmware firmware = sample_firmware();
    firmware.item("parameter").part_size = 15;
    firmware.item("parameter").data.resize(2049, ' ');
    const Workbench bench(firmware);
    Transcript expected = bench.echo(nand());
    expected.line("writing idblock...")
        .line("start to write partitions...gpt=0")
        .line("preparing parameter saving at " + bench.out("parameter.img").string())
        .line("writing parameter...")
        .line("partition size is too small")
        .error("failed to write parameter,ret=-1");
    expect_run(bench.convert(nand()), creation_failed, expected.failure());
    EXPECT_EQ(fs::file_size(bench.out("parameter.img")), 0U);
}

// ---- spare area ----

// One line for every page that is not written, in front of the percentage that the page comes to.
Transcript run_without_spare(const fs::path& out) {
    const std::string complaint = "size of oob is not enough";
    Transcript transcript;
    const auto complain = [&](int pages) {
        for (int page = 0; page < pages; ++page) {
            transcript.error(complaint);
        }
    };
    const auto partition = [&](const std::string& name, int pages, int fill_pages) {
        transcript.line("preparing " + name + " saving at " + (out / (name + ".img")).string())
            .line("writing " + name + "...");
        for (int page = 1; page <= pages; ++page) {
            transcript.error(complaint).redraw("writing " + name + "..." +
                                               std::to_string(100 * page / pages) + "%");
        }
        transcript.redraw("writing " + name + "...OK");
        complain(fill_pages);
    };
    transcript.line("writing idblock...");
    complain(4 + 4);
    transcript.line("start to write partitions...gpt=0")
        .line("preparing parameter saving at " + (out / "parameter.img").string())
        .line("writing parameter...");
    complain(64);
    transcript.redraw("writing parameter...OK");
    partition("boot", 3, 5);
    partition("misc", 1, 7);
    partition("rootfs", 10, 6);
    return transcript.success();
}

TEST(SpareArea, ThatIsTooSmallDropsEveryPage) {
    for (const std::string spare : {"1", "32", "63"}) {
        SCOPED_TRACE(spare);
        const Workbench bench(sample_firmware());
        const Conversion slc{"slc", "16", "2", spare};
        expect_run(bench.convert(slc), 0, bench.echo(slc).then(run_without_spare(bench.out_dir())));
        EXPECT_EQ(bench.output_names(),
                  (Names{"boot.img", "idblock.img", "misc.img", "parameter.img", "rootfs.img"}));
        for (const std::string& name : bench.output_names()) {
            EXPECT_EQ(fs::file_size(bench.out(name)), 0U) << name;
        }
    }
}

TEST(SpareArea, Of32BytesForEveryKilobyteIsEnough) {
    const Workbench bench(sample_firmware());
    for (const auto& [page_kb, spare] : std::vector<std::pair<std::string, std::string>>{
             {"1", "32"}, {"2", "64"}, {"3", "96"}, {"4", "128"}, {"8", "256"}}) {
        SCOPED_TRACE(page_kb);
        const Conversion slc{"slc", "96", page_kb, spare};
        expect_run(bench.convert(slc), 0,
                   bench.echo(slc).then(sample_nand_run(false, std::stoul(page_kb) * kib, bench.out_dir())));
    }
}

TEST(SpareArea, OfOneByteLessIsNotEnough) {
    const Workbench bench(sample_firmware());
    for (const auto& [page_kb, spare] : std::vector<std::pair<std::string, std::string>>{
             {"1", "31"}, {"3", "95"}, {"4", "127"}, {"8", "255"}}) {
        SCOPED_TRACE(page_kb);
        const auto result = bench.convert({"slc", "96", page_kb, spare});
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_NE(result.out.find("\033[30;41msize of oob is not enough\033[37;40m\n"), std::string::npos);
        EXPECT_EQ(fs::file_size(bench.out("rootfs.img")), 0U);
    }
}

}  // namespace
