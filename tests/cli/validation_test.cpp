// The checks between the options and the conversion, in their order.

#include "support/workbench.h"

namespace {

using namespace test_support;

// The text of sizes as they are read, and a last line.
Lines sizes_and(const std::string& type, const std::string& block, const std::string& page,
                const Lines& last) {
    Lines lines{"flash type is '" + type + "'", "block size is '" + block + "'",
                "page size is '" + page + "'"};
    lines.insert(lines.end(), last.begin(), last.end());
    return lines;
}

TEST(Validation, StartsWithTheFlashType) {
    expect_lines({}, status_of(-5), {"flash type is none"});
    expect_lines({"-b", "0", "-p", "0", "-s", "0"}, status_of(-5),
                 {"block size is '0'", "page size is '0'", "oob size is '0'", "flash type is none"});
}

TEST(Validation, WantsABlockSizeForEveryType) {
    for (const std::string& type : kStorageTypes) {
        expect_lines(
            {"-t", type, "-p", "2", "-s", "64"}, status_of(-6),
            {"flash type is '" + type + "'", "page size is '2'", "oob size is '64'", "block size is zero"});
        expect_lines({"-t", type, "-b", "0x80", "-p", "0"}, status_of(-6),
                     sizes_and(type, "0x80", "0", {"block size is zero"}));
    }
}

TEST(Validation, WantsAPageSizeForEveryType) {
    for (const std::string& type : kStorageTypes) {
        expect_lines({"-t", type, "-b", "128"}, status_of(-7),
                     {"flash type is '" + type + "'", "block size is '128'", "page size is zero"});
    }
}

TEST(Validation, WantsASpareSizeForSlcNandAlone) {
    for (const std::string type : {"emmc", "spinor", "spinand"}) {
        expect_lines({"-t", type, "-b", "128", "-p", "2"}, status_of(-11),
                     sizes_and(type, "128", "2", {" failed to access"}));
    }
    expect_lines({"-t", "slc", "-b", "128", "-p", "2"}, status_of(-8),
                 sizes_and("slc", "128", "2", {"oob size is zero"}));
    expect_lines({"-t", "slc", "-b", "128", "-p", "2", "-s", "0"}, status_of(-8),
                 sizes_and("slc", "128", "2", {"oob size is '0'", "oob size is zero"}));
}

TEST(Validation, TakesNegativeSizesForLargeOnes) {
    expect_lines({"-t", "slc", "-b", "-1", "-p", "-1", "-s", "-1"}, status_of(-11),
                 sizes_and("slc", "-1", "-1", {"oob size is '-1'", " failed to access"}));
}

// The conversion ends with the line right after the options.
void expect_refused(const fs::path& firmware, const fs::path& out, int status, const std::string& text) {
    expect_run(run(Conversion().arguments(firmware, out)), status,
               Conversion().echo(firmware, out) + line(text));
}

TEST(OutputDirectory, ThatIsNotThereOrNoDirectoryIsNamed) {
    const Workbench bench(sample_firmware());
    const fs::path dangling = bench.directory() / "dangling";
    fs::create_directory_symlink("nowhere", dangling);
    for (const fs::path& missing : {bench.directory() / "missing", bench.firmware() / "out", dangling})
        expect_refused("also-missing", missing, status_of(-9), missing.string() + " failed to access");
    expect_refused("also-missing", bench.firmware(), status_of(-10),
                   bench.firmware().string() + " is not a directory");
}

TEST(OutputDirectory, MayBeALink) {
    const Workbench bench(sample_firmware());
    const fs::path link = bench.directory() / "link";
    fs::create_directory_symlink("out", link);
    const auto result = run(Conversion().arguments(bench.firmware(), link));
    EXPECT_EQ(result.exit_status, 0) << result.out;
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});
}

TEST(OutputDirectory, IsTheCurrentOneWhenNoneOrAnEmptyOneIsGiven) {
    const Workbench bench(sample_firmware());
    const auto reference = bench.convert({.type = "spinor", .block_kb = "64"});
    ASSERT_EQ(reference.exit_status, 0) << reference.out;
    for (const Arguments& out : {Arguments{}, Arguments{"-o", ""}, Arguments{"-o", "elsewhere", "-o", ""}}) {
        SCOPED_TRACE(out.size());
        const TemporaryDirectory current;
        Arguments arguments{"-t", "spinor", "-b", "64", "-p", "2", "-i", bench.firmware()};
        arguments.insert(arguments.end(), out.begin(), out.end());
        const auto result = run(arguments, {.working_directory = current.path()});
        EXPECT_EQ(result.exit_status, 0) << result.out;
        EXPECT_TRUE(same_bytes(read_file(current / "out_image.img"), bench.output("out_image.img")));
    }
}

TEST(OutputDirectory, ThatIsTheCurrentOneIsNamedInFull) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const Conversion nand{"spinand", "128", "2"};
    const RunResult result = run({"-t", "spinand", "-b", "128", "-p", "2", "-i", bench.firmware()},
                                 {.working_directory = bench.out_dir()});
    expect_run(result, 0,
               line("flash type is 'spinand'") + line("block size is '128'") + line("page size is '2'") +
                   line("input firmware is '" + bench.firmware().string() + "'") +
                   expected_run(firmware, nand, fs::canonical(bench.out_dir())).text);
}

TEST(FirmwareFile, ThatDoesNotExistIsNamed) {
    const Workbench bench;
    expect_refused(bench.firmware(), bench.out_dir(), status_of(-11),
                   bench.firmware().string() + " failed to access");
    fs::create_symlink("nowhere", bench.firmware());
    expect_refused(bench.firmware(), bench.out_dir(), status_of(-11),
                   bench.firmware().string() + " failed to access");
}

// The line names the output directory, not the firmware.
TEST(FirmwareFile, ThatIsNotAFileIsReportedWithTheDirectory) {
    const Workbench bench;
    for (const fs::path& not_a_file : {bench.directory(), fs::path("/dev/null")})
        expect_refused(not_a_file, bench.out_dir(), status_of(-12),
                       bench.out_dir().string() + " is not a file");
    const std::string current = fs::canonical(bench.directory());
    expect_lines({"-t", "emmc", "-b", "512", "-p", "2", "-i", "."}, status_of(-12),
                 sizes_and("emmc", "512", "2", {"input firmware is '.'", current + " is not a file"}),
                 {.working_directory = bench.directory()});
    EXPECT_EQ(bench.output_names(), Names{});
}

TEST(FirmwareFile, MayBeALink) {
    Workbench bench(sample_firmware());
    fs::create_symlink("fw.img", bench.directory() / "link.img");
    bench.name_firmware("link.img");
    const auto result = bench.convert(Conversion());
    EXPECT_EQ(result.exit_status, 0) << result.out;
}

}  // namespace
