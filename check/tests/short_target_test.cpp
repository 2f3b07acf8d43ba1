// Targets that are so much too short that the check does not look for all that is missing. What comes after a
// long part has to be compared all the same.

#include "chip_bench.h"
#include "support/sparse_builder.h"

namespace {

using namespace check_test;

constexpr uint32_t kAfterRootfs = 0x200000;  // sectors: 1 GiB

SparseChunk of_fill(uint64_t mib) {
    return SparseChunk::fill(0x12345678, static_cast<uint32_t>(mib * 256));
}

SparseChunk of_zeros(uint64_t mib) {
    return SparseChunk::dont_care(static_cast<uint32_t>(mib * 256));
}

/// rootfs takes a page and the chunk, and after it comes an item of several erase blocks.
Firmware with_long_rootfs(const SparseChunk& chunk) {
    Firmware firmware = with_gpt();
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 7)), chunk};
    firmware.item("rootfs").data = image.build();
    firmware.items.push_back(partition_item("data", kAfterRootfs, 0x200, patterned(100000, 9)));
    return firmware;
}

std::string verdict_of(const Json& document, const std::string& part) {
    const Json found = part_of(document, part);
    return found.is_null() ? "none" : found.at("verdict").get<std::string>();
}

// ---- images ----

/// An image that ends in rootfs. Its firmware is packed anew with that chunk, which is not written anywhere.
class ShortImage : public CheckBench {
public:
    explicit ShortImage(const SparseChunk& chunk, uint64_t sectors = 0x2100) : CheckBench(kEmmc) {
        with_long_rootfs(chunk).write(firmware());
        Bytes image = output("out_image.img");
        image.resize(0x20C0 * kSector);  // where rootfs begins
        const Bytes page = patterned(4096, 7);
        image.insert(image.end(), page.begin(), page.end());
        image.resize(sectors * kSector);
        write_file(out("out_image.img"), image);
    }
};

TEST(ShortImages, PartAfterAnIgnoredOneIsMissing) {
    for (const SparseChunk& chunk : {of_zeros(300), of_fill(300)}) {
        const ShortImage bench(chunk);
        const Json document = bench.document({"--ignore=rootfs,gaps,gpt"});
        EXPECT_EQ(document.at("verdict"), "differs") << document.dump(1);
        EXPECT_EQ(verdict_of(document, "misc"), "same");
        EXPECT_EQ(verdict_of(document, "rootfs"), "ignored");
        EXPECT_EQ(verdict_of(document, "data"), "missing");
        EXPECT_EQ(part_of(document, "data").at("missing_bytes"), 0x200 * kSector);
    }
}

TEST(ShortImages, PartAfterAnIgnoredGapIsMissing) {
    const ShortImage bench(of_zeros(1), 0x4000);
    const Json document = bench.document({"--ignore=gaps,gpt"});
    EXPECT_EQ(verdict_of(document, "rootfs"), "same") << document.dump(1);
    EXPECT_EQ(verdict_of(document, "data"), "missing");
    EXPECT_EQ(document.at("verdict"), "differs");
}

TEST(ShortImages, OnlyAPartFarAfterTheEndIsMissing) {
    const ShortImage bench(of_zeros(300), 0x800);
    const Json document = bench.document({"--only=data"});
    EXPECT_EQ(document.at("verdict"), "differs") << document.dump(1);
    EXPECT_EQ(verdict_of(document, "data"), "missing");
}

TEST(ShortImages, OnlyAPartBeforeTheEndIsSame) {
    const ShortImage bench(of_fill(300));
    const Json document = bench.document({"--only=misc"});
    EXPECT_EQ(document.at("verdict"), "same") << document.dump(1);
    EXPECT_EQ(verdict_of(document, "misc"), "same");
}

TEST(ShortImages, AreGivenUpInAPartThatMatters) {
    const ShortImage bench(of_fill(300));
    const Json document = bench.document({"--ignore=gpt"});
    EXPECT_EQ(document.at("verdict"), "differs");
    EXPECT_GE(part_of(document, "rootfs").at("missing_bytes"), 256 * 1024 * 1024);
    EXPECT_EQ(verdict_of(document, "data"), "none");
}

