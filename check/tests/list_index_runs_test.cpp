#include "check/chip/list_index_runs.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>

namespace {

/// Indexes of pages; nothing for a page whose index is not readable.
std::string of(std::initializer_list<std::optional<uint32_t>> pages) {
    ListIndexRuns runs;
    for (const std::optional<uint32_t> index : pages)
        if (index)
            runs.take(*index);
        else
            runs.pass_unreadable();
    const ListIndexes result = runs.result();
    return std::to_string(result.pages) + " pages, " + std::to_string(result.runs) + " runs, step " +
           std::to_string(result.step) + ", " + std::to_string(result.out_of_order) + " out of order";
}

TEST(ListIndexRuns, OfNothing) {
    EXPECT_EQ(of({}), "0 pages, 0 runs, step 0, 0 out of order");
    EXPECT_EQ(of({{}}), "0 pages, 0 runs, step 0, 0 out of order");
}

TEST(ListIndexRuns, OfFilesOfSeveralPages) {
    EXPECT_EQ(of({0, 4, 8, 0, 4, 0}), "6 pages, 3 runs, step 4, 0 out of order");
    EXPECT_EQ(of({0, 1, 2, 3, 4, 5, 0, 1}), "8 pages, 2 runs, step 1, 0 out of order");
}

TEST(ListIndexRuns, OfFilesOfOnePageHaveNoStep) {
    EXPECT_EQ(of({0, 0, 0}), "3 pages, 3 runs, step 0, 0 out of order");
}

TEST(ListIndexRuns, FirstPageInTheMiddleOfAFile) {
    EXPECT_EQ(of({8, 12, 16}), "3 pages, 0 runs, step 4, 1 out of order");
}

TEST(ListIndexRuns, GoOnAfterAPageOutOfOrder) {
    EXPECT_EQ(of({0, 4, 100, 104, 8, 12}), "6 pages, 1 runs, step 4, 2 out of order");
    EXPECT_EQ(of({0, 4, 4, 8}), "4 pages, 1 runs, step 4, 1 out of order");
    EXPECT_EQ(of({0, 4, 3}), "3 pages, 1 runs, step 4, 1 out of order");
}

TEST(ListIndexRuns, RarerStepIsOutOfOrder) {
    EXPECT_EQ(of({0, 4, 8, 9, 13}), "5 pages, 1 runs, step 4, 1 out of order");
    EXPECT_EQ(of({0, 1, 2, 6, 7}), "5 pages, 1 runs, step 1, 1 out of order");
}

TEST(ListIndexRuns, UnreadablePagesMayBelongToTheRunOrNot) {
    EXPECT_EQ(of({0, 4, {}, {}, 16, 20}), "4 pages, 1 runs, step 4, 0 out of order");
    EXPECT_EQ(of({0, 4, {}, {}, 8, 12}), "4 pages, 1 runs, step 4, 0 out of order");
    EXPECT_EQ(of({0, 4, {}, {}, 20}), "3 pages, 1 runs, step 4, 1 out of order");
    EXPECT_EQ(of({0, {}, 8, 16}), "3 pages, 1 runs, step 4, 1 out of order");
    EXPECT_EQ(of({0, 1, {}, {}, 4}), "3 pages, 1 runs, step 1, 0 out of order");
}

TEST(ListIndexRuns, IndexWrapsAt32Bits) {
    EXPECT_EQ(of({0xFFFFFFF8, 0xFFFFFFFC, 0, 4}), "4 pages, 1 runs, step 4, 1 out of order");
}

}  // namespace
