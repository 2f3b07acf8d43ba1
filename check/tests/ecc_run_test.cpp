#include "check/chip/ecc_run.h"

#include "check_bench.h"
#include "dump_maker.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace test_support;

/// A file with a dump, and the options to judge it.
class EccBench {
public:
    explicit EccBench(uint32_t page_kb = 2, uint32_t spare = 64, uint64_t pages_of_block = 64)
        : dump(page_kb, spare, pages_of_block) {
        StorageSettings& settings = options.conversion.settings;
        options.conversion.type = find_type("slc");
        settings.block_size = static_cast<uint32_t>(pages_of_block * page_kb);
        settings.page_size = page_kb;
        settings.oob_size = spare;
        options.target = path().string();
    }

    fs::path path() const { return m_directory / "dump.bin"; }
    EccResult judge() {
        dump.write(path());
        return run_ecc(options, {});
    }

    DumpMaker dump;
    CheckOptions options;

private:
    static const StorageType* find_type(const std::string& word) {
        for (const StorageType& type : storage_types())
            if (type.word == word)
                return &type;
        return nullptr;
    }

    TemporaryDirectory m_directory;
};

std::string text_of(const UnitPlace& place) {
    return std::to_string(place.block) + "/" + std::to_string(place.page) + "/" + std::to_string(place.unit);
}

std::string diagnosis_of(const EccResult& result) {
    EXPECT_EQ(result.diagnoses.size(), 1u);
    EXPECT_FALSE(result.judged);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.error, std::nullopt);
    return result.diagnoses.empty() ? "" : result.diagnoses[0].code + ": " + result.diagnoses[0].text;
}

constexpr const char* kNotGiven = "not pages of 2 KB with 64 bytes of spare area";

TEST(EccRun, OfACleanDump) {
    EccBench bench;
    bench.dump.add_file(2);
    bench.dump.add_file(1);
    bench.dump.add_erased(3);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_TRUE(result.judged);
    EXPECT_EQ(result.target_kind, "dump");
    EXPECT_EQ(result.units.units, 6u * 128);
    EXPECT_EQ(result.units.flips[0], 6u * 128);
    EXPECT_EQ(result.units.erased, 3u * 128);
    EXPECT_EQ(result.units.beyond, 0u);
    EXPECT_EQ(result.pages, 6u * 64);
    EXPECT_EQ(result.blocks, 6u);
    EXPECT_EQ(result.pages_of_last, 0u);
    EXPECT_EQ(result.erased_blocks, 3u);
    EXPECT_FALSE(result.worst);
    EXPECT_EQ(result.indexes.pages, 3u * 64);
    EXPECT_EQ(result.indexes.runs, 2u);
    EXPECT_EQ(result.indexes.step, 4u);
    EXPECT_EQ(result.indexes.out_of_order, 0u);
    EXPECT_EQ(result.flipped_blocks_found, 0u);
    EXPECT_EQ(result.warnings, std::vector<std::string>{});
}

TEST(EccRun, FilesOfAConversion) {
    const check_test::CheckBench bench(check_test::kSlcNand);
    EccBench ecc;
    for (const auto& [name, bytes] : bench.outputs())
        ecc.dump.add_bytes(bytes);
    const EccResult result = ecc.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.units.flips[0], result.units.units);
    EXPECT_EQ(result.pages, ecc.dump.bytes().size() / 2112);
    EXPECT_EQ(result.indexes.runs, bench.outputs().size());
    EXPECT_EQ(result.indexes.out_of_order, 0u);
}

