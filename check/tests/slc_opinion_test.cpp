#include "check/judge/second_opinion.h"

#include "support/bytes.h"
#include "support/conversion.h"
#include "support/expected/flash_pages.h"
#include "support/firmware_builder.h"
#include "support/output_of.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace test_support;

using Findings = std::vector<std::string>;

uint64_t flash_page(const SlcFormat& format) {
    return format.page_size + format.spare;
}

SecondOpinion opinion_of(const Bytes& file, const SlcFormat& format, std::size_t piece = 1U << 19) {
    SecondOpinion opinion;
    SlcOpinion slc("a.img", flash_page(format), format.page_size, format.list_step, opinion);
    for (std::size_t at = 0; at < file.size(); at += piece) {
        // A copy that is gone after the call: what is to be kept has to be kept.
        const Bytes bytes = slice(file, at, std::min(piece, file.size() - at));
        slc.take(bytes);
    }
    slc.finish();
    return opinion;
}

void expect_right(const Bytes& file, const SlcFormat& format, const std::string& what) {
    const SecondOpinion opinion = opinion_of(file, format);
    EXPECT_EQ(opinion.findings, Findings{}) << what;
    EXPECT_EQ(opinion.findings_found, 0U) << what;
    EXPECT_EQ(opinion.units, file.size() / flash_page(format) * (format.page_size / 1024)) << what;
    EXPECT_EQ(opinion.wrong_units, 0U) << what;
    EXPECT_EQ(opinion.wrong_indexes, 0U) << what;
}

// Pages of data, and pages of zeros and of 0xFF after them.
Bytes some_pages(const SlcFormat& format, std::size_t pages) {
    const Bytes data =
        patterned(pages * format.page_size, 1) + Bytes(format.page_size, 0) + Bytes(format.page_size, 0xFF);
    return slc_flash_pages(data, format);
}

TEST(SlcOpinion, FilesOfEveryGeometryAreRight) {
    for (const std::size_t kib : {1U, 2U, 3U, 4U, 8U})
        for (const std::size_t more : {0U, 1U, 72U})
            for (const uint32_t step : {1U, 4U})
                for (const bool two_kilobytes : {false, true}) {
                    const SlcFormat format{1024 * kib, 32 * kib + more, two_kilobytes, step};
                    expect_right(some_pages(format, 4), format,
                                 std::to_string(kib) + " KB, " + std::to_string(format.spare) + " spare");
                }
}

TEST(SlcOpinion, FilesOfConversionsAreRight) {
    for (const std::string page_kb : {"2", "4"}) {
        for (const bool page_list : {false, true}) {
            const Conversion conversion{.type = "slc",
                                        .block_kb = "128",
                                        .page_kb = page_kb,
                                        .spare_bytes = "128",
                                        .page_list = page_list};
            const TemporaryDirectory directory;
            sample_firmware().write(directory / "fw.img");
            std::filesystem::create_directory(directory / "out");
            int status = -1;
            output_of([&] { status = convert_by_call(conversion, directory / "fw.img", directory / "out"); });
            ASSERT_EQ(status, 0);
            const std::set<std::string> names = names_in(directory / "out");
            ASSERT_EQ(names.size(), 5U);
            for (const std::string& name : names)
                expect_right(read_file(directory / "out" / name),
                             {conversion.page_size(), 128, false, page_list ? 1U : 4U}, name);
        }
    }
}

TEST(SlcOpinion, EmptyFileIsRight) {
    expect_right({}, {}, "empty");
}

