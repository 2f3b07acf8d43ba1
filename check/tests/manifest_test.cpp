// The sums of files whose bytes come in any order, and the texts of a manifest.

#include "check/manifest/manifest.h"
#include "check/manifest/manifest_file_sums.h"

#include "support/bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>

namespace {

using namespace test_support;
using Json = nlohmann::ordered_json;

// ---- sums ----

/// One write of a conversion. Zeros are handed over without bytes.
struct Write {
    uint64_t offset = 0;
    Bytes bytes{};
    bool zeros = false;
};

Bytes image_of(const std::vector<Write>& writes, uint64_t size) {
    Bytes image(size);
    for (const Write& write : writes)
        put_bytes_at(image, write.offset, write.bytes);
    return image;
}

uint32_t sum_of_bytes(const Bytes& bytes) {
    uint32_t sum = 0;
    for (const uint8_t byte : bytes)
        sum += byte;
    return sum;
}

/// Hands the writes over until the sums are complete. Returns the number of passes.
int drive(ManifestFileSums& file, const std::vector<Write>& writes, uint64_t size) {
    for (int pass = 1; pass < 100; ++pass) {
        if (pass != 1)
            file.start_pass();
        for (const Write& write : writes)
            file.take(write.offset, write.zeros ? nullptr : write.bytes.data(), write.bytes.size());
        file.end_pass(size);
        if (file.complete())
            return pass;
    }
    return 0;
}

void expect_sums(ManifestFileSums& file, const Bytes& image) {
    EXPECT_EQ(file.sums().length(), image.size());
    EXPECT_EQ(file.sums().sum32(), sum_of_bytes(image));
    EXPECT_EQ(file.sums().crc32(), crc32_standard(image));
    ManifestSums all;
    all.add(image.data(), image.size());
    EXPECT_EQ(file.sums().sha256(), all.sha256());
}

/// Hands the writes over and compares with the image that they give. Returns the number of passes.
int expect_sums_of(const std::vector<Write>& writes, uint64_t size) {
    ManifestFileSums file("a.img");
    const int passes = drive(file, writes, size);
    expect_sums(file, image_of(writes, size));
    return passes;
}

TEST(ManifestSums, AreThoseOfTheStandards) {
    ManifestSums none;
    EXPECT_EQ(none.sum32(), 0U);
    EXPECT_EQ(none.crc32(), 0U);
    EXPECT_EQ(none.sha256(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    ManifestSums digits;
    digits.add(reinterpret_cast<const uint8_t*>("123456789"), 9);
    EXPECT_EQ(digits.sum32(), 477U);
    EXPECT_EQ(digits.crc32(), 0xCBF43926U);
    EXPECT_EQ(digits.sha256(), "15e2b0d3c33891ebb0f1ef609ec419420c20e320ce94c65fbc8c3312448eb225");
}

TEST(ManifestSums, OfZerosAreThoseOfTheirBytes) {
    const Bytes zeros(200001);
    ManifestSums by_count;
    by_count.add_zeros(zeros.size());
    ManifestSums by_bytes;
    by_bytes.add(zeros.data(), zeros.size());
    EXPECT_EQ(by_count.crc32(), crc32_standard(zeros));
    EXPECT_EQ(by_count.sha256(), by_bytes.sha256());
}

TEST(ManifestSums, OfTheBytesAreModulo32Bits) {
    const Bytes ones(17 * kMib, 0xFF);
    ManifestSums sums;
    sums.add(ones.data(), ones.size());
    EXPECT_EQ(sums.sum32(), static_cast<uint32_t>(17 * kMib * 0xFF));
    EXPECT_GT(17 * kMib * 0xFF, uint64_t{UINT32_MAX});
}

TEST(ManifestFileSums, TakeOnePassOverBytesInOrder) {
    EXPECT_EQ(
        expect_sums_of({{0, patterned(1000, 1)}, {1000, Bytes(500), true}, {1500, patterned(10, 2)}}, 1510),
        1);
    EXPECT_EQ(expect_sums_of({}, 0), 1);
}

TEST(ManifestFileSums, TakeTheLastWriterOfAPlace) {
    EXPECT_EQ(
        expect_sums_of({{0, patterned(1000, 1)}, {300, patterned(200, 2)}, {400, patterned(50, 3)}}, 1000),
        2);
    EXPECT_EQ(expect_sums_of({{0, patterned(1000, 1)}, {0, patterned(1000, 2)}}, 1000), 2);
    EXPECT_EQ(expect_sums_of({{0, patterned(1000, 1)}, {200, Bytes(300), true}}, 1000), 2);
}

TEST(ManifestFileSums, HaveZerosWhereNothingIsWritten) {
    EXPECT_EQ(expect_sums_of({{100, patterned(1000, 1)}}, 1100), 2);
    EXPECT_EQ(expect_sums_of({{100, patterned(10, 1)}, {500, patterned(10, 2)}}, 9000), 2);
    EXPECT_EQ(expect_sums_of({}, 9000), 2);
}

TEST(ManifestFileSums, LetSixteenMibWait) {
    const uint64_t part = 8 * kMib;
    std::vector<Write> writes;
    for (const uint64_t number : {3U, 2U, 1U, 0U})  // the last bytes come first
        writes.push_back({number * part, patterned(part, static_cast<uint32_t>(number))});
    EXPECT_EQ(expect_sums_of(writes, 4 * part), 3);
    writes.erase(writes.begin());
    EXPECT_EQ(expect_sums_of(writes, 3 * part), 2);
}

TEST(ManifestFileSums, AreRightForAnyOrderOfWrites) {
    std::mt19937 dice(1);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        std::vector<Write> writes;
        uint64_t size = 0;
        for (uint64_t left = dice() % 12; left != 0; --left) {
            const bool goes_on = !writes.empty() && dice() % 2 == 0;
            const uint64_t offset =
                goes_on ? writes.back().offset + writes.back().bytes.size() : dice() % 2000;
            const uint64_t count = 1 + dice() % 700;
            const bool zeros = dice() % 3 == 0;
            writes.push_back(
                {offset, zeros ? Bytes(count) : patterned(count, static_cast<uint32_t>(dice())), zeros});
            size = std::max(size, offset + count);
        }
        EXPECT_LE(expect_sums_of(writes, size + dice() % 2 * 100), 2);
    }
}

// ---- texts ----

const std::string kSha256 = std::string(60, '0') + "beef";

Manifest sample() {
    Manifest manifest;
    manifest.conversion = {.type = "slc", .block_kb = 128, .page_kb = 2, .spare = 64, .key = "own"};
    manifest.geometry = {.spare_areas = true, .page = 2112, .block = 135168, .page_data = 2048};
    manifest.firmware_name = "fw.img";
    manifest.firmware_bytes = 1234567;
    manifest.firmware_version = "1.2.34";
    manifest.files = {{.name = "idblock", .file = "idblock.img", .bytes = 135168, .sha256 = kSha256},
                      {.name = "rootfs",
                       .file = "rootfs.img",
                       .bytes = 2 * 135168 + 1,
                       .sectors = ManifestRange{8192, 16383},
                       .blocks = ManifestRange{32, 63},
                       .sum32 = 0x1e5,
                       .crc32 = 0xCBF43926,
                       .sha256 = kSha256}};
    return manifest;
}

Manifest sample_image() {
    Manifest manifest = sample();
    manifest.geometry = {.whole_image = true, .page = 2048, .block = 65536, .page_data = 2048};
    manifest.files = {{.name = "out_image",
                       .file = "out_image.img",
                       .bytes = 65536,
                       .sectors = ManifestRange{0, 127},
                       .sha256 = kSha256}};
    manifest.partitions = {{"misc", {64, 95}}, {"userdata", {96, std::nullopt}}};
    return manifest;
}

const std::string kHead = "kind,name,file,bytes,pages,blocks,first_sector,last_sector,first_block,last_block,"
                          "sum32,crc32,sha256,page_bytes,pages_per_block,spare_area,ecc,bad_block_mark\r\n";

TEST(ManifestCsv, HasALineForEachFile) {
    EXPECT_EQ(manifest_csv(sample()),
              kHead + "file,idblock,idblock.img,135168,64,1,,,,,0x00000000,0x00000000," + kSha256 +
                  ",2112,64,in-file,in-file,overwritten\r\n"
                  "file,rootfs,rootfs.img,270337,129,3,8192,16383,32,63,0x000001e5,0xcbf43926," +
                  kSha256 + ",2112,64,in-file,in-file,overwritten\r\n");
}

TEST(ManifestCsv, HasALineForEachPartition) {
    EXPECT_EQ(manifest_csv(sample_image()),
              kHead + "file,out_image,out_image.img,65536,32,1,0,127,,,0x00000000,0x00000000," + kSha256 +
                  ",2048,32,none,none,none\r\n"
                  "partition,misc,,,,,64,95,,,,,,2048,32,none,none,none\r\n"
                  "partition,userdata,,,,,96,,,,,,,2048,32,none,none,none\r\n");
}

TEST(ManifestCsv, QuotesAndEscapesNames) {
    const std::pair<std::string, std::string> names[] = {
        {"a,b", "\"a,b\""},       {"a\"b", "\"a\"\"b\""}, {"a\r\nb", "a\\x0d\\x0ab"},
        {"\xFF", "\\xff"},        {"=1+1", "\\x3d1+1"},   {"+1", "\\x2b1"},
        {"@a,b", "\"\\x40a,b\""}, {"-x", "\\x2dx"},       {"a b", "a b"},
    };
    for (const auto& [name, field] : names) {
        Manifest manifest = sample();
        manifest.files.resize(1);
        manifest.files[0].name = name;
        EXPECT_TRUE(manifest_csv(manifest).starts_with(kHead + "file," + field + ",idblock.img,")) << name;
    }
}

TEST(ManifestSumsText, EscapesNamesAsSha256sumDoes) {
    Manifest manifest = sample();
    manifest.files[0].file = "a\\b\nc\rd.img";
    EXPECT_EQ(manifest_sums(manifest),
              "\\" + kSha256 + "  a\\\\b\\nc\\rd.img\n" + kSha256 + "  rootfs.img\n");
}

TEST(ManifestJson, IsOneDocument) {
    EXPECT_EQ(
        Json::parse(manifest_json(sample())).dump(),
        R"({"schema":1,"program":"nandsmith-check","status":0,"conversion":{"type":"slc","block_kb":128,)"
        R"("page_kb":2,"spare":64,"two_kb":false,"page_list":false,"key":"own"},)"
        R"("firmware":{"name":"fw.img","bytes":1234567,"version":"1.2.34"},"files":[)"
        R"({"name":"idblock","file":"idblock.img","bytes":135168,"pages":64,"blocks":1,)"
        R"("first_sector":null,"last_sector":null,"first_block":null,"last_block":null,)"
        R"("sum32":"0x00000000","crc32":"0x00000000","sha256":")" +
            kSha256 +
            R"("},{"name":"rootfs","file":"rootfs.img","bytes":270337,"pages":129,"blocks":3,)"
            R"("first_sector":8192,"last_sector":16383,"first_block":32,"last_block":63,)"
            R"("sum32":"0x000001e5","crc32":"0xcbf43926","sha256":")" +
            kSha256 +
            R"("}],"partitions":[],"programmer":{"page_bytes":2112,"page_data_bytes":2048,)"
            R"("pages_per_block":64,"block_bytes":135168,"spare_area":"in-file","ecc":"in-file",)"
            R"("ecc_bits":16,"ecc_bytes":1056,"bad_block_mark":"overwritten","sentences":[)"
            R"("The files hold each page with its spare area: program them as they are.",)"
            R"("The ECC is in the files: compute none. It corrects 16 bits in each 1056 bytes.",)"
            R"("The place of the factory's bad-block mark holds data.",)"
            R"("Find the bad blocks by the factory's marks before the first write, and keep the list. )"
            R"(Skip them and go on in the next block."]},"error":null})");
}