TEST(EccRun, FlipsAreCountedWhereTheyAre) {
    EccBench bench;
    bench.dump.add_file(4);
    bench.dump.flip(1, 10, 1, 2);
    bench.dump.flip(1, 11, 0, 16);  // the index is corrected before it is judged
    bench.dump.flip(2, 63, 1, 16);
    bench.dump.flip(3, 0, 0, 1, 8 * 1024 + 3);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.units.flips[0], 4u * 128 - 4);
    EXPECT_EQ(result.units.flips[1], 1u);
    EXPECT_EQ(result.units.flips[2], 1u);
    EXPECT_EQ(result.units.flips[16], 2u);
    EXPECT_EQ(result.units.flipped_bits(), 35u);
    ASSERT_TRUE(result.worst);
    EXPECT_EQ(text_of(*result.worst), "1/11/0");
    EXPECT_EQ(result.indexes.out_of_order, 0u);
    EXPECT_EQ(result.indexes.runs, 1u);
    ASSERT_EQ(result.flipped_blocks.size(), 3u);
    EXPECT_EQ(result.flipped_blocks[0].block, 1u);
    EXPECT_EQ(result.flipped_blocks[0].flipped_bits, 18u);
    EXPECT_EQ(result.flipped_blocks[0].worst, 16u);
    EXPECT_EQ(result.flipped_blocks[0].beyond, 0u);
    EXPECT_EQ(result.flipped_blocks[2].block, 3u);
    EXPECT_EQ(result.flipped_blocks[2].worst, 1u);
    EXPECT_EQ(result.warnings, std::vector<std::string>{"2 units have more than 12 flipped bits"});
}

TEST(EccRun, DirectionOfFlips) {
    EccBench bench;
    bench.dump.add_file(1);
    uint8_t& byte = bench.dump.bytes()[bench.dump.unit_at(0, 5, 1) + 1024];  // 0xFF
    byte = 0xFC;
    bench.dump.add_page(0x40);  // whose index has zeros
    bench.dump.bytes()[bench.dump.unit_at(1, 0, 0) + 1027] = 0x07;
    const EccResult result = bench.judge();
    EXPECT_EQ(result.units.cleared, 2u);
    EXPECT_EQ(result.units.set, 3u);
}

TEST(EccRun, UnitsBeyondDiffer) {
    EccBench bench;
    bench.dump.add_file(2);
    bench.dump.flip(0, 3, 0, 17);
    bench.dump.flip(1, 4, 1, 40);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.units.beyond, 2u);
    EXPECT_EQ(result.units.flips[0], 254u);
    EXPECT_EQ(result.units.flipped_bits(), 0u);
    ASSERT_EQ(result.beyond.size(), 2u);
    EXPECT_EQ(text_of(result.beyond[0]), "0/3/0");
    EXPECT_EQ(text_of(result.beyond[1]), "1/4/1");
    EXPECT_FALSE(result.worst);
    EXPECT_EQ(result.indexes.pages, 127u);
    EXPECT_EQ(result.indexes.out_of_order, 0u);
    ASSERT_EQ(result.flipped_blocks.size(), 2u);
    EXPECT_EQ(result.flipped_blocks[1].beyond, 1u);
}

TEST(EccRun, FewPlacesOfUnitsBeyondAreKept) {
    EccBench bench;
    bench.dump.add_file(2);
    for (uint64_t page = 0; page < 20; ++page)
        bench.dump.flip(1, page, 1, 30);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.units.beyond, 20u);
    EXPECT_EQ(result.beyond.size(), kMostListedUnits);
}

TEST(EccRun, UnitsBeyondAreNamedByBlock) {
    EccBench bench;
    bench.dump.add_file(13);
    for (uint64_t page = 0; page < 64; ++page) {
        bench.dump.flip(1, page, 0, 30);
        bench.dump.flip(1, page, 1, 30);
    }
    for (uint64_t block = 2; block < 13; ++block)
        bench.dump.flip(block, 63, 1, 30);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.lost_blocks, 12u);
    ASSERT_EQ(result.lost.size(), kMostLostBlocks);
    EXPECT_EQ(text_of(result.lost[0].first), "1/0/0");
    EXPECT_EQ(result.lost[0].lost, 128u);
    EXPECT_EQ(result.lost[0].units, 128u);
    EXPECT_EQ(text_of(result.lost[1].first), "2/63/1");
    EXPECT_EQ(result.lost[1].lost, 1u);
    EXPECT_EQ(text_of(result.lost[9].first), "10/63/1");
}

