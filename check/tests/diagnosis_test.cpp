#include "check/check.h"

#include "parse.h"
#include "support/bytes.h"
#include "support/conversion.h"
#include "support/firmware_builder.h"
#include "support/output_of.h"

#include <gtest/gtest.h>

namespace {

using namespace test_support;

/// Codes of the diagnoses for an eMMC image of the sample firmware that was changed.
std::vector<std::string> codes_of(const std::function<void(Bytes&)>& change) {
    const TemporaryDirectory directory;
    const Conversion emmc;
    sample_firmware({.gpt = true}).write(directory / "fw.img");
    std::filesystem::create_directory(directory / "out");
    output_of([&] { EXPECT_EQ(convert_by_call(emmc, directory / "fw.img", directory / "out"), 0); });
    Bytes image = read_file(directory / "out" / "out_image.img");
    change(image);
    write_file(directory / "out" / "out_image.img", image);

    const CheckOptions options = check_test::parse(emmc.arguments(directory / "fw.img", directory / "out"));
    std::vector<std::string> codes;
    for (const Diagnosis& diagnosis : run_check(options, {}).diagnoses)
        codes.push_back(diagnosis.code);
    return codes;
}

constexpr std::size_t kHeader = 512;
constexpr std::size_t kEntries = 1024;

/// As a partitioning tool writes the table for a disk of 16777216 sectors.
void adapt_table(Bytes& image) {
    const uint64_t end_of_full_disk = get64(image, kHeader + 48);
    const uint64_t last_usable = 16777216 - 34;
    put_integer_at<uint64_t>(image, kHeader + 32, 16777216 - 1);
    put_integer_at<uint64_t>(image, kHeader + 48, last_usable);
    std::size_t growing = 0;
    for (std::size_t entry = kEntries; entry < kEntries + 128 * 128; entry += 128)
        if (get64(image, entry + 40) == end_of_full_disk) {
            put_integer_at<uint64_t>(image, entry + 40, last_usable);
            std::size_t name_end = entry + 56;
            while (get16(image, name_end) != 0)
                name_end += 2;
            EXPECT_NE(get16(image, name_end + 2), 0);  // the flag
            std::fill(image.begin() + static_cast<std::ptrdiff_t>(name_end),
                      image.begin() + static_cast<std::ptrdiff_t>(entry + 128), uint8_t{0});
            ++growing;
        }
    EXPECT_EQ(growing, 1U);
}

TEST(DiagnosisOfTable, PartitionThatGrowsEndsElsewhere) {
    EXPECT_EQ(codes_of(adapt_table), std::vector<std::string>{"gpt-adapted"});
}

TEST(DiagnosisOfTable, PartitionThatStartsElsewhere) {
    EXPECT_EQ(codes_of([](Bytes& image) {
                  adapt_table(image);
                  image[kEntries + 32] ^= 1;
              }),
              std::vector<std::string>{});
}

TEST(DiagnosisOfKey, StageThatEndsWithinASector) {
    const auto other_key = [](Bytes& image, uint8_t last) {
        const Bytes stream = patterned(512, 1);
        for (const std::size_t start : {64U, 1088U})
            for (const std::size_t sector : {0U, 2U, 3U, 4U, 5U})
                for (std::size_t i = 0; i < (sector == 5 ? 100U : 512U); ++i)
                    image[(start + sector) * 512 + i] ^= sector == 5 && i == 99 ? last : stream[i];
    };
    const uint8_t right = patterned(512, 1)[99];
    ASSERT_NE(right, 0);
    EXPECT_EQ(codes_of([&](Bytes& image) { other_key(image, right); }), std::vector<std::string>{"rc4-key"});
    EXPECT_EQ(codes_of([&](Bytes& image) { other_key(image, static_cast<uint8_t>(~right)); }),
              std::vector<std::string>{});
}

}  // namespace
