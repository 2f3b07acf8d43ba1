// What the program adds to a conversion: its exit status, the echo of the options, a last line, its working
// directory and the limits that the machine sets it.

#include "support/process_limits.h"
#include "support/sparse_builder.h"
#include "support/workbench.h"

#include <cerrno>
#include <functional>

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

// Whatever lay in the output directory before.
TEST(Program, RepeatsItself) {
    SparseImage sparse;
    sparse.chunks = {SparseChunk::raw(patterned(50000, 1)), SparseChunk::dont_care(7),
                     SparseChunk::fill(0x01020304, 9)};
    for (const bool gpt : {false, true}) {
        Firmware firmware = sample_firmware({.gpt = gpt, .scramble_stages = true});
        firmware.item("rootfs").data = sparse.build();
        for (Conversion conversion : kOneOfEach) {
            SCOPED_TRACE(testing::PrintToString(conversion));
            conversion.two_kilobytes_data = gpt;
            const Workbench bench(firmware);
            const RunResult first = bench.convert(conversion);
            ASSERT_EQ(first.exit_status, kConverted) << first.out;
            const Files files = bench.outputs();
            expect_run(bench.convert(conversion), kConverted, first.out);
            bench.expect_files(files);
            EXPECT_TRUE(same_bytes(read_file(bench.firmware()), firmware.build()));
        }
    }
}

// ---- exit status: a row for each way out ----

struct Ending {
    std::string situation;
    std::function<void(Firmware&)> bend;
    std::string last_line;
    int status = kCreationFailed;
    Conversion conversion{};
};

void PrintTo(const Ending& ending, std::ostream* out) {
    *out << ending.situation;
}

class EndingTest : public testing::TestWithParam<Ending> {};

TEST_P(EndingTest, HasTheStatusAndTheLinesOfTheCall) {
    const Ending& ending = GetParam();
    Firmware firmware = sample_firmware();
    ending.bend(firmware);
    const Workbench bench(firmware);
    fs::create_directory(bench.out("taken.img"));
    const std::string text = bench.call(ending.conversion).text;
    EXPECT_EQ(text.substr(text.size() - std::min(text.size(), ending.last_line.size())), ending.last_line);
    const Files files = [&] {
        fs::remove(bench.out("taken.img"));
        Files made = bench.outputs();
        fs::create_directory(bench.out("taken.img"));
        return made;
    }();
    bench.expect(ending.conversion, ending.status, text, By::program);
    fs::remove(bench.out("taken.img"));
    bench.expect_files(files);
}

const std::vector<Ending> kEndings{
    {"Geometry",
     [](Firmware&) {},
     line("page size is out of range"),
     kInitFailed,
     {"slc", "1", "4194304", "1"}},
    {"Firmware", [](Firmware& firmware) { firmware.tag = "QZFX"; }, line("failed to load firmware,ret=1"),
     kInitFailed},
    {"BootBlock", [](Firmware& firmware) { firmware.boot.loader.entries.clear(); },
     error_line("failed to write idblock,ret=-1")},
    {"ItemTable", [](Firmware& firmware) { firmware.item_count = 0x7FFFFFFF; },
     error_line("failed to get extended info of firmware")},
    {"Items", [](Firmware& firmware) { firmware.item_count = 0; },
     error_line("not found any of partition items in the firmware")},
    {"Parameter", [](Firmware& firmware) { firmware.items[0].name = "PARAMETER"; },
     error_line("not found parameter in the firmware")},
    {"ParameterRecord", [](Firmware& firmware) { firmware.items[0].size = 0xFFFFFFFF; },
     error_line("failed to create param buffer")},
    {"Preparing",
     [](Firmware& firmware) { firmware.items[2].name = "taken"; },
     error_line("failed to prepare taken"),
     kCreationFailed,
     {"spinand", "128", "2"}},
    {"Partition", [](Firmware& firmware) { firmware.items[2].part_size = 0; },
     error_line("failed to write misc,ret=-1")},
};

INSTANTIATE_TEST_SUITE_P(Of, EndingTest, testing::ValuesIn(kEndings),
                         [](const testing::TestParamInfo<Ending>& tested) { return tested.param.situation; });

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

// A path of that many characters to the firmware.
std::string path_of_length(const Workbench& bench, std::size_t length) {
    const std::string end = "/" + bench.firmware().filename().string();
    std::string path = bench.directory();
    while (path.size() + 2 + end.size() <= length)
        path += "/.";
    return path + std::string(length - path.size() - end.size(), '/') + end;
}

TEST(Program, EndsIn1ForAFirmwarePathOf256Characters) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const fs::path out = bench.out_dir();
    for (const std::size_t length : {256U, 257U, 1000U}) {
        const std::string path = path_of_length(bench, length);
        ASSERT_EQ(path.size(), length);
        for (const Conversion& conversion : {kOneOfEach[0], kOneOfEach[2]})
            expect_run(run(conversion.arguments(path, out)), 1,
                       conversion.echo(path, out) + line("path of firmware is too long"));
    }
    EXPECT_EQ(bench.output_names(), Names{});
    const std::string path = path_of_length(bench, 255);
    expect_run(run(Conversion().arguments(path, out)), kConverted,
               Conversion().echo(path, out) + expected_run(firmware, {}, out).text);
}

// ---- limits of the machine ----

TEST(Program, FailsWithoutMemoryForAPage) {
    if (!kMemoryCanBeLimited)
        GTEST_SKIP() << "the address sanitizer needs the address space";
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
        SCOPED_TRACE(limit);
        bench.expect({}, kCreationFailed, steps + not_written(bench.out("out_image.img"), EFBIG), By::program,
                     {.file_size_limit = limit});
        EXPECT_LE(fs::file_size(bench.out("out_image.img")), limit);
    }
    bench.expect({}, kConverted, whole.text, By::program, {.file_size_limit = size});
    bench.expect_files(whole.files);
}

// ---- options and working directory ----

// The usage text lists -l, but only the long option switches the page list on.
TEST(Program, CountsTheListIndexAsThePageListSays) {
    const Workbench bench(sample_firmware());
    for (const auto& [option, step] :
         {std::pair{"-2", 4U}, std::pair{"-l", 4U}, std::pair{"--page_list", 1U}}) {
        SCOPED_TRACE(option);
        Arguments arguments = Conversion{"slc", "16", "2", "64"}.arguments(bench.firmware(), bench.out_dir());
        arguments.emplace_back(option);
        ASSERT_EQ(run(arguments).exit_status, kConverted);
        for (const auto& [name, file] : bench.outputs())
            for (const std::size_t page : {0U, 1U, 2U})
                EXPECT_EQ(get32(file, page * 2112 + 1024), page * step) << name;
    }
}

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