TEST(EccRun, KnownBadBlocksAreNotJudged) {
    EccBench bench;
    bench.dump.add_file(2);
    bench.dump.add_bytes(patterned(bench.dump.block(), 4));
    bench.dump.add_file(1);
    bench.dump.add_bytes(patterned(2 * bench.dump.block(), 5));
    bench.options.chip.bad_blocks = {2, 4, 5, 6, 4294967295};
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.passed_blocks, 3u);
    EXPECT_EQ(result.blocks, 6u);
    EXPECT_EQ(result.pages, 3u * 64);
    EXPECT_EQ(result.units.units, 3u * 128);
    EXPECT_EQ(result.units.beyond, 0u);
    EXPECT_EQ(result.indexes.runs, 2u);
    EXPECT_EQ(result.indexes.out_of_order, 0u);
}

TEST(EccRun, PlacesAfterAKnownBadBlock) {
    EccBench bench;
    bench.dump.add_bytes(patterned(bench.dump.block(), 4));
    bench.dump.add_file(2);
    bench.dump.flip(2, 7, 1, 3);
    bench.options.chip.bad_blocks = {0};
    const EccResult result = bench.judge();
    ASSERT_TRUE(result.worst);
    EXPECT_EQ(text_of(*result.worst), "2/7/1");
    EXPECT_EQ(result.flipped_blocks[0].block, 2u);
}

TEST(EccRun, MaxFlipsDecides) {
    EccBench bench;
    bench.dump.add_file(1);
    bench.dump.flip(0, 1, 0, 5);
    bench.dump.flip(0, 2, 0, 6);
    bench.options.chip.max_flips = 6;
    EXPECT_EQ(bench.judge().verdict, Verdict::kSame);
    bench.options.chip.max_flips = 5;
    EXPECT_EQ(bench.judge().verdict, Verdict::kDiffers);
    EXPECT_EQ(bench.judge().over_limit(), 1u);
    bench.options.chip.max_flips = 0;
    EXPECT_EQ(bench.judge().over_limit(), 2u);
}

TEST(EccRun, WarnFlipsWarnAndStrictMakesThemCount) {
    EccBench bench;
    bench.dump.add_file(1);
    bench.dump.flip(0, 1, 0, 5);
    bench.options.chip.warn_flips = 5;
    bench.options.strict = true;
    EXPECT_EQ(bench.judge().verdict, Verdict::kSame);
    bench.options.chip.warn_flips = 4;
    const EccResult result = bench.judge();
    EXPECT_EQ(result.warnings, std::vector<std::string>{"1 unit has more than 4 flipped bits"});
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    bench.options.strict = false;
    EXPECT_EQ(bench.judge().verdict, Verdict::kSame);
}

TEST(EccRun, ErasedUnitsWithFlips) {
    EccBench bench;
    bench.dump.add_file(1);
    bench.dump.add_erased(3);
    bench.dump.flip(1, 0, 0, 1);
    bench.dump.flip(2, 0, 0, 17);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.units.erased, 3u * 128 - 1);
    EXPECT_EQ(result.units.erased_right, 3u * 128 - 1);
    EXPECT_EQ(result.units.erased_flips, 1u);
    EXPECT_EQ(result.units.cleared, 1u);
    EXPECT_EQ(result.units.beyond, 1u);
    EXPECT_EQ(result.erased_blocks, 2u);
    EXPECT_EQ(result.indexes.pages, 64u);
}

TEST(EccRun, OfAnErasedChip) {
    EccBench bench;
    bench.dump.add_erased(10);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.erased_blocks, 10u);
    EXPECT_EQ(result.indexes.pages, 0u);
}

TEST(EccRun, BytesAfterTheUnitsAreCounted) {
    EccBench bench(2, 128);
    bench.dump.add_file(1);
    bench.dump.add_erased(1);
    bench.dump.bytes()[bench.dump.unit_at(0, 7, 2)] = 0xFE;
    bench.dump.bytes()[bench.dump.unit_at(0, 7, 2) + 63] = 0;
    bench.dump.bytes()[bench.dump.unit_at(1, 63, 2) + 63] = 0;
    const EccResult result = bench.judge();
    EXPECT_EQ(result.tail_bytes, 3u);
    EXPECT_EQ(result.tail_pages, 2u);
    EXPECT_EQ(result.units.flips[0], 256u);
    EXPECT_EQ(result.verdict, Verdict::kSame);
}

