// The checks between the options and the conversion, in their order.

#include "support/workbench.h"

namespace {

using namespace test_support;

std::string echo_sizes(const std::string& type, const std::string& block, const std::string& page) {
    return line("flash type is '" + type + "'") + line("block size is '" + block + "'") +
           line("page size is '" + page + "'");
}

TEST(Validation, StartsWithTheFlashType) {
    expect_run(run({}), status_of(-5), line("flash type is none"));
    expect_run(run({"-b", "0", "-p", "0", "-s", "0"}), status_of(-5),
               line("block size is '0'") + line("page size is '0'") + line("oob size is '0'") +
                   line("flash type is none"));
}

TEST(Validation, WantsABlockSizeForEveryType) {
    for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
        SCOPED_TRACE(type);
        expect_run(run({"-t", type, "-p", "2", "-s", "64"}), status_of(-6),
                   line("flash type is '" + type + "'") + line("page size is '2'") +
                       line("oob size is '64'") + line("block size is zero"));
        expect_run(run({"-t", type, "-b", "0x80", "-p", "0"}), status_of(-6),
                   echo_sizes(type, "0x80", "0") + line("block size is zero"));
    }
}

TEST(Validation, WantsAPageSizeForEveryType) {
    for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
        SCOPED_TRACE(type);
        expect_run(run({"-t", type, "-b", "128"}), status_of(-7),
                   line("flash type is '" + type + "'") + line("block size is '128'") +
                       line("page size is zero"));
    }
}

TEST(Validation, WantsASpareSizeForSlcNandAlone) {
    for (const std::string type : {"emmc", "spinor", "spinand"}) {
        SCOPED_TRACE(type);
        expect_run(run({"-t", type, "-b", "128", "-p", "2"}), status_of(-11),
                   echo_sizes(type, "128", "2") + line(" failed to access"));
    }
    expect_run(run({"-t", "slc", "-b", "128", "-p", "2"}), status_of(-8),
               echo_sizes("slc", "128", "2") + line("oob size is zero"));
    expect_run(run({"-t", "slc", "-b", "128", "-p", "2", "-s", "0"}), status_of(-8),
               echo_sizes("slc", "128", "2") + line("oob size is '0'") + line("oob size is zero"));
}

TEST(Validation, TakesNegativeSizesForLargeOnes) {
    expect_run(run({"-t", "slc", "-b", "-1", "-p", "-1", "-s", "-1"}), status_of(-11),
               echo_sizes("slc", "-1", "-1") + line("oob size is '-1'") + line(" failed to access"));
}

TEST(OutputDirectory, ThatDoesNotExistIsNamed) {
    const Workbench bench;
    const fs::path missing = bench.directory() / "missing";
    const Conversion emmc;
    expect_run(run(emmc.arguments("also-missing", missing)), status_of(-9),
               emmc.echo("also-missing", missing) + line(missing.string() + " failed to access"));
}

TEST(OutputDirectory, ThatIsAFileIsNamed) {
    const Workbench bench(sample_firmware());
    const Conversion emmc;
    expect_run(run(emmc.arguments("missing", bench.firmware())), status_of(-10),
               emmc.echo("missing", bench.firmware()) +
                   line(bench.firmware().string() + " is not a directory"));
    const fs::path inside = bench.firmware() / "out";
    expect_run(run(emmc.arguments("missing", inside)), status_of(-9),
               emmc.echo("missing", inside) + line(inside.string() + " failed to access"));
}

TEST(OutputDirectory, MayBeALink) {
    const Workbench bench(sample_firmware());
    const fs::path link = bench.directory() / "link";
    fs::create_directory_symlink("out", link);
    const auto result = run(Conversion().arguments(bench.firmware(), link));
    EXPECT_EQ(result.exit_status, 0) << result.out;
    EXPECT_EQ(bench.output_names(), Names{"out_image.img"});

    const fs::path dangling = bench.directory() / "dangling";
    fs::create_directory_symlink("nowhere", dangling);
    expect_run(run(Conversion().arguments(bench.firmware(), dangling)), status_of(-9),
               Conversion().echo(bench.firmware(), dangling) + line(dangling.string() + " failed to access"));
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
               echo_sizes("spinand", "128", "2") +
                   line("input firmware is '" + bench.firmware().string() + "'") +
                   expected_run(firmware, nand, fs::canonical(bench.out_dir())).text);
}

TEST(OutputDirectory, WhoseNameCannotBeLookedUpIsRefused) {
    const Workbench bench(sample_firmware());
    fs::path deep = bench.directory();
    for (int i = 0; i < 6; ++i)
        deep /= std::string(50, 'd');
    fs::create_directories(deep);
    expect_run(run({"-t", "emmc", "-b", "512", "-p", "2"}, {.working_directory = deep}), status_of(-9),
               echo_sizes("emmc", "512", "2") + line("current directory failed to access"));
}

TEST(FirmwareFile, ThatDoesNotExistIsNamed) {
    const Workbench bench;
    const Conversion emmc;
    expect_run(bench.convert(emmc), status_of(-11),
               bench.echo(emmc) + line(bench.firmware().string() + " failed to access"));
    fs::create_symlink("nowhere", bench.firmware());
    expect_run(bench.convert(emmc), status_of(-11),
               bench.echo(emmc) + line(bench.firmware().string() + " failed to access"));
}

// The line names the output directory, not the firmware.
TEST(FirmwareFile, ThatIsNotAFileIsReportedWithTheDirectory) {
    const Workbench bench;
    const Conversion emmc;
    for (const fs::path& not_a_file : {bench.directory(), fs::path("/dev/null")}) {
        SCOPED_TRACE(not_a_file);
        expect_run(run(emmc.arguments(not_a_file, bench.out_dir())), status_of(-12),
                   emmc.echo(not_a_file, bench.out_dir()) +
                       line(bench.out_dir().string() + " is not a file"));
    }
    const std::string current = fs::canonical(bench.directory());
    expect_run(
        run({"-t", "emmc", "-b", "512", "-p", "2", "-i", "."}, {.working_directory = bench.directory()}),
        status_of(-12),
        echo_sizes("emmc", "512", "2") + line("input firmware is '.'") + line(current + " is not a file"));
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
