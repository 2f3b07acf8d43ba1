#include "check/base/words.h"

#include "check/report/report.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

TEST(Escaped, LeavesWhatIsSeenAsItIs) {
    EXPECT_EQ(escaped("rootfs_a-1.img ~\\"), "rootfs_a-1.img ~\\");
    EXPECT_EQ(escaped("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(escaped(""), "");
}

TEST(Escaped, WritesControlBytesAsHexadecimal) {
    EXPECT_EQ(escaped("a\0b\n\033[31m\x7F"s), "a\\x00b\\x0a\\x1b[31m\\x7f");
}

TEST(Escaped, WritesControlsBeyondAsciiAsHexadecimal) {
    EXPECT_EQ(escaped("\xC2\x9B"
                      "31m"),
              "\\xc2\\x9b31m");
    EXPECT_EQ(escaped("\xE2\x80\xAE"
                      "gmi.x"),
              "\\xe2\\x80\\xaegmi.x");
    EXPECT_EQ(escaped("\xEF\xBB\xBFx"), "\\xef\\xbb\\xbfx");
    EXPECT_EQ(escaped("\xC2\x9F"), "\\xc2\\x9f");
    EXPECT_EQ(escaped("\xC2\xA0"), "\xC2\xA0");  // the first character after them
}

TEST(Escaped, WritesBytesThatAreNotUtf8AsHexadecimal) {
    EXPECT_EQ(escaped("\x80"), "\\x80");
    EXPECT_EQ(escaped("\xFFz"), "\\xffz");
    EXPECT_EQ(escaped("\xC0\xAF"), "\\xc0\\xaf");                    // overlong
    EXPECT_EQ(escaped("\xE0\x80\xAF"), "\\xe0\\x80\\xaf");           // overlong
    EXPECT_EQ(escaped("\xF0\x80\x80\xAF"), "\\xf0\\x80\\x80\\xaf");  // overlong
    EXPECT_EQ(escaped("\xED\xA0\x80"), "\\xed\\xa0\\x80");           // surrogate
    EXPECT_EQ(escaped("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // after the last code
    EXPECT_EQ(escaped("\xE2\x82"), "\\xe2\\x82");                    // cut off
    EXPECT_EQ(escaped("\xE2\x82\xC3\xA4"), "\\xe2\\x82\xC3\xA4");
}

TEST(Escaped, DoesNotChangeAnEscapedText) {
    std::string all_bytes;
    for (int byte = 0; byte < 256; byte++)
        all_bytes += static_cast<char>(byte);
    EXPECT_EQ(escaped(escaped(all_bytes)), escaped(all_bytes));
}

TEST(IsUtf8, KnowsTheEdgesOfEachLength) {
    for (const char* text : {"", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                             "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(is_utf8(text)) << escaped(text);
    for (const char* text :
         {"\x80", "\xBF", "\xC1\xBF", "\xC2", "\xC2\x7F", "\xC2\xC0", "\xE0\x9F\xBF", "\xED\xA0\x80",
          "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE"})
        EXPECT_FALSE(is_utf8(text)) << escaped(text);
}

TEST(Shortened, KeepsATextOfTheWidth) {
    EXPECT_EQ(shortened("0123456789", 10), "0123456789");
}

TEST(Shortened, CutsALongerTextToTheWidth) {
    EXPECT_EQ(shortened("0123456789a", 10), "0123456...");
}

TEST(Shortened, CutsBeforeAnEscapeThatDoesNotFit) {
    EXPECT_EQ(shortened("01234\n6789abcdef", 10), "01234...");
    EXPECT_EQ(shortened("012\n456789abcdef", 10), "012\\x0a...");
}

TEST(Shortened, CountsCharactersAndNotBytes) {
    EXPECT_EQ(shortened("\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4", 4), "\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4");
    EXPECT_EQ(shortened("\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4z", 4), "\xC3\xA4...");
}

TEST(ReadableBytes, ChangesUnitAtItsSize) {
    EXPECT_EQ(readable_bytes(0), "0 bytes");
    EXPECT_EQ(readable_bytes(1), "1 byte");
    EXPECT_EQ(readable_bytes(1023), "1023 bytes");
    EXPECT_EQ(readable_bytes(1024), "1.0 KiB");
    EXPECT_EQ(readable_bytes(1024 * 1024 - 1), "1023.9 KiB");
    EXPECT_EQ(readable_bytes(1024 * 1024), "1.0 MiB");
    EXPECT_EQ(readable_bytes(uint64_t{3} << 29), "1.5 GiB");
    EXPECT_EQ(readable_bytes(UINT64_MAX), "16777215.9 TiB");
}

TEST(Hexadecimal, FillsUpWithZeros) {
    EXPECT_EQ(hexadecimal(0), "0x0");
    EXPECT_EQ(hexadecimal(7, 2), "0x07");
    EXPECT_EQ(hexadecimal(1182731), "0x120c0b");
    EXPECT_EQ(hexadecimal(UINT64_MAX), "0xffffffffffffffff");
}

TEST(Enumerated, SetsAndBeforeTheLastPiece) {
    EXPECT_EQ(enumerated({}), "");
    EXPECT_EQ(enumerated({"a"}), "a");
    EXPECT_EQ(enumerated({"a", "b"}), "a and b");
    EXPECT_EQ(enumerated({"a", "b", "c"}), "a, b and c");
}

}  // namespace