TEST(EccRun, HeaderIsLeftOut) {
    EccBench bench;
    bench.dump.add_bytes(patterned(1000, 1));
    DumpMaker pages;
    pages.add_file(2);
    bench.dump.add_bytes(pages.bytes());
    bench.options.chip.skip = 1000;
    const EccResult result = bench.judge();
    EXPECT_EQ(result.verdict, Verdict::kSame);
    EXPECT_EQ(result.units.flips[0], 256u);
}

TEST(EccRun, EndInsideAPageIsAWarning) {
    EccBench bench;
    bench.dump.add_file(1);
    bench.dump.add_bytes(Bytes(100, 0));
    const EccResult result = bench.judge();
    EXPECT_EQ(result.warnings,
              std::vector<std::string>{"the dump ends inside a page: its last 100 bytes were not judged"});
    EXPECT_EQ(result.units.units, 128u);
    EXPECT_EQ(result.verdict, Verdict::kSame);
    bench.options.strict = true;
    EXPECT_EQ(bench.judge().verdict, Verdict::kDiffers);
}

TEST(EccRun, EndInsideAnEraseBlockIsAWarning) {
    EccBench bench;
    bench.dump.add_pages(67);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.warnings, std::vector<std::string>{
                                   "the dump ends inside an erase block: its last block has 3 of 64 pages"});
    EXPECT_EQ(result.blocks, 2u);
    EXPECT_EQ(result.pages_of_last, 3u);
    EXPECT_EQ(result.pages, 67u);
}

TEST(EccRun, PartOfABlockIsNotAnErasedBlock) {
    EccBench bench;
    bench.dump.add_bytes(Bytes(65 * 2112, 0xFF));
    EXPECT_EQ(bench.judge().erased_blocks, 1u);
}

TEST(EccRun, LargestPages) {
    EccBench bench(16, 2208, 4);
    bench.dump.add_file(5);
    bench.dump.flip(4, 3, 15, 3);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.units.units, 320u);
    EXPECT_EQ(result.units.flips[3], 1u);
    ASSERT_TRUE(result.worst);
    EXPECT_EQ(text_of(*result.worst), "4/3/15");
}

TEST(EccRun, PagesLargerThanAPiece) {
    EccBench bench(512, 32 * 512, 2);
    bench.dump.add_file(2);
    bench.dump.flip(1, 1, 511, 1);
    const EccResult result = bench.judge();
    EXPECT_EQ(result.units.units, 4u * 512);
    ASSERT_TRUE(result.worst);
    EXPECT_EQ(text_of(*result.worst), "1/1/511");
}

TEST(EccRun, ProgressEndsWithAllPages) {
    EccBench bench;
    bench.dump.add_file(5);
    bench.dump.write(bench.path());
    uint64_t last = 0;
    const CheckProgress progress = [&](uint64_t done, uint64_t total) {
        EXPECT_GT(done, last);
        EXPECT_EQ(total, 5u * 64 * 2112);
        last = done;
    };
    run_ecc(bench.options, progress);
    EXPECT_EQ(last, 5u * 64 * 2112);
}

// ---- the geometry ----

TEST(EccGeometry, OtherSpareArea) {
    EccBench bench;
    DumpMaker other(2, 128);
    other.add_file(3);
    bench.dump.add_bytes(other.bytes());
    EXPECT_EQ(diagnosis_of(bench.judge()),
              std::string("page-or-spare-size: ") + kNotGiven +
                  "; it looks like pages of 2 KB with 128 bytes of spare area (-p 2 -s 128)");
}

TEST(EccGeometry, LargerPagesWhoseUnitsLieAlike) {
    EccBench bench;
    DumpMaker other(4, 128);
    other.add_file(3);
    bench.dump.add_bytes(other.bytes());
    EXPECT_EQ(diagnosis_of(bench.judge()),
              std::string("page-or-spare-size: ") + kNotGiven +
                  "; it looks like pages of 4 KB with 128 bytes of spare area (-p 4 -s 128)");
}