TEST(SlcOpinion, EveryWrongUnitIsNamed) {
    const SlcFormat format{.page_size = 4096, .spare = 200};
    const Bytes file = some_pages(format, 70);
    for (std::size_t page = 0; page < 72; ++page) {
        for (std::size_t unit = 0; unit < 4; ++unit) {
            Bytes bent = file;
            bent[page * 4296 + unit * 1056 + (page * 37 + unit) % 1024] ^= 0x20;
            const SecondOpinion opinion = opinion_of(bent, format);
            EXPECT_EQ(opinion.findings,
                      Findings{"a.img: page " + std::to_string(page) + ", unit " + std::to_string(unit) +
                               ": parity does not belong to the data"});
            EXPECT_EQ(opinion.units, 72U * 4U);
            EXPECT_EQ(opinion.wrong_units, 1U);
            EXPECT_EQ(opinion.wrong_indexes, 0U);
        }
    }
}

TEST(SlcOpinion, EveryByteOfParityCounts) {
    const Bytes file = some_pages({}, 1);
    for (std::size_t byte = 1028; byte < 1056; ++byte) {
        Bytes bent = file;
        bent[byte] ^= 0x01;
        EXPECT_EQ(opinion_of(bent, {}).wrong_units, 1U) << byte;
    }
}

TEST(SlcOpinion, EveryWrongListIndexIsNamed) {
    for (const uint32_t step : {1U, 4U}) {
        const SlcFormat format{.list_step = step};
        const Bytes data = patterned(70 * format.page_size, 1);
        const Bytes file = slc_flash_pages(data, format);
        for (uint32_t page = 0; page < 70; ++page) {
            Bytes bent = file;
            put_bytes_at(bent, page * 2112,
                         slc_flash_page(slice(data, page * 2048, 2048), format, page * step + 1));
            const SecondOpinion opinion = opinion_of(bent, format);
            EXPECT_EQ(opinion.findings,
                      Findings{"a.img: page " + std::to_string(page) + ": list index is " +
                               std::to_string(page * step + 1) + " and not " + std::to_string(page * step)});
            EXPECT_EQ(opinion.wrong_units, 0U);
            EXPECT_EQ(opinion.wrong_indexes, 1U);
        }
    }
}

TEST(SlcOpinion, ListIndexesOfTheOtherStepAreWrong) {
    const SecondOpinion opinion = opinion_of(some_pages({.list_step = 1}, 30), {.list_step = 4});
    EXPECT_EQ(opinion.wrong_indexes, 31U) << "all pages but the first";
    EXPECT_EQ(opinion.wrong_units, 0U);
    EXPECT_EQ(opinion.findings_found, 31U);
    ASSERT_EQ(opinion.findings.size(), 20U);
    EXPECT_EQ(opinion.findings.front(), "a.img: page 1: list index is 1 and not 4");
    EXPECT_EQ(opinion.findings.back(), "a.img: page 20: list index is 20 and not 80");
}

TEST(SlcOpinion, OtherSystemBytesAreNamed) {
    const Bytes message = patterned(1024, 1) + Bytes{0xFE, 0xFF, 0xFF, 0xFF};
    Bytes bent = some_pages({}, 3);
    put_bytes_at(bent, 2112 + 1056, message + slow_parity(message));
    const SecondOpinion opinion = opinion_of(bent, {});
    EXPECT_EQ(opinion.findings,
              Findings{"a.img: page 1, unit 1: system bytes are 0xfffffffe and not 0xffffffff"});
    EXPECT_EQ(opinion.wrong_indexes, 0U);
}

TEST(SlcOpinion, EveryByteAfterTheUnitsCounts) {
    const SlcFormat format{.page_size = 2048, .spare = 70};
    for (std::size_t byte = 2112; byte < 2118; ++byte) {
        Bytes bent = some_pages(format, 3);
        bent[2118 + byte] = 0x7F;
        for (const std::size_t piece : {1U, 7U, 2118U, 1U << 19U})
            EXPECT_EQ(opinion_of(bent, format, piece).findings,
                      Findings{"a.img: page 1: bytes after the last unit are not 0xFF"});
    }
}

