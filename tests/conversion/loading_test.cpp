// Runs that end before anything is converted: a geometry that no chip has, and a firmware that cannot be
// loaded.

#include "support/workbench.h"

#include <functional>

namespace {

using namespace test_support;

// ---- geometry: sizes are kept in bytes and in sectors of 32 bits ----

TEST(GeometryTest, ThatWrapsToZeroIsRefused) {
    const Workbench bench(sample_firmware());
    const auto expect_refused = [&](const std::string& block_kb, const std::string& page_kb,
                                    const std::string& message) {
        for (const std::string& type : kStorageTypes) {
            bench.expect({type, block_kb, page_kb, "64"}, kInitFailed, line(message));
            EXPECT_EQ(bench.output_names(), Names{});
        }
    };
    for (const std::string page_kb : {"4194304", "8388608", "-4194304", "-2147483648", "2143289344"})
        expect_refused("512", page_kb, "page size is out of range");
    for (const std::string block_kb : {"4194304", "-2147483648"})
        expect_refused(block_kb, "2", "block size is out of range");
}

TEST(GeometryTest, ThatWrapsToAKilobyteIsTaken) {
    const Firmware firmware = sample_firmware();
    const Workbench bench(firmware);
    const ExpectedRun expected = expected_run(firmware, {"spinand", "1", "2"}, bench.out_dir());
    bench.expect({"spinand", "4194305", "2"}, expected);
}

// ---- firmware ----

struct BadFirmware {
    std::string situation;
    // Bends the description, of which the bytes are then built, and the bytes.
    std::function<void(Firmware&, Bytes&)> bend;
};

class LoadingTest : public testing::TestWithParam<BadFirmware> {};

TEST_P(LoadingTest, FailsWithOneLine) {
    Firmware firmware = sample_firmware();
    Bytes unused;
    GetParam().bend(firmware, unused);
    Bytes bytes = firmware.build();
    GetParam().bend(firmware, bytes);
    const Workbench bench;
    bench.pack(bytes);
    for (const std::string& type : kStorageTypes) {
        bench.expect({.type = type, .spare_bytes = "64"}, kInitFailed, line("failed to load firmware,ret=1"));
        EXPECT_EQ(bench.output_names(), Names{});
    }
}

// The container is the last part of the file, which ends one byte before it does.
void cut_container(Firmware& firmware, Bytes& bytes) {
    if (bytes.empty())
        return;
    put32_at(bytes, head_field::kBootOffset, static_cast<uint32_t>(bytes.size()));
    put_bytes(bytes, firmware.boot.build());
    bytes.pop_back();
}

const std::vector<BadFirmware> kBadFirmware{
    {"EmptyFile", [](Firmware&, Bytes& bytes) { bytes.clear(); }},
    {"TagAlone", [](Firmware&, Bytes& bytes) { bytes = to_bytes("QZFW"); }},
    {"WrongTag", [](Firmware& firmware, Bytes&) { firmware.tag = "qZFW"; }},
    {"ContainerWithoutData", [](Firmware& firmware, Bytes&) { firmware.boot_size = 0; }},
    {"ContainerOfThreeBytes", [](Firmware& firmware, Bytes&) { firmware.boot_size = 3; }},
    {"ContainerBeyondTheFile", [](Firmware& firmware, Bytes&) { firmware.boot_size = 0xFFFFFFFF; }},
    {"ContainerCutByTheFile", cut_container},
    {"ContainerCrc", [](Firmware& firmware, Bytes&) { firmware.boot.crc = 0x12345678; }},
    {"ContainerTag", [](Firmware& firmware, Bytes&) { firmware.boot.tag = "B00T"; }},
    {"LoaderMergeVersion",
     [](Firmware& firmware, Bytes&) {
         firmware.boot.tag = "LDR ";
         firmware.boot.merge_version = 0x1000001;
     }},
};

INSTANTIATE_TEST_SUITE_P(Firmware, LoadingTest, testing::ValuesIn(kBadFirmware),
                         [](const testing::TestParamInfo<BadFirmware>& tested) {
                             return tested.param.situation;
                         });

TEST(LoaderContainer, IsTakenUpToItsLargestMergeVersion) {
    Firmware firmware = sample_firmware();
    firmware.boot.tag = "LDR ";
    firmware.boot.merge_version = 0x1000000;
    expect_converted(firmware, {});
}

// ".bin" anywhere in the path, in any case, asks for a bare container: a whole firmware is not one.
TEST(SingleMode, IsChosenByThePath) {
    const BootContainer boot = sample_firmware().boot;
    for (const std::string name : {"loader.bin", "loader.BIN", "x.bInary.img", "x.bin.d/fw.img"}) {
        SCOPED_TRACE(name);
        Workbench single;
        fs::create_directory(single.directory() / "x.bin.d");
        single.name_firmware(name);
        single.pack(boot.build());
        single.expect({}, expected_boot_run(boot, {}));
        single.pack(sample_firmware());
        single.expect({}, kInitFailed, line("failed to load firmware,ret=1"));
    }
}

TEST(EarlierImage, StaysWhenNothingIsLoaded) {
    const Workbench bench;
    bench.pack(to_bytes("no firmware"));
    write_file(bench.out("out_image.img"), to_bytes("an earlier image"));
    bench.expect({}, kInitFailed, line("failed to load firmware,ret=1"));
    EXPECT_EQ(to_text(bench.output("out_image.img")), "an earlier image");
}

TEST(OutputDirectory, GetsNoSecondSlash) {
    const Workbench bench(sample_firmware());
    fs::create_directory(bench.out("out_image.img"));
    for (const std::string slashes : {"/", "//", "/./"}) {
        const std::string out = bench.out_dir().string() + slashes;
        EXPECT_EQ(output_of([&] { EXPECT_EQ(convert_by_call({}, bench.firmware(), out), kInitFailed); }),
                  not_created(out + "out_image.img", EISDIR));
    }
}

}  // namespace