TEST(EccGeometry, SmallerPagesWhoseUnitsLieAlike) {
    EccBench bench(4, 128);
    DumpMaker other(2, 64);
    other.add_file(3);
    bench.dump.add_bytes(other.bytes());
    EXPECT_EQ(diagnosis_of(bench.judge()),
              "page-or-spare-size: not pages of 4 KB with 128 bytes of spare area; it looks like pages of 2 "
              "KB with 64 bytes of spare area (-p 2 -s 64)");
}

TEST(EccGeometry, HeaderBeforeTheFirstPage) {
    for (const std::size_t header : {512u, 65536u, 1001u}) {
        EccBench bench;
        bench.dump.add_bytes(patterned(header, 3));
        DumpMaker pages;
        pages.add_file(3);
        bench.dump.add_bytes(pages.bytes());
        const std::string bytes = std::to_string(header);
        EXPECT_EQ(diagnosis_of(bench.judge()), std::string("offset: ") + kNotGiven +
                                                   "; it looks like a header of " + bytes +
                                                   " bytes (--skip=" + bytes + ")");
    }
}

TEST(EccGeometry, SkipThatIsNotNeeded) {
    EccBench bench;
    bench.dump.add_file(3);
    bench.options.chip.skip = 512;
    EXPECT_EQ(diagnosis_of(bench.judge()), std::string("offset: ") + kNotGiven +
                                               " after 512 bytes; it looks like no header (without --skip)");
}

TEST(EccGeometry, ExchangedBytes) {
    EccBench bench;
    bench.dump.add_file(3);
    Bytes& bytes = bench.dump.bytes();
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        std::swap(bytes[i], bytes[i + 1]);
    EXPECT_EQ(diagnosis_of(bench.judge()), std::string("byte-swapped: ") + kNotGiven +
                                               "; it looks like 16-bit words with exchanged bytes");
}

TEST(EccGeometry, SeveralThingsAtOnce) {
    EccBench bench;
    DumpMaker other(8, 448);
    other.add_file(1);
    Bytes bytes = patterned(256, 9) + other.bytes();
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        std::swap(bytes[i], bytes[i + 1]);
    bench.dump.add_bytes(bytes);
    EXPECT_EQ(diagnosis_of(bench.judge()),
              std::string("byte-swapped: ") + kNotGiven +
                  "; it looks like pages of 8 KB with 448 bytes of spare area (-p 8 -s 448), a header of 256 "
                  "bytes (--skip=256) and 16-bit words with exchanged bytes");
}

TEST(EccGeometry, DataWithoutSpareAreas) {
    EccBench bench;
    bench.dump.add_bytes(patterned(std::size_t{3} * 64 * 2048, 4));
    EXPECT_EQ(diagnosis_of(bench.judge()), std::string("no-spare: ") + kNotGiven +
                                               "; its length is that of 3 erase blocks without spare areas");
}

TEST(EccGeometry, Garbage) {
    EccBench bench;
    bench.dump.add_bytes(patterned(std::size_t{3} * 64 * 2112, 4));
    EXPECT_EQ(diagnosis_of(bench.judge()), std::string("no-parity: ") + kNotGiven + ", and no usual ones");
}

TEST(EccGeometry, GarbageInAFewPagesIsJudged) {
    EccBench bench;
    bench.dump.add_bytes(patterned(std::size_t{5} * 2112, 4));
    const EccResult result = bench.judge();
    EXPECT_TRUE(result.judged);
    EXPECT_EQ(result.units.beyond, 10u);
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
}

TEST(EccGeometry, FirstBlocksOfGarbageAreDamage) {
    EccBench bench;
    bench.dump.add_bytes(patterned(2 * bench.dump.block(), 4));
    bench.dump.add_file(3);
    const EccResult result = bench.judge();
    EXPECT_TRUE(result.judged);
    EXPECT_EQ(result.units.beyond, 256u);
    EXPECT_EQ(result.units.flips[0], 384u);
}

TEST(EccGeometry, WrittenPagesFarInTheDumpAreFound) {
    EccBench bench;
    DumpMaker other(2, 128);
    other.add_erased(40);
    other.add_file(6);
    bench.dump.add_bytes(other.bytes());
    EXPECT_EQ(diagnosis_of(bench.judge()).substr(0, 19), "page-or-spare-size:");
}

