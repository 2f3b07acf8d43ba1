// What the program adds to a conversion: its exit status, the echo of the options, a last line, its working
// directory and the limits that the machine sets it.

#include "support/process_limits.h"
#include "support/workbench.h"

namespace {

using namespace test_support;

const std::vector<Conversion> kOneOfEach{{"emmc", "512", "2"},
                                         {"spinor", "64", "2"},
                                         {"spinand", "128", "2"},
                                         {"slc", "32", "4", "128", true, true}};

TEST(Program, ConvertsForEveryType) {
    for (const bool gpt : {false, true}) {
        Firmware firmware = sample_firmware({.gpt = gpt});
        firmware.items[0].part_size = 64;
        const GptEntries entries = gpt ? GptEntries(sample_gpt()) : std::nullopt;
        for (const Conversion& conversion : kOneOfEach) {
            const Workbench bench(firmware);
            bench.expect(conversion, expected_run(firmware, conversion, bench.out_dir(), entries),
                         By::program);
        }
    }
}

// ---- exit status ----

TEST(Program, EndsIn242WithoutAnOutputImage) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("out_image.img"));
    bench.expect({}, kInitFailed, not_created(bench.out("out_image.img"), EISDIR), By::program);
}

TEST(Program, EndsIn241WithTheVerdict) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    fs::create_symlink("/dev/full", bench.out("out_image.img"));
    std::string text = expected_run(firmware, {}, bench.out_dir()).text;
    text.erase(text.rfind("creating"));
    bench.expect({}, kCreationFailed, text + not_written(bench.out("out_image.img"), ENOSPC), By::program);
}

TEST(Program, EndsIn1ForAFirmwarePathOf256Characters) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const fs::path out = bench.out_dir();
    const auto path_of_length = [&bench](std::size_t length) {
        const std::string directory = bench.directory();
        const std::string slashes(length - directory.size() - bench.firmware().filename().string().size(),
                                  '/');
        return directory + slashes + bench.firmware().filename().string();
    };
    for (const std::size_t length : {256U, 257U, 1000U})
        for (const Conversion& conversion : {kOneOfEach[0], kOneOfEach[2]})
            expect_run(run(conversion.arguments(path_of_length(length), out)), 1,
                       conversion.echo(path_of_length(length), out) + line("path of firmware is too long"));
    EXPECT_EQ(bench.output_names(), Names{});
    expect_run(run(Conversion().arguments(path_of_length(255), out)), kConverted,
               Conversion().echo(path_of_length(255), out) + expected_run(firmware, {}, out).text);
}

// ---- limits of the machine ----

TEST(Program, FailsWithoutMemoryForAPage) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "the address sanitizer or an emulator needs the address space";
    const Workbench bench(sample_firmware());
    bench.expect({"emmc", "1048576", "1048576"}, kCreationFailed,
                 line("writing idblock...") + error_line("failed to write idblock,ret=-5"), By::program,
                 {.address_space_limit = 256 * kMib});
}

TEST(Program, TakesALimitOnTheSizeOfFilesForAWriteError) {
#ifdef NANDSMITH_COVERAGE
    GTEST_SKIP() << "the files of the coverage counters are under the limit too";
#endif
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const ExpectedRun whole = expected_run(firmware, {}, bench.out_dir());
    const uint64_t size = whole.files.at("out_image.img").size();
    const std::string steps = whole.text.substr(0, whole.text.rfind("creating"));
    for (const uint64_t limit : {uint64_t{0}, uint64_t{1000}, uint64_t{kMib}, size - 1}) {
        bench.expect({}, kCreationFailed, steps + not_written(bench.out("out_image.img"), EFBIG), By::program,
                     {.file_size_limit = limit});
        EXPECT_LE(fs::file_size(bench.out("out_image.img")), limit);
    }
    bench.expect({}, kConverted, whole.text, By::program, {.file_size_limit = size});
    bench.expect_files(whole.files);
}

// ---- options and working directory ----

TEST(Program, DoesNotOverwriteAFirmwareOfARelativePath) {
    const Firmware firmware = sample_firmware();
    const Workbench bench;
    firmware.write(bench.out("out_image.img"));
    for (const std::string path : {"out_image.img", "./out_image.img", "../out/out_image.img"}) {
        SCOPED_TRACE(path);
        expect_run(run(Conversion().arguments(path, "."), {.working_directory = bench.out_dir()}),
                   kInitFailed, Conversion().echo(path, ".") + not_created("./out_image.img", EBUSY));
        EXPECT_TRUE(same_bytes(bench.output("out_image.img"), firmware.build()));
    }
}

}  // namespace