TEST(SlcOpinion, SizesOfThePiecesMakeNoDifference) {
    const SlcFormat format{.page_size = 2048, .spare = 70};
    Bytes file = some_pages(format, 300);
    for (const std::size_t at :
         {std::size_t{0}, std::size_t{1024}, std::size_t{2117}, file.size() / 2, file.size() - 8})
        file[at] ^= 1;
    const SecondOpinion whole = opinion_of(file, format, file.size());
    EXPECT_EQ(whole.findings, (Findings{"a.img: page 0: list index is 1 and not 0",
                                        "a.img: page 0: bytes after the last unit are not 0xFF",
                                        "a.img: page 0, unit 0: parity does not belong to the data",
                                        "a.img: page 151, unit 0: parity does not belong to the data",
                                        "a.img: page 301, unit 1: parity does not belong to the data"}));
    for (const std::size_t piece : {1U, 7U, 1055U, 1056U, 1057U, 2112U, 2118U, 100000U}) {
        const SecondOpinion opinion = opinion_of(file, format, piece);
        EXPECT_EQ(opinion.findings, whole.findings) << piece;
        EXPECT_EQ(opinion.units, 604U) << piece;
        EXPECT_EQ(opinion.wrong_units, whole.wrong_units) << piece;
    }
}

TEST(SlcOpinion, AllUnitsOfAFileAreWrong) {
    const Bytes file(std::size_t{2112} * 100, 0);
    const SecondOpinion opinion = opinion_of(file, {});
    EXPECT_EQ(opinion.units, 200U);
    EXPECT_EQ(opinion.wrong_units, 200U);
    EXPECT_EQ(opinion.wrong_indexes, 99U) << "0 is right for the first page";
    EXPECT_EQ(opinion.findings_found, 200U + 99U + 100U);
    EXPECT_EQ(opinion.findings.size(), 20U);
}

TEST(SlcOpinion, FileThatEndsInsideAPageIsNamed) {
    const Bytes file = some_pages({}, 3);
    for (const std::size_t more : {1U, 1055U, 1056U, 2111U}) {
        const SecondOpinion opinion = opinion_of(slice(file, 0, 2 * 2112 + more), {});
        EXPECT_EQ(opinion.findings, Findings{"a.img: page 2: the file ends inside this page"});
        EXPECT_EQ(opinion.units, more < 1056 ? 4U : 5U);
    }
}

TEST(SlcOpinion, FilesShareOneOpinion) {
    SecondOpinion opinion;
    const Bytes file = some_pages({}, 3);
    for (const char* name : {"a.img", "b.img"}) {
        Bytes bent = file;
        bent[100] ^= 1;
        SlcOpinion slc(name, 2112, 2048, 4, opinion);
        slc.take(bent);
        slc.finish();
    }
    EXPECT_EQ(opinion.findings, (Findings{"a.img: page 0, unit 0: parity does not belong to the data",
                                          "b.img: page 0, unit 0: parity does not belong to the data"}));
    EXPECT_EQ(opinion.units, 20U);
}

void expect_not_judged(uint64_t page, uint64_t data, const std::string& reason) {
    SecondOpinion opinion;
    SlcOpinion slc("a.img", page, data, 4, opinion);
    slc.take(Bytes(10000, 0));
    slc.finish();
    EXPECT_EQ(opinion.findings, Findings{"a.img: parity is not judged: " + reason});
    EXPECT_EQ(opinion.units, 0U);
}

TEST(SlcOpinion, DataThatIsNotWholeUnitsIsNotJudged) {
    expect_not_judged(2112, 2000, "2000 bytes of data are not whole units of 1024");
    expect_not_judged(2112, 0, "0 bytes of data are not whole units of 1024");
}

TEST(SlcOpinion, TooSmallSpareAreaIsNotJudged) {
    expect_not_judged(2111, 2048, "2111 bytes of a page are too few for 2 units of 1056");
    expect_not_judged(0, 1024, "0 bytes of a page are too few for 1 units of 1056");
}

}  // namespace