TEST(EccGeometry, OneWrittenBlockBetweenErasedOnes) {
    EccBench bench;
    DumpMaker other(2, 128);
    other.add_erased(2);  // of 32 blocks, so that none of the 16 sections begins in the written one
    other.add_file(1);
    other.add_erased(29);
    bench.dump.add_bytes(other.bytes());
    EXPECT_EQ(diagnosis_of(bench.judge()).substr(0, 19), "page-or-spare-size:");
}

TEST(EccGeometry, UnitsWithoutAnIndexAreJudged) {
    EccBench bench;
    for (int i = 0; i < 128; ++i)
        bench.dump.add_page(0xFFFFFFFF);
    const EccResult result = bench.judge();
    EXPECT_TRUE(result.judged);
    EXPECT_EQ(result.units.flips[0], 256u);
    EXPECT_EQ(result.indexes.out_of_order, 128u);
}

// ---- trouble ----

std::string trouble_of(const CheckOptions& options) {
    const EccResult result = run_ecc(options, {});
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_EQ(result.status(), kStatusTrouble);
    return result.error.value_or("");
}

TEST(EccTrouble, DumpThatIsNotThere) {
    EccBench bench;
    EXPECT_EQ(trouble_of(bench.options),
              bench.path().string() + " failed to open: No such file or directory");
}

TEST(EccTrouble, Directory) {
    EccBench bench;
    bench.options.target = bench.path().parent_path();
    EXPECT_EQ(trouble_of(bench.options), bench.options.target + " failed to open: Is a directory");
}

TEST(EccTrouble, CharacterDevice) {
    EccBench bench;
    bench.options.target = "/dev/null";
    EXPECT_EQ(trouble_of(bench.options), "/dev/null is not a file or a block device");
}

TEST(EccTrouble, LessThanAPage) {
    EccBench bench;
    bench.dump.add_bytes(Bytes(2111, 0xFF));
    bench.dump.write(bench.path());
    EXPECT_EQ(trouble_of(bench.options), "the dump has 2111 bytes, which is less than a page of 2112");
    bench.options.chip.skip = 2110;
    EXPECT_EQ(trouble_of(bench.options),
              "the dump has 1 byte after its header, which is less than a page of 2112");
    bench.options.chip.skip = UINT64_MAX;
    EXPECT_EQ(trouble_of(bench.options),
              "the dump has 0 bytes after its header, which is less than a page of 2112");
}

TEST(EccTrouble, GeometryThatCannotBe) {
    EccBench bench;
    StorageSettings& settings = bench.options.conversion.settings;
    settings.oob_size = 63;
    EXPECT_EQ(trouble_of(bench.options), "size of oob is not enough");
    settings.oob_size = UINT32_MAX;
    EXPECT_EQ(trouble_of(bench.options), "pages of more than 1.0 MiB are not judged");
    settings.page_size = 0;
    EXPECT_EQ(trouble_of(bench.options), "pages of 0 KB cannot be");
    bench.options.conversion.type = nullptr;
    EXPECT_EQ(trouble_of(bench.options), "only slc has parity that can be judged; give -t slc");
}

TEST(EccTrouble, DumpThatGetsShorterIsJudgedToItsEnd) {
    EccBench bench;
    bench.dump.add_file(10);
    bench.dump.write(bench.path());
    const uint64_t kept = 9 * bench.dump.block() + 2112 + 5;
    const CheckProgress shorten = [&](uint64_t, uint64_t) { fs::resize_file(bench.path(), kept); };
    const EccResult result = run_ecc(bench.options, shorten);
    EXPECT_EQ(result.error, "63 pages of the dump failed to be read: the dump got shorter");
    EXPECT_EQ(result.verdict, Verdict::kTrouble);
    EXPECT_TRUE(result.judged);
    EXPECT_EQ(result.pages, 577u);
    EXPECT_EQ(result.blocks, 10u);
    EXPECT_EQ(result.pages_of_last, 0u);
    EXPECT_EQ(result.units.flips[0], 2u * 577);
}

}  // namespace
