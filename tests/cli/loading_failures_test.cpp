// Runs that end before anything is converted: a geometry that no chip has, a firmware that cannot be loaded,
// an output image that cannot be created.

#include "cli/workbench.h"

#include <functional>

namespace {

using namespace cli_test;
using namespace test_support;

// ---- geometry ----

struct Geometry {
    std::string block_kb;
    std::string page_kb;
    std::string message;
};

// Sizes are kept in bytes and in sectors of 32 bits.
TEST(Geometry, WhoseSizesWrapToZeroIsRefused) {
    const Workbench bench(sample_firmware());
    const std::string page = "page size is out of range";
    const std::string block = "block size is out of range";
    for (const Geometry& geometry : {Geometry{"512", "4194304", page}, Geometry{"512", "8388608", page},
                                     Geometry{"512", "-4194304", page}, Geometry{"512", "-2147483648", page},
                                     Geometry{"512", "2143289344", page}, Geometry{"4194304", "2", block},
                                     Geometry{"-2147483648", "2", block}}) {
        for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
            SCOPED_TRACE(type + " " + geometry.block_kb + " " + geometry.page_kb);
            const Conversion conversion{type, geometry.block_kb, geometry.page_kb, "64"};
            expect_run(bench.convert(conversion), init_failed, bench.echo(conversion).line(geometry.message));
            EXPECT_EQ(bench.output_names(), Names{});
        }
    }
}

TEST(Geometry, WithABlockJustBelowTheLimitIsTaken) {
    const Workbench bench(sample_firmware());
    const auto result = bench.convert({.type = "spinand", .block_kb = "4194305"});  // wraps to 1 KB
    EXPECT_EQ(result.exit_status, 0) << result.out;
}

// ---- firmware ----

struct BadFirmware {
    std::string situation;
    std::function<Bytes()> bytes;
};

void PrintTo(const BadFirmware& bad, std::ostream* out) {
    *out << bad.situation;
}

Bytes with_boot(const std::function<void(BootContainer&)>& bend) {
    Firmware firmware = sample_firmware();
    bend(firmware.boot);
    return firmware.build();
}

Bytes with_boot_size(uint32_t size) {
    Firmware firmware = sample_firmware();
    firmware.boot_size = size;
    return firmware.build();
}

// The container is the last part of the file, which ends one byte before it does.
Bytes cut_container() {
    const Firmware firmware = sample_firmware();
    Bytes container = firmware.boot.build();
    Bytes bytes = firmware.build();
    put32_at(bytes, head_field::boot_offset, static_cast<uint32_t>(bytes.size()));
    container.pop_back();
    put_bytes(bytes, container);
    return bytes;
}

class Loading : public testing::TestWithParam<BadFirmware> {};

TEST_P(Loading, FailsWithOneLine) {
    const Workbench bench;
    write_file(bench.firmware(), GetParam().bytes());
    for (const std::string type : {"emmc", "spinor", "spinand", "slc"}) {
        SCOPED_TRACE(type);
        const Conversion conversion{.type = type, .spare_bytes = "64"};
        expect_run(bench.convert(conversion), init_failed,
                   bench.echo(conversion).line("failed to load firmware,ret=1"));
        EXPECT_EQ(bench.output_names(), Names{});
    }
}

const std::vector<BadFirmware> bad_firmware{
    {"EmptyFile", [] { return Bytes{}; }},
    {"TagAlone", [] { return to_bytes("QZFW"); }},
    {"WrongTag",
     [] {
         Bytes bytes = sample_firmware().build();
         bytes[0] = 'q';
         return bytes;
     }},
    {"ContainerWithoutData", [] { return with_boot_size(0); }},
    {"ContainerOfThreeBytes", [] { return with_boot_size(3); }},
    {"ContainerCrc", [] { return with_boot([](BootContainer& boot) { boot.crc = 0x12345678; }); }},
    {"ContainerTag", [] { return with_boot([](BootContainer& boot) { boot.tag = "B00T"; }); }},
    {"LoaderMergeVersion",
     [] {
         return with_boot([](BootContainer& boot) {
             boot.tag = "LDR ";
             boot.merge_version = 0x1000001;
         });
     }},
    {"ContainerBeyondTheFile", [] { return with_boot_size(0xFFFFFFFF); }},
    {"ContainerCutByTheFile", cut_container},
};

std::string situation_of(const testing::TestParamInfo<BadFirmware>& tested) {
    return tested.param.situation;
}