TEST(ManifestJson, HasNullForWhatIsNotThere) {
    const Json document = Json::parse(manifest_json(sample_image()));
    EXPECT_EQ(document["partitions"].dump(), R"([{"name":"misc","first_sector":64,"last_sector":95},)"
                                             R"({"name":"userdata","first_sector":96,"last_sector":null}])");
    EXPECT_EQ(document["programmer"]["ecc_bits"], nullptr);
    EXPECT_EQ(document["programmer"]["ecc_bytes"], nullptr);
}

TEST(ManifestJson, RepeatsNamesThatAreNotUtf8) {
    Manifest manifest = sample();
    manifest.files[0].name = "\xFE";
    const Json document = Json::parse(manifest_json(manifest));
    EXPECT_EQ(document["files"][0]["name"], "\\xfe");
    EXPECT_EQ(document["files"][0]["name_hex"], "fe");
}

TEST(ProgrammerSettings, OfSpiNandLeaveTheEccToTheChip) {
    const ProgrammerSettings settings =
        programmer_settings({.page = 2048, .block = 131072, .page_data = 2048});
    EXPECT_EQ(settings.spare_area, "not-in-file");
    EXPECT_EQ(settings.ecc, "by-chip");
    EXPECT_EQ(settings.bad_block_mark, "kept");
    EXPECT_FALSE(settings.has_units);
    EXPECT_EQ(settings.sentences.size(), 3U);
}

}  // namespace
