// Output that cannot be written: the conversion runs to its end, but never ends in success.

#include "cli/sample_runs.h"
#include "cli/sparse_runs.h"
#include "cli/workbench.h"

namespace {

using namespace cli_test;
using namespace test_support;

constexpr const char* no_space = ",err=28";
constexpr const char* too_large = ",err=27";
const std::string full_device = "/dev/full";

// The run's lines, with the verdict in the place of success.
Transcript with_verdict(const Transcript& whole, const std::string& path, const std::string& error) {
    const std::string success = Transcript().success().text();
    Transcript failed(whole.text().substr(0, whole.text().size() - success.size()));
    return failed.error("failed to write " + path + error).failure();
}

class FullDisk : public testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(full_device)) {
            GTEST_SKIP() << "no " << full_device << " here";
        }
    }
};

TEST_F(FullDisk, EndsARunOfAnyImageSizeInAVerdict) {
    for (const std::size_t bytes : {1U, 20001U, 5000000U}) {
        Firmware firmware = sample_firmware();
        firmware.item("rootfs").data = patterned(bytes, 1);
        for (const std::string type : {"emmc", "spinor"}) {
            SCOPED_TRACE(type + std::to_string(bytes));
            const Workbench bench(firmware);
            fs::create_symlink(full_device, bench.out("out_image.img"));
            const Conversion conversion{type, "64", "2"};
            Transcript whole = bench.echo(conversion);
            whole.start_of_raw_run()
                .line("preparing boot at 0x00002100")
                .plain_image("boot", 32)
                .line("preparing misc at 0x00002180")
                .plain_image("misc", 16)
                .line("preparing rootfs at 0x000021c0")
                .plain_image("rootfs", pages_of(bytes, 2048))
                .success();
            expect_run(bench.convert(conversion), creation_failed,
                       with_verdict(whole, bench.out("out_image.img").string(), no_space));
        }
    }
}

TEST_F(FullDisk, EndsARunWithAGptInAVerdict) {
    const Workbench bench(sample_firmware({.gpt = true}));
    fs::create_symlink(full_device, bench.out("out_image.img"));
    const Conversion emmc;
    expect_run(bench.convert(emmc), creation_failed,
               with_verdict(bench.echo(emmc).then(sample_raw_run(true, 2 * kib)),
                            bench.out("out_image.img").string(), no_space));
}

TEST_F(FullDisk, EndsASingleModeRunInAVerdict) {
    Workbench bench;
    bench.name_firmware("loader.bin");
    write_file(bench.firmware(), sample_firmware().boot.build());
    for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
        SCOPED_TRACE(type);
        const Conversion conversion{type, "64", "2", "64"};
        const bool raw = type == "emmc" || type == "spinor";
        const fs::path output = bench.out(raw ? "out_image.img" : "idblock.img");
        fs::create_symlink(full_device, output);
        expect_run(bench.convert(conversion), creation_failed,
                   with_verdict(bench.echo(conversion).line("writing idblock...").success(), output.string(),
                                no_space));
        fs::remove(output);
    }
}

TEST_F(FullDisk, BehindOneNandFileLeavesTheOthersComplete) {
    const Firmware firmware = sample_firmware();
    for (const std::string type : {"spinand", "slc"}) {
        const Conversion conversion{type, "64", "2", "64"};
        const Workbench reference(firmware);
        ASSERT_EQ(reference.convert(conversion).exit_status, 0);
        for (const std::string& full : reference.output_names()) {
            SCOPED_TRACE(type + " " + full);
            const Workbench bench(firmware);
            fs::create_symlink(full_device, bench.out(full));
            const Transcript whole =
                bench.echo(conversion).then(sample_nand_run(false, 2 * kib, bench.out_dir()));
            expect_run(bench.convert(conversion), creation_failed,
                       with_verdict(whole, bench.out(full).string(), no_space));
            for (const std::string& name : reference.output_names()) {
                if (name != full) {
                    expect_same_bytes(bench.output(name), reference.output(name), name);
                }
            }
        }
    }
}

TEST_F(FullDisk, BehindSeveralFilesIsReportedForTheFirstOfThem) {
    const Workbench bench(sample_firmware());
    for (const char* name : {"rootfs.img", "misc.img"}) {
        fs::create_symlink(full_device, bench.out(name));
    }
    const Conversion nand{"spinand", "64", "2"};
    expect_run(bench.convert(nand), creation_failed,
               with_verdict(bench.echo(nand).then(sample_nand_run(false, 2 * kib, bench.out_dir())),
                            bench.out("misc.img").string(), no_space));
}

