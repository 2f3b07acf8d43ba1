#include "storage/console.h"
#include "storage_fixture.h"

#include <limits>

namespace {

using namespace storage_test;
using namespace std::string_literals;

constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

TEST(Console, LineIsPrintedAsItIsWithANewline) {
    for (const std::string& text : {"writing idblock..."s, ""s, "100%s %n\0x"s})
        EXPECT_EQ(output_of([&] { print_line(text); }), text + "\n");
}

TEST(Console, ErrorLineIsColouredBeforeItsNewline) {
    EXPECT_EQ(output_of([] { print_error_line("not found parameter in the firmware"); }),
              "\033[30;41mnot found parameter in the firmware\033[37;40m\n");
}

TEST(Console, RedrawMovesUpAndClearsFirst) {
    EXPECT_EQ(output_of([] { redraw_line("OK"); }), "\x1b[1A\x1b[2KOK\n");
}

TEST(Console, SuffixesAreSignedDecimals) {
    EXPECT_EQ(error_suffix(28), ",err=28");
    EXPECT_EQ(result_suffix(1), ",ret=1");
    EXPECT_EQ(result_suffix(-255), ",ret=-255");
}

// Of nothing it is 100, more may be done than there is, and the largest hundredfolds do not fit 64 bits.
TEST(Percentage, IsRoundedDownForAllSizes) {
    const struct {
        uint64_t done, total, percent;
    } cases[] = {{0, 3, 0},
                 {1, 3, 33},
                 {2, 3, 66},
                 {3, 3, 100},
                 {99, 10000, 0},
                 {100, 10000, 1},
                 {9999, 10000, 99},
                 {0, 0, 100},
                 {5, 0, 100},
                 {kLargest, 0, 100},
                 {300, 100, 300},
                 {kLargest, 100, kLargest},
                 {kLargest / 100, kLargest, 0},
                 {kLargest / 100 + 1, kLargest, 1},
                 {kLargest / 2, kLargest, 49},
                 {kLargest / 2 + 1, kLargest, 50},
                 {kLargest - 1, kLargest, 99},
                 {kLargest, kLargest, 100},
                 {uint64_t{1} << 62, uint64_t{1} << 63, 50}};
    for (const auto& [done, total, percent] : cases)
        EXPECT_EQ(percent_of(done, total), percent) << done << " of " << total;
}

// ---- progress ----

// What show prints for done + step, done + 2 * step and so on, up to end.
std::string every_step(uint64_t done, uint64_t end, uint64_t step, uint64_t total) {
    return output_of([&] {
        Progress progress("writing boot...");
        while (done < end) {
            done += std::min(step, end - done);
            progress.show(done, total);
        }
    });
}

std::string in_leaps(uint64_t done, uint64_t end, uint64_t step, uint64_t total) {
    return output_of([&] { Progress("writing boot...").show_steps(done, end, step, total); });
}

TEST(ProgressLine, IsRedrawnOnlyWhenTheWholePercentageChanges) {
    EXPECT_EQ(every_step(0, 3, 1, 3),
              redrawn("writing boot...33%") + redrawn("writing boot...66%") + redrawn("writing boot...100%"));
    for (const uint64_t total : {1U, 2U, 99U, 100U, 101U, 128U, 199U, 200U, 1000U})
        EXPECT_EQ(every_step(0, total, 1, total), progress_lines("writing boot...", total)) << total;
}

TEST(ProgressLine, ZeroCountsAsShownAlready) {
    EXPECT_EQ(output_of([] {
                  Progress progress("writing boot...");
                  progress.show(0, 7);
                  for (const uint64_t done : {9U, 10U, 19U})
                      progress.show(done, 1000);
              }),
              redrawn("writing boot...1%"));
}

TEST(ProgressLine, NewTextKeepsTheShownPercentage) {
    EXPECT_EQ(output_of([] {
                  Progress progress("extracting... rootfs...");
                  progress.show(4, 4);
                  progress.set_prefix("writing rootfs...");
                  for (const uint64_t done : {1000U, 1U, 2U, 10U})
                      progress.show(done, 1000);
              }),
              redrawn("extracting... rootfs...100%") + redrawn("writing rootfs...0%") +
                  redrawn("writing rootfs...1%"));
}

TEST(ProgressLine, OfNothingIsHundredOnce) {
    EXPECT_EQ(every_step(0, 4096, 2048, 0), redrawn("writing boot...100%"));
}

// ---- steps that need no report ----

TEST(StepsUntilChange, ReachTheNextPercentageInOneLeap) {
    const struct {
        uint64_t shown, done, total, steps;  // shown: the percentage before
    } cases[] = {
        {0, 0, 1000, 10},
        {0, 3, 1000, 7},
        {0, 9, 1000, 1},
        {0, 0, 1001, 11},
        {0, 0, 64, 1},
        // Another percentage was shown last.
        {100, 0, 1000, 1},
        {100, 500, 1000, 1},
        // At the end and after it. Of nothing, 100 percent stay for good.
        {0, 10, 10, 1},
        {0, 0, 0, 1},
        {100, 1000, 1000, 10},
        {100, 1009, 1000, 1},
        {100, 10, 10, 1},
        {100, 5, 0, kLargest - 5},
        // The largest sizes: 51 percent of 2^64 - 1 are 9407839477591871323.65, 101 percent lie after it.
        {0, 0, kLargest, kLargest / 100 + 1},
        {0, 0, uint64_t{1} << 63, (uint64_t{1} << 63) / 100 + 1},
        {0, kLargest - 1, kLargest, 1},
        {50, kLargest / 2 + 1, kLargest, 9407839477591871324U - (kLargest / 2 + 1)},
        {100, kLargest - 1, kLargest, 1},
    };
    for (const auto& wanted : cases) {
        Progress progress("");
        output_of([&] { progress.show(wanted.shown, 100); });
        EXPECT_EQ(progress.steps_until_change(wanted.done, wanted.total), wanted.steps)
            << wanted.done << " of " << wanted.total << " after " << wanted.shown << "%";
    }
}

TEST(ShowSteps, PrintsTheLinesOfEveryStep) {
    for (const uint64_t total : {0U, 1U, 3U, 99U, 100U, 101U, 450U, 2048U})
        for (const uint64_t step : {1U, 2U, 7U, 100U, 5000U})
            for (const uint64_t done : {0U, 1U, 50U})
                for (const uint64_t end : {0U, 1U, 2U, 51U, 99U, 100U, 1000U})
                    ASSERT_EQ(in_leaps(done, end, step, total), every_step(done, end, step, total))
                        << done << " to " << end << " by " << step << " of " << total;
    for (uint64_t total = 1; total <= 450; ++total)
        ASSERT_EQ(in_leaps(0, 2 * total, 1, total), every_step(0, 2 * total, 1, total)) << total;
}

TEST(ShowSteps, CostsItsLinesAndNotItsSteps) {
    EXPECT_EQ(in_leaps(0, kLargest, 1, kLargest), progress_lines("writing boot...", 100));
    EXPECT_EQ(in_leaps(0, kLargest, 2048, kLargest), progress_lines("writing boot...", 100));
    EXPECT_EQ(in_leaps(0, kLargest, kLargest, kLargest), redrawn("writing boot...100%"));
    EXPECT_EQ(in_leaps(0, kLargest, 1, 0), redrawn("writing boot...100%"));
}

}  // namespace
