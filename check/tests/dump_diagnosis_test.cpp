// What the dump of a chip looks like when it was made in another way than the options say.

#include "chip_bench.h"

namespace {

using namespace check_test;

std::string diagnosis_of(const CheckResult& result) {
    std::string text;
    for (const Diagnosis& diagnosis : result.diagnoses)
        text += diagnosis.code + ": " + diagnosis.text + "\n";
    return text;
}

/// What the check says of the bytes of a dump.
std::string diagnosis_of(ChipBench& bench, const Bytes& bytes) {
    bench.bytes() = bytes;
    const CheckResult result = bench.result();
    EXPECT_EQ(result.verdict, Verdict::kDiffers);
    EXPECT_EQ(result.error, std::nullopt);
    return diagnosis_of(result);
}

/// What the check says of a dump of files that were converted with other options.
std::string diagnosis_as(const Conversion& given, const Conversion& made) {
    ChipBench maker(made);
    maker.place_all();
    ChipBench bench(given);
    return diagnosis_of(bench, maker.bytes());
}

class DumpDiagnoses : public testing::Test {
protected:
    DumpDiagnoses() { m_bench.place_all(); }
    std::string of(const Bytes& bytes) { return diagnosis_of(m_bench, bytes); }

    ChipBench m_bench;
};

TEST_F(DumpDiagnoses, Blank) {
    const std::string blank =
        "blank: nothing was written here: all bytes that were looked at are 0 or 0xFF\n";
    EXPECT_EQ(of(Bytes(m_bench.bytes().size(), 0xFF)), blank);
    EXPECT_EQ(of(Bytes(m_bench.bytes().size(), 0)), blank);
}

TEST_F(DumpDiagnoses, MainAreaAlone) {
    Bytes bytes;
    for (std::size_t at = 0; at < m_bench.bytes().size(); at += m_bench.page())
        put_bytes(bytes, slice(m_bench.bytes(), at, 2048));
    EXPECT_EQ(of(bytes),
              "no-spare: the dump has no spare areas: dump the pages with them, 2112 bytes each, and "
              "without correction\n");
}

TEST_F(DumpDiagnoses, DataAlone) {
    Bytes bytes;
    for (std::size_t at = 0; at < m_bench.bytes().size(); at += m_bench.page())
        for (const std::size_t unit : {std::size_t{0}, std::size_t{1056}})
            put_bytes(bytes, slice(m_bench.bytes(), at + unit, 1024));
    EXPECT_EQ(of(bytes),
              "no-spare: the dump has no spare areas: dump the pages with them, 2112 bytes each, and "
              "without correction\n");
}

TEST_F(DumpDiagnoses, SpareThatWasNotRead) {
    Bytes bytes = m_bench.bytes();
    for (std::size_t at = 0; at < bytes.size(); at += m_bench.page())
        put_bytes_at(bytes, at + 2048, Bytes(64, 0xFF));
    EXPECT_EQ(of(bytes),
              "spare-not-read: the spare areas in the dump are 0xFF: the programmer did not read them\n");
}

TEST_F(DumpDiagnoses, SwappedBytes) {
    Bytes bytes = m_bench.bytes();
    for (std::size_t at = 0; at < bytes.size(); at += 2)
        std::swap(bytes[at], bytes[at + 1]);
    EXPECT_EQ(of(bytes), "byte-swapped: the two bytes of each 16-bit word are swapped\n");
}

TEST_F(DumpDiagnoses, Header) {
    EXPECT_EQ(of(Bytes(77, 'H') + m_bench.bytes()),
              "offset: the dump has a header of 77 bytes: try --skip=77\n");
}

TEST_F(DumpDiagnoses, OnlyClearedAndOnlySet) {
    const uint64_t at = part_of(m_bench.result(), "rootfs.img").found_at.value();
    const Bytes good = m_bench.bytes();
    Bytes bytes = good;
    for (std::size_t i = 0; i < 4 * m_bench.page(); ++i)
        bytes.at(at * m_bench.block() + i) &= patterned(4 * m_bench.page(), 3)[i];
    EXPECT_EQ(of(bytes), "only-cleared: all bits that differ are 0 and should be 1: written over without an "
                         "erase\n");
    bytes = good;
    put_bytes_at(bytes, at * m_bench.block(), Bytes(m_bench.page(), 0xFF));
    EXPECT_EQ(of(bytes), "only-set: all bits that differ are 1 and should be 0: erased, or not written\n");
    m_bench.bytes() = good;
    m_bench.ruin(at + 1);
    EXPECT_EQ(diagnosis_of(m_bench.result()), "");
}

TEST_F(DumpDiagnoses, OtherFirmware) {
    EXPECT_EQ(
        of(patterned(m_bench.bytes().size(), 9)),
        "other-firmware: no file was found: it was made from another firmware, or it is not a raw dump\n");
}

TEST_F(DumpDiagnoses, PageList) {
    Conversion other = kSmallSlc;
    other.page_list = true;
    EXPECT_EQ(diagnosis_as(kSmallSlc, other), "page-list: made with --page_list\n");
    EXPECT_EQ(diagnosis_as(other, kSmallSlc), "page-list: made without --page_list\n");
}

TEST_F(DumpDiagnoses, PageAndSpareSize) {
    Conversion other = kSmallSlc;
    other.spare_bytes = "128";
    EXPECT_EQ(diagnosis_as(kSmallSlc, other),
              "page-or-spare-size: made for pages of 2 KB (-p 2) with 128 bytes "
              "of spare area (-s 128)\n");
    other.page_kb = "4";
    EXPECT_EQ(diagnosis_as(kSmallSlc, other),
              "page-or-spare-size: made for pages of 4 KB (-p 4) with 128 bytes "
              "of spare area (-s 128)\n");
}

TEST_F(DumpDiagnoses, TwoKilobytesOfData) {
    Conversion given = kSmallSlc;
    given.page_kb = "4";
    given.spare_bytes = "128";
    Conversion made = given;
    made.two_kilobytes_data = true;
    EXPECT_EQ(diagnosis_as(given, made), "2k-data: made with -2 (2 KB of data in a page)\n");
}

TEST_F(DumpDiagnoses, SmallerEraseBlocks) {
    Conversion given = kSmallSlc;
    given.block_kb = "32";
    EXPECT_EQ(diagnosis_as(given, kSmallSlc), "block-size: made for erase blocks of 16 KB (-b 16)\n");
}

}  // namespace
