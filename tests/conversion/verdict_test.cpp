// Output that cannot be written: all steps go on, and the run ends in the line that names the file, not in
// success.

#include "common/bch.h"
#include "support/process_limits.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

#include <cerrno>

namespace {

using namespace test_support;

const std::string kSuccess = line("creating programming image ok.");

// The run's lines, with the verdict in the place of success.
std::string with_verdict(const std::string& whole, const fs::path& path, int error) {
    EXPECT_EQ(whole.substr(whole.size() - kSuccess.size()), kSuccess);
    return whole.substr(0, whole.size() - kSuccess.size()) + not_written(path, error);
}

// The sample with a sparse "rootfs".
Firmware with_sparse(const SparseImage& image) {
    Firmware firmware = sample_firmware();
    firmware.items[3].data = image.build();
    return firmware;
}

SparseImage sparse_image() {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(600000, 1)), SparseChunk::dont_care(20),
                    SparseChunk::fill(0x11223344, 30)};
    return image;
}

// A run to its end with a full device in the place of one file.
void expect_full(const Firmware& firmware, const Conversion& conversion, const std::string& full,
                 const GptEntries& gpt = std::nullopt) {
    SCOPED_TRACE(testing::PrintToString(conversion) + full);
    const Workbench bench(firmware);
    const ExpectedRun whole = expected_run(firmware, conversion, bench.out_dir(), gpt);
    fs::create_symlink("/dev/full", bench.out(full));
    bench.expect(conversion, kCreationFailed, with_verdict(whole.text, bench.out(full), ENOSPC));
    for (const auto& [name, bytes] : whole.files) {
        if (name == full || (full == "unsparse_tmp.bin" && name == "rootfs.img"))
            continue;
        EXPECT_TRUE(same_bytes(bench.output(name), bytes)) << name;
    }
    EXPECT_FALSE(fs::exists(bench.out("unsparse_tmp.bin")));
}

TEST(FullDevice, EndsARunOfAnySize) {
    for (const std::size_t bytes : {1U, 20001U, 5000000U}) {
        Firmware firmware = sample_firmware();
        firmware.item("rootfs").data = patterned(bytes, 1);
        expect_full(firmware, {"emmc", "64", "2"}, "out_image.img");
        expect_full(firmware, {"spinor", "64", "2"}, "out_image.img");
    }
}

TEST(FullDevice, EndsARunWithAGpt) {
    expect_full(sample_firmware({.gpt = true}), {}, "out_image.img", sample_gpt());
    expect_full(sample_firmware({.gpt = true}), {"spinand", "64", "2"}, "gpt.img", sample_gpt());
}

TEST(FullDevice, EndsARunOnABareContainer) {
    Workbench bench;
    bench.name_firmware("loader.bin");
    bench.pack(sample_firmware().boot.build());
    for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
        const Conversion conversion{type, "64", "2", "64"};
        const fs::path output = bench.out(conversion.is_whole_device() ? "out_image.img" : "idblock.img");
        fs::create_symlink("/dev/full", output);
        bench.expect(conversion, kCreationFailed, line("writing idblock...") + not_written(output, ENOSPC));
        fs::remove(output);
    }
}

TEST(FullDevice, AfterOneNandFileLeavesTheOthersWhole) {
    Firmware firmware = sample_firmware();
    firmware.items[0].part_size = 64;
    firmware.items[1].data = patterned(3 * kMib, 1);  // far more than is gathered before a write
    for (const std::string name : {"boot.img", "idblock.img", "misc.img", "parameter.img", "rootfs.img"})
        expect_full(firmware, {"spinand", "64", "2"}, name);
    firmware.items[1].data = patterned(5000, 1);
    for (const std::string name : {"boot.img", "idblock.img", "misc.img", "parameter.img", "rootfs.img"})
        expect_full(firmware, {"slc", "16", "2", "64"}, name);
}

TEST(FullDevice, AfterSeveralFilesIsReportedForTheFirst) {
    const Firmware firmware = sample_firmware();
    for (const Conversion& conversion :
         {Conversion{"spinand", "64", "2"}, Conversion{"slc", "16", "2", "64"}}) {
        for (const auto& [first, second] :
             {std::pair{"misc.img", "rootfs.img"}, {"idblock.img", "misc.img"}}) {
            const Workbench bench(firmware);
            fs::create_symlink("/dev/full", bench.out(first));
            fs::create_symlink("/dev/full", bench.out(second));
            const std::string whole = expected_run(firmware, conversion, bench.out_dir()).text;
            bench.expect(conversion, kCreationFailed, with_verdict(whole, bench.out(first), ENOSPC));
        }
    }
}

TEST(FullDevice, IsNotReportedWhenAStepFailsAfterwards) {
    Firmware firmware = sample_firmware();
    const Workbench bench;
    const std::string whole = expected_run(firmware, {}, bench.out_dir()).text;
    firmware.item("misc").part_size = 1;
    firmware.item("misc").data.resize(5000, 0);
    bench.pack(firmware);
    fs::create_symlink("/dev/full", bench.out("out_image.img"));
    bench.expect({}, kCreationFailed,
                 whole.substr(0, whole.find("writing misc")) + line("writing misc...") +
                     line("partition size is too small") + error_line("failed to write misc,ret=-1"));
}