INSTANTIATE_TEST_SUITE_P(Firmware, Loading, testing::ValuesIn(bad_firmware), situation_of);

TEST(SingleMode, FailsToLoadAContainerThatIsNone) {
    Workbench bench;
    bench.name_firmware("loader.BIN");
    sample_firmware().write(bench.firmware());  // a whole firmware is no bare container
    expect_run(bench.convert({}), init_failed, bench.echo({}).line("failed to load firmware,ret=1"));
}

TEST(Loading, LeavesAnEarlierImageAlone) {
    const Workbench bench;
    write_file(bench.firmware(), to_bytes("no firmware"));
    write_file(bench.out("out_image.img"), to_bytes("an earlier image"));
    expect_run(bench.convert({}), init_failed, bench.echo({}).line("failed to load firmware,ret=1"));
    EXPECT_EQ(to_text(bench.output("out_image.img")), "an earlier image");
}

TEST(Loading, TakesALoaderContainerUpToItsLargestMergeVersion) {
    const Workbench bench;
    write_file(bench.firmware(), with_boot([](BootContainer& boot) {
                   boot.tag = "LDR ";
                   boot.merge_version = 0x1000000;
               }));
    const auto result = bench.convert({});
    EXPECT_EQ(result.exit_status, 0) << result.out;
}

// ---- path of the firmware ----

// A path of that many characters to the firmware.
std::string path_of_length(const Workbench& bench, std::size_t length) {
    const std::string end = "/" + bench.firmware().filename().string();
    std::string path = bench.directory();
    while (path.size() + 2 + end.size() <= length) {
        path += "/.";
    }
    return path + std::string(length - path.size() - end.size(), '/') + end;
}

TEST(FirmwarePath, MayHave255Characters) {
    const Workbench bench(sample_firmware());
    const std::string path = path_of_length(bench, 255);
    ASSERT_EQ(path.size(), 255U);
    const auto result = run(Conversion().arguments(path, bench.out_dir()));
    EXPECT_EQ(result.exit_status, 0) << result.out;
}

TEST(FirmwarePath, Of256CharactersEndsTheProgram) {
    const Workbench bench(sample_firmware());
    for (const std::size_t length : {256U, 257U, 1000U}) {
        SCOPED_TRACE(length);
        const std::string path = path_of_length(bench, length);
        ASSERT_EQ(path.size(), length);
        for (const std::string type : {"emmc", "spinand"}) {
            const Conversion conversion{.type = type};
            expect_run(run(conversion.arguments(path, bench.out_dir())), 1,
                       conversion.echo(path, bench.out_dir()).line("path of firmware is too long"));
        }
    }
    EXPECT_EQ(bench.output_names(), Names{});
}

// ---- output image ----

TEST(OutputImage, WhoseNameIsTakenByADirectoryCannotBeCreated) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("out_image.img"));
    for (const std::string type : {"emmc", "spinor"}) {
        const Conversion conversion{.type = type};
        expect_run(bench.convert(conversion), init_failed,
                   bench.echo(conversion)
                       .line("failed to create " + bench.out("out_image.img").string() + ",err=21"));
    }
}

TEST(OutputImage, BehindALinkToNowhereCannotBeCreated) {
    const Workbench bench(sample_firmware());
    fs::create_symlink("missing/image", bench.out("out_image.img"));
    const Conversion conversion;
    expect_run(
        bench.convert(conversion), init_failed,
        bench.echo(conversion).line("failed to create " + bench.out("out_image.img").string() + ",err=2"));
}

TEST(OutputImage, GetsNoSecondSlashBehindTheDirectory) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("out_image.img"));
    for (const std::string slashes : {"/", "//", "/./"}) {
        const std::string out = bench.out_dir().string() + slashes;
        expect_run(run(Conversion().arguments(bench.firmware(), out)), init_failed,
                   Conversion()
                       .echo(bench.firmware(), out)
                       .line("failed to create " + out + "out_image.img,err=21"));
    }
}

TEST(OutputImage, ReplacesAnEarlierOneWhole) {
    const Workbench bench(sample_firmware());
    const auto fresh = bench.convert({});
    ASSERT_EQ(fresh.exit_status, 0) << fresh.out;
    const Bytes image = bench.output("out_image.img");
    write_file(bench.out("out_image.img"), Bytes(image.size() + 12345, 0xEE));
    expect_run(bench.convert({}), 0, Transcript(fresh.out));
    expect_same_bytes(bench.output("out_image.img"), image, "out_image.img");
}

}  // namespace