TEST(ShortImages, HaveNoRestWhenTheyAreGivenUp) {
    const ShortImage bench(of_fill(300));
    for (const std::string option : {"--ignore=gpt", "--strict"}) {
        const std::string image = bench.out("out_image.img");
        const Json document =
            parsed(run_check_program(bench.arguments_without_target({option, "--json", image})));
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(document.at("rest"), nullptr);
        const RunResult run = run_check_program(bench.arguments_without_target({option, image}));
        EXPECT_EQ(run.exit_status, kDiffers);
        EXPECT_EQ(run.out.find("rest of the image"), std::string::npos) << run.out;
    }
}

/// Two items at one place, and after them one of that length.
Firmware with_overlap_before(uint32_t mib) {
    Firmware firmware = with_gpt();
    firmware.items.push_back(partition_item("first", 0x8000, 0x200, patterned(100000, 1)));
    firmware.items.push_back(partition_item("second", 0x8010, 0x20, patterned(16384, 2)));
    SparseImage image;
    image.chunks = {of_fill(mib)};
    firmware.items.push_back(partition_item("long", 0x9000, mib * 2048, image.build()));
    return firmware;
}

TEST(ShortImages, ThatAreGivenUpKnowWhatIsWrittenAgain) {
    const CheckBench bench(kEmmc, with_overlap_before(1));
    with_overlap_before(300).write(bench.firmware());
    const Json document = bench.document({"--ignore=gpt"});
    EXPECT_EQ(document.at("verdict"), "differs") << document.dump(1);
    for (const std::string part : {"boot", "first", "second"})
        EXPECT_EQ(verdict_of(document, part), "same") << part;
    EXPECT_EQ(verdict_of(document, "long"), "differs");
    EXPECT_EQ(part_of(document, "long").at("missing_bytes"), 256 * kMib);
    bench.damage("out_image.img", 0x8000 * kSector + 5);
    const Json damaged = bench.document({"--ignore=gpt"});
    EXPECT_EQ(part_of(damaged, "first").at("differing_bytes"), 1);
    EXPECT_EQ(verdict_of(damaged, "second"), "same");
}

TEST(ShortImages, OfTerabytesDifferInSeconds) {
    for (const SparseChunk& chunk : {of_zeros(uint64_t{1024} * 1024), of_fill(uint64_t{1024} * 1024)}) {
        const ShortImage bench(chunk);
        for (const std::string option : {"--only=data", "--only=misc", "--ignore=rootfs,gaps,gpt"}) {
            const RunResult run = bench.check({option});
            EXPECT_FALSE(run.timed_out) << option;
            EXPECT_EQ(run.exit_status, kDiffers) << option << "\n" << run.out;
            EXPECT_NE(run.out.find("the parts after it were not compared\n"), std::string::npos) << run.out;
        }
    }
}

// ---- directories ----

TEST(ShortFiles, AreIgnoredWithoutThoseAfterThem) {
    for (const Conversion& conversion : {kSpiNand, kSlcNand}) {
        const CheckBench bench(conversion, with_long_rootfs(of_zeros(1)));
        with_long_rootfs(of_zeros(300)).write(bench.firmware());
        EXPECT_EQ(bench.check().exit_status, kDiffers);
        EXPECT_EQ(bench.check({"--ignore=rootfs"}).exit_status, kSame);
        bench.damage("data.img", fs::file_size(bench.out("data.img")) - 1);
        const Json document = bench.document({"--ignore=rootfs", "--no-second-opinion"});
        EXPECT_EQ(document.at("verdict"), "differs");
        EXPECT_EQ(verdict_of(document, "data"), "differs");
    }
}

TEST(ShortFiles, KeepTheSecondOpinionOnWhatIsThere) {
    const CheckBench bench(kSlcNand, chip_firmware());
    const std::string rootfs = bench.out("rootfs.img");
    bench.damage("rootfs.img", 3000, 4);
    const Json whole = bench.document();
    ASSERT_EQ(whole.at("ecc").at("wrong_units"), 1) << whole.dump(1);
    // A block and a page: whole pages are left, and more than is read at once is missing.
    fs::resize_file(rootfs, fs::file_size(rootfs) - 64 * 2112 - 2112);
    const Json cut = bench.document();
    EXPECT_EQ(cut.at("ecc").at("wrong_units"), 1);
    EXPECT_EQ(cut.at("ecc").at("units"), whole.at("ecc").at("units").get<uint64_t>() - 2 * 65);
    EXPECT_EQ(cut.at("second_opinion").at("findings"), whole.at("second_opinion").at("findings"));
}