TEST_F(FullDisk, IsNotReportedWhenAStepFailsAfterwards) {
    Firmware firmware = sample_firmware();
    firmware.item("misc").part_size = 1;
    firmware.item("misc").data.resize(5000, 0);
    const Workbench bench(firmware);
    fs::create_symlink(full_device, bench.out("out_image.img"));
    const Conversion emmc;
    Transcript expected = bench.echo(emmc);
    expected.start_of_raw_run()
        .line("preparing boot at 0x00002100")
        .plain_image("boot", 32)
        .line("preparing misc at 0x00002180")
        .line("writing misc...")
        .line("partition size is too small")
        .error("failed to write misc,ret=-1");
    expect_run(bench.convert(emmc), creation_failed, expected.failure());
}

SparseImage sparse_image() {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(600000, 1)), SparseChunk::dont_care(20),
                    SparseChunk::fill(0x11223344, 30)};
    return image;
}

TEST_F(FullDisk, BehindTheTemporaryFileOfASparseImageEndsInAVerdict) {
    const SparseImage image = sparse_image();
    for (const std::string type : {"emmc", "spinand"}) {
        SCOPED_TRACE(type);
        const Workbench bench(with_system(image.build(), grows_to_end));
        fs::create_symlink(full_device, bench.out("unsparse_tmp.bin"));
        const Conversion conversion{type, "4", "2"};
        Transcript whole =
            type == "emmc" ? start_of_system(bench, conversion) : start_of_nand_system(bench, conversion);
        whole
            .sparse_image("system", expansion_pieces(image, 2048), declared_size(image),
                          declared_size(image) / 2048)
            .success();
        expect_run(bench.convert(conversion), creation_failed,
                   with_verdict(whole, bench.out("unsparse_tmp.bin").string(), no_space));
    }
}

TEST_F(FullDisk, BehindTheImageOfASparsePartitionEndsInAVerdict) {
    const SparseImage image = sparse_image();
    const Workbench bench(with_system(image.build(), grows_to_end));
    fs::create_symlink(full_device, bench.out("out_image.img"));
    const Conversion emmc{"emmc", "4", "2"};
    Transcript whole = start_of_system(bench, emmc);
    whole
        .sparse_image("system", expansion_pieces(image, 2048), declared_size(image),
                      declared_size(image) / 2048)
        .success();
    expect_run(bench.convert(emmc), creation_failed,
               with_verdict(whole, bench.out("out_image.img").string(), no_space));
    EXPECT_FALSE(fs::exists(bench.out("unsparse_tmp.bin")));
}

// ---- a limit on the size of files ----

TEST(FileSizeLimit, EndsARunInAVerdict) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "the files of the coverage counters are under the limit too";
#endif
    const Workbench bench(sample_firmware());
    const Conversion emmc;
    const uint64_t whole_size = 4718592;  // 9 blocks of 512 KB
    for (const uint64_t limit : {uint64_t{0}, uint64_t{1000}, uint64_t{1} << 20, whole_size - 1}) {
        SCOPED_TRACE(limit);
        expect_run(bench.convert(emmc, {.file_size_limit = limit}), creation_failed,
                   with_verdict(bench.echo(emmc).then(sample_raw_run(false, 2 * kib)),
                                bench.out("out_image.img").string(), too_large));
        EXPECT_LE(fs::file_size(bench.out("out_image.img")), limit);
    }
    expect_run(bench.convert(emmc, {.file_size_limit = whole_size}), 0,
               bench.echo(emmc).then(sample_raw_run(false, 2 * kib)));
    EXPECT_EQ(fs::file_size(bench.out("out_image.img")), whole_size);
}

TEST(FileSizeLimit, IsReportedForTheFirstFileThatReachesIt) {
    const Workbench bench(sample_firmware());
    for (const std::string type : {"spinand", "slc"}) {
        SCOPED_TRACE(type);
        const Conversion conversion{type, "16", "2", "64"};
        // Only the parameter partition, of 128 KB, is larger.
        expect_run(bench.convert(conversion, {.file_size_limit = 100000}), creation_failed,
                   with_verdict(bench.echo(conversion).then(sample_nand_run(false, 2 * kib, bench.out_dir())),
                                bench.out("parameter.img").string(), too_large));
    }
}

TEST(FileSizeLimit, OfTheTemporaryFileAloneEndsARunInAVerdict) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(400000, 1))};
    image.total_blocks = 2;  // the rest is dropped behind the temporary file
    const Workbench bench(with_system(image.build(), grows_to_end));
    const Conversion nand{"spinand", "4", "2"};
    Transcript whole = start_of_nand_system(bench, nand);
    whole.sparse_image("system", expansion_pieces(image, 2048), 8192, 4).success();
    expect_run(bench.convert(nand, {.file_size_limit = 200000}), creation_failed,
               with_verdict(whole, bench.out("unsparse_tmp.bin").string(), too_large));
}

}  // namespace