TEST(FullDevice, AfterASparseImageOrItsFileIsReported) {
    const Firmware firmware = with_sparse(sparse_image());
    expect_full(firmware, {"spinand", "4", "2"}, "unsparse_tmp.bin");
    expect_full(firmware, {"spinand", "4", "2"}, "rootfs.img");
    expect_full(firmware, {"emmc", "4", "2"}, "out_image.img");

    const Workbench bench(firmware);
    fs::create_symlink("/dev/full", bench.out("unsparse_tmp.bin"));
    const Conversion emmc{"emmc", "4", "2"};
    const std::string whole = expected_run(firmware, emmc, bench.out_dir()).text;
    bench.expect(emmc, kCreationFailed, with_verdict(whole, bench.out("unsparse_tmp.bin"), ENOSPC));
}

// The way to the verdict is short however large the image was to be.
TEST(FullDevice, EndsAHugeImageInMoments) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    firmware.items.push_back(
        {.name = "boot", .part_size = 0xFFFFF000, .flash_offset = 0xFFFF0000, .data = patterned(5000, 1)});
    firmware.items[0].data = parameter_record("TYPE: GPT\nCMDLINE: mtdparts=x:-@0x0(a)\n");
    const Workbench bench(firmware);
    fs::create_symlink("/dev/full", bench.out("out_image.img"));
    bench.expect({}, kCreationFailed,
                 opening_lines(0, true) + preparing_line("gpt", 0) + table_lines("gpt") +
                     preparing_line("boot", 0xFFFF0000) + writing_lines("boot", 100) +
                     not_written(bench.out("out_image.img"), ENOSPC));
}

TEST(FullDevice, LetsNothingMoreBeEncoded) {
    Firmware firmware = sample_firmware();
    firmware.items[1].data = patterned(16 * kMib, 1);
    const Workbench bench(firmware);
    fs::create_symlink("/dev/full", bench.out("boot.img"));
    const uint64_t before = bch_encoded_codewords();
    EXPECT_EQ(bench.call({"slc", "128", "2", "64"}).status, kCreationFailed);
    // Of 16,384 codewords only those are made that are gathered before the first write shows the failure.
    EXPECT_LT(bch_encoded_codewords() - before, 4096U);
}

// ---- a limit on the size of files ----

TEST(FileSize, ThatIsLimitedKeepsTheStartOfTheImage) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const ExpectedRun whole = expected_run(firmware, {}, bench.out_dir());
    const Bytes& image = whole.files.at("out_image.img");
    ASSERT_EQ(image.size(), 4718592U);
    // Inside a boot block, the parameter copies and the last partition.
    for (const std::size_t size : {33000U, 4200000U, 4428400U}) {
        fs::remove(bench.out("out_image.img"));
        const FileSizeLimit limit(size);
        bench.expect({}, kCreationFailed, with_verdict(whole.text, bench.out("out_image.img"), EFBIG));
        EXPECT_TRUE(same_bytes(bench.output("out_image.img"), slice(image, 0, size)));
    }
    // The image ends in zeros, of which nothing but the length has to reach the disk.
    {
        const FileSizeLimit limit(image.size() - 1);
        bench.expect({}, kCreationFailed, with_verdict(whole.text, bench.out("out_image.img"), EFBIG));
        const Bytes left = bench.output("out_image.img");
        EXPECT_LT(left.size(), image.size());
        EXPECT_TRUE(same_bytes(left, slice(image, 0, left.size())));
    }
    const FileSizeLimit limit(image.size());
    bench.expect({}, whole);
}

TEST(FileSize, IsReportedForTheFirstFileThatReachesIt) {
    const Firmware firmware = sample_firmware();
    for (const Conversion& conversion :
         {Conversion{"spinand", "16", "2"}, Conversion{"slc", "16", "2", "64"}}) {
        const Workbench bench(firmware);
        const std::string whole = expected_run(firmware, conversion, bench.out_dir()).text;
        const FileSizeLimit limit(100000);  // only the parameter partition, of 128 KB, is larger
        bench.expect(conversion, kCreationFailed, with_verdict(whole, bench.out("parameter.img"), EFBIG));
    }
}

TEST(FileSize, OfTheTemporaryFileAloneIsReported) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(400000, 1))};
    image.total_blocks = 2;  // the rest is dropped after the temporary file
    const Firmware firmware = with_sparse(image);
    const Workbench bench(firmware);
    const Conversion nand{"spinand", "4", "2"};
    const std::string whole = expected_run(firmware, nand, bench.out_dir()).text;
    const FileSizeLimit limit(200000);
    bench.expect(nand, kCreationFailed, with_verdict(whole, bench.out("unsparse_tmp.bin"), EFBIG));
}

}  // namespace