/// After rootfs comes an item with this name, in a hole of the firmware.
Firmware with_long_item(const std::string& name, uint64_t mib) {
    Firmware firmware = with_gpt();
    Item item = partition_item(name, kAfterRootfs, static_cast<uint32_t>(mib * 2048), patterned(4096, 9));
    item.size = mib * kMib;
    item.reserve_size = true;
    firmware.items.push_back(item);
    firmware.items.push_back(partition_item("last", 0x400000, 0x200, patterned(100000, 3)));
    return firmware;
}

TEST(ShortFiles, HaveAnyBytesInTheirNames) {
    for (const std::string name : {"plain", "x\ny", "e\033[1mq", "a\033q"}) {
        SCOPED_TRACE(testing::PrintToString(name));
        const CheckBench bench(kSpiNand, with_long_item(name, 1));
        with_long_item(name, 300).write(bench.firmware());
        const Json document = bench.document();
        EXPECT_EQ(document.at("verdict"), "differs") << document.at("error");
        EXPECT_EQ(verdict_of(document, "last"), "same");
        EXPECT_EQ(bench.check({"--ignore=" + name}).exit_status, kSame);
        bench.damage("last.img", 5);
        EXPECT_EQ(bench.check({"--ignore=" + name}).exit_status, kDiffers);
    }
}

TEST(ShortFiles, HaveNoBytesAfterTheEnd) {
    const CheckBench bench(kSpiNand, with_long_item("long", 1));
    with_long_item("long", 300).write(bench.firmware());
    const Json part = part_of(bench.document(), "long");
    EXPECT_EQ(part.at("verdict"), "differs");
    EXPECT_EQ(part.at("missing_bytes"), 256 * kMib);
    EXPECT_EQ(part.at("surplus_bytes"), 0);
    EXPECT_EQ(bench.check().out.find("longer by"), std::string::npos);
}

// ---- dumps ----

class ShortDumps : public testing::TestWithParam<Conversion> {
protected:
    /// All files but that of rootfs, which then has 300 MiB.
    ShortDumps() {
        std::size_t block = 0;
        for (const std::string file : {"idblock.img", "gpt.img", "boot.img", "misc.img", "data.img"}) {
            m_blocks = m_bench.place(file, block);
            block = m_blocks.back() + 1;
        }
        pack(with_long_rootfs(of_zeros(300)));
    }
    void pack(const Firmware& firmware) const { firmware.write(m_bench.firmware()); }

    ChipBench m_bench{GetParam(), with_long_rootfs(of_zeros(1))};
    std::vector<uint64_t> m_blocks;  // of data.img
};

TEST_P(ShortDumps, AreSameWhereTheFileIsIgnored) {
    EXPECT_EQ(m_bench.run().exit_status, kDiffers);
    const Json document = parsed(m_bench.run({"--ignore=rootfs", "--json"}));
    EXPECT_EQ(document.at("verdict"), "same") << document.dump(1);
    EXPECT_EQ(part_of(document, "data").at("bytes"), m_bench.output("data.img").size());
}

TEST_P(ShortDumps, FindDamageAfterAnIgnoredFile) {
    ASSERT_GT(m_blocks.size(), 2U);
    m_bench.ruin(m_blocks.back());
    const Json document = parsed(m_bench.run({"--ignore=rootfs", "--json"}));
    EXPECT_EQ(document.at("verdict"), "differs") << document.dump(1);
    EXPECT_EQ(verdict_of(document, "data"), "differs");
}

TEST_P(ShortDumps, AreTroubleWhereALaterItemIsBroken) {
    Firmware firmware = with_long_rootfs(of_zeros(300));
    SparseImage broken;
    broken.chunks = {SparseChunk::raw(patterned(8192, 1))};
    broken.chunks[0].total_size = 100'000'000;  // more than the firmware has
    firmware.items.insert(firmware.items.end() - 1, partition_item("broken", 0x1F0000, 0x40, broken.build()));
    pack(firmware);
    const RunResult run = m_bench.run({"--ignore=rootfs,broken,data"});
    EXPECT_EQ(run.exit_status, kTrouble) << run.out;
    EXPECT_EQ(last_line(run.out), "trouble: failed to get raw chunk data; failed to write broken,ret=-5");
}

INSTANTIATE_TEST_SUITE_P(Types, ShortDumps, testing::Values(kSmallSlc, kSmallSpiNand),
                         [](const auto& made) { return made.param.type; });

}  // namespace
