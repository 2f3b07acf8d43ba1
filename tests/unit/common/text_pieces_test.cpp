#include "common/text_pieces.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using Pieces = std::vector<std::string>;

Pieces pieces_of(std::string_view text, char separator) {
    Pieces pieces;
    for (std::string_view piece; next_piece(text, separator, piece);)
        pieces.emplace_back(piece);
    return pieces;
}

Pieces lines_of(std::string_view text) {
    Pieces lines;
    for (std::string_view line; next_line(text, line);)
        lines.emplace_back(line);
    return lines;
}

TEST(NextPiece, TakesTheTextApartAtItsSeparators) {
    EXPECT_EQ(pieces_of("a,bc,def", ','), (Pieces{"a", "bc", "def"}));
    EXPECT_EQ(pieces_of("a:b,c", ':'), (Pieces{"a", "b,c"}));
    EXPECT_EQ(pieces_of("whole", ','), Pieces{"whole"});
    EXPECT_EQ(pieces_of(",a,,b", ','), (Pieces{"", "a", "", "b"}));
    EXPECT_EQ(pieces_of(",,", ','), (Pieces{"", ""}));
    // Nothing follows a last separator.
    EXPECT_EQ(pieces_of("a,b,", ','), (Pieces{"a", "b"}));
    EXPECT_EQ(pieces_of(",", ','), Pieces{""});
    EXPECT_EQ(pieces_of("", ','), Pieces{});
    // NUL is an ordinary character.
    const std::string text("a\0b,c", 5);
    EXPECT_EQ(pieces_of(text, ','), (Pieces{std::string("a\0b", 3), "c"}));
    EXPECT_EQ(pieces_of(text, '\0'), (Pieces{"a", "b,c"}));
}

TEST(NextPiece, LeavesTheRestOfTheText) {
    std::string_view text = "one,two,three";
    std::string_view piece;
    ASSERT_TRUE(next_piece(text, ',', piece));
    EXPECT_EQ(piece, "one");
    EXPECT_EQ(text, "two,three");
}

TEST(NextPiece, LeavesThePieceAloneAtTheEndOfTheText) {
    std::string_view text;
    std::string_view piece = "before";
    EXPECT_FALSE(next_piece(text, ',', piece));
    EXPECT_EQ(piece, "before");
}

TEST(NextLine, TakesTheTextApartAtItsLineEnds) {
    EXPECT_EQ(lines_of("one\ntwo\nthree"), (Pieces{"one", "two", "three"}));
    EXPECT_EQ(lines_of("one\ntwo\n"), (Pieces{"one", "two"}));
    EXPECT_EQ(lines_of(" one \n\ttwo"), (Pieces{" one ", "\ttwo"}));
}

TEST(NextLine, SkipsEmptyLines) {
    EXPECT_EQ(lines_of("\n\none\n\n\ntwo\n\n"), (Pieces{"one", "two"}));
    EXPECT_EQ(lines_of("\n\n"), Pieces{});
    EXPECT_EQ(lines_of(""), Pieces{});
}

TEST(NextLine, TakesOneCarriageReturnOffTheEnd) {
    EXPECT_EQ(lines_of("one\r\ntwo\r"), (Pieces{"one", "two"}));
    EXPECT_EQ(lines_of("one\r\r\ntwo"), (Pieces{"one\r", "two"}));
    EXPECT_EQ(lines_of("o\rne\n\rtwo"), (Pieces{"o\rne", "\rtwo"}));
    EXPECT_EQ(lines_of("one\n\r\ntwo"), (Pieces{"one", "", "two"})) << "the line was not empty";
}

}  // namespace
