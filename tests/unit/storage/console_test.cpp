#include "storage/console.h"
#include "storage_fixture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

using namespace storage_test;

constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();

TEST(Console, LineEndsInANewline) {
    EXPECT_EQ(output_of([] { print_line("writing idblock..."); }), "writing idblock...\n");
    EXPECT_EQ(output_of([] { print_line(""); }), "\n");
}

TEST(Console, PercentSignsAndNulsArePrintedAsTheyAre) {
    const std::string text("100%s %n\0x", 10);
    EXPECT_EQ(output_of([&] { print_line(text); }), text + "\n");
}

TEST(Console, ErrorLineIsColouredBeforeItsNewline) {
    EXPECT_EQ(output_of([] { print_error_line("not found parameter in the firmware"); }),
              "\033[30;41mnot found parameter in the firmware\033[37;40m\n");
}

TEST(Console, RedrawMovesUpAndClearsFirst) {
    const char expected[] = {0x1B, 0x5B, 0x31, 0x41, 0x1B, 0x5B, 0x32, 0x4B, 'O', 'K', '\n'};
    EXPECT_EQ(output_of([] { redraw_line("OK"); }), std::string(expected, sizeof(expected)));
}

TEST(Console, SuffixesAreSignedDecimals) {
    EXPECT_EQ(error_suffix(28), ",err=28");
    EXPECT_EQ(result_suffix(1), ",ret=1");
    EXPECT_EQ(result_suffix(-255), ",ret=-255");
}

// ---- percentages ----

TEST(Percentage, IsRoundedDown) {
    EXPECT_EQ(percent_of(0, 3), 0U);
    EXPECT_EQ(percent_of(1, 3), 33U);
    EXPECT_EQ(percent_of(2, 3), 66U);
    EXPECT_EQ(percent_of(3, 3), 100U);
    EXPECT_EQ(percent_of(99, 10000), 0U);
    EXPECT_EQ(percent_of(100, 10000), 1U);
    EXPECT_EQ(percent_of(9999, 10000), 99U);
}

TEST(Percentage, OfNothingIsHundred) {
    EXPECT_EQ(percent_of(0, 0), 100U);
    EXPECT_EQ(percent_of(5, 0), 100U);
    EXPECT_EQ(percent_of(kLargest, 0), 100U);
}

TEST(Percentage, GoesPastHundredWithTheDoneBytes) {
    EXPECT_EQ(percent_of(300, 100), 300U);
    EXPECT_EQ(percent_of(kLargest, 100), kLargest);
}

TEST(Percentage, HoldsForSizesWhoseHundredfoldDoesNotFit64Bits) {
    EXPECT_EQ(percent_of(kLargest / 100, kLargest), 0U);
    EXPECT_EQ(percent_of(kLargest / 100 + 1, kLargest), 1U);
    EXPECT_EQ(percent_of(kLargest / 2, kLargest), 49U);
    EXPECT_EQ(percent_of(kLargest / 2 + 1, kLargest), 50U);
    EXPECT_EQ(percent_of(kLargest - 1, kLargest), 99U);
    EXPECT_EQ(percent_of(kLargest, kLargest), 100U);
    EXPECT_EQ(percent_of(uint64_t{1} << 62, uint64_t{1} << 63), 50U);
}

// ---- progress ----

// What a progress line shows when every single step is reported.
std::string every_step_shown(uint64_t total, uint64_t steps) {
    Progress progress("writing boot...");
    return output_of([&] {
        for (uint64_t done = 1; done <= steps; ++done)
            progress.show(done, total);
    });
}

TEST(ProgressLine, IsRedrawnOnlyWhenTheWholePercentageChanges) {
    EXPECT_EQ(every_step_shown(1, 1), redrawn("writing boot...100%"));
    EXPECT_EQ(every_step_shown(3, 3),
              redrawn("writing boot...33%") + redrawn("writing boot...66%") + redrawn("writing boot...100%"));
    for (const uint64_t total : {2U, 99U, 100U, 101U, 128U, 199U, 200U, 1000U})
        EXPECT_EQ(every_step_shown(total, total), progress_lines("writing boot...", total)) << total;
}

TEST(ProgressLine, ZeroCountsAsShownAlready) {
    EXPECT_EQ(output_of([] {
                  Progress progress("writing boot...");
                  progress.show(0, 7);
                  progress.show(9, 1000);
                  progress.show(10, 1000);
                  progress.show(19, 1000);
              }),
              redrawn("writing boot...1%"));
}

TEST(ProgressLine, NewTextKeepsTheShownPercentage) {
    EXPECT_EQ(output_of([] {
                  Progress progress("extracting... rootfs...");
                  progress.show(4, 4);
                  progress.set_prefix("writing rootfs...");
                  progress.show(1000, 1000);
                  progress.show(1, 1000);
                  progress.show(2, 1000);
                  progress.show(10, 1000);
              }),
              redrawn("extracting... rootfs...100%") + redrawn("writing rootfs...0%") +
                  redrawn("writing rootfs...1%"));
}

TEST(ProgressLine, OfNothingIsHundredOnce) {
    EXPECT_EQ(output_of([] {
                  Progress progress("extracting... rootfs...");
                  progress.show(2048, 0);
                  progress.show(4096, 0);
              }),
              redrawn("extracting... rootfs...100%"));
}

// ---- steps that need no report ----

TEST(StepsUntilChange, LeaveOutNoLineOfTheProgress) {
    for (uint64_t total = 1; total <= 450; ++total) {
        const std::string in_leaps = output_of([&] {
            Progress progress("writing boot...");
            for (uint64_t done = 0; done < 2 * total;) {
                const uint64_t steps = progress.steps_until_change(done, total);
                ASSERT_GE(steps, 1U);
                done += steps;
                if (done <= 2 * total)
                    progress.show(done, total);
            }
        });
        ASSERT_EQ(in_leaps, every_step_shown(total, 2 * total)) << total;
    }
}

TEST(StepsUntilChange, ReachTheNextPercentageInOneLeap) {
    Progress progress("");
    EXPECT_EQ(progress.steps_until_change(0, 1000), 10U);
    EXPECT_EQ(progress.steps_until_change(3, 1000), 7U);
    EXPECT_EQ(progress.steps_until_change(9, 1000), 1U);
    EXPECT_EQ(progress.steps_until_change(0, 1001), 11U);
    EXPECT_EQ(progress.steps_until_change(0, 64), 1U);
}

TEST(StepsUntilChange, IsOneWhenAnotherPercentageWasShownLast) {
    Progress progress("");
    output_of([&] { progress.show(100, 100); });
    EXPECT_EQ(progress.steps_until_change(0, 1000), 1U);
    EXPECT_EQ(progress.steps_until_change(500, 1000), 1U);
}

TEST(StepsUntilChange, GoOnAfterTheEnd) {
    Progress progress("");
    EXPECT_EQ(progress.steps_until_change(10, 10), 1U);
    EXPECT_EQ(progress.steps_until_change(0, 0), 1U);
    output_of([&] { progress.show(1000, 1000); });
    EXPECT_EQ(progress.steps_until_change(1000, 1000), 10U);
    EXPECT_EQ(progress.steps_until_change(1009, 1000), 1U);
    EXPECT_EQ(progress.steps_until_change(10, 10), 1U);
    // Of nothing, 100 percent stay for good.
    EXPECT_EQ(progress.steps_until_change(5, 0), kLargest - 5);
}

TEST(StepsUntilChange, HoldForTheLargestSizes) {
    Progress progress("");
    EXPECT_EQ(progress.steps_until_change(0, kLargest), kLargest / 100 + 1);
    EXPECT_EQ(progress.steps_until_change(0, uint64_t{1} << 63), (uint64_t{1} << 63) / 100 + 1);
    EXPECT_EQ(progress.steps_until_change(kLargest - 1, kLargest), 1U);
    output_of([&] { progress.show(kLargest / 2 + 1, kLargest); });
    // 51 percent of it are 9407839477591871323.65.
    EXPECT_EQ(progress.steps_until_change(kLargest / 2 + 1, kLargest),
              9407839477591871324U - (kLargest / 2 + 1));
    // The next percentage lies after the last number.
    output_of([&] { progress.show(kLargest, kLargest); });
    EXPECT_EQ(progress.steps_until_change(kLargest - 1, kLargest), 1U);
}

// ---- steps of which only the lines are wanted ----

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
    return output_of([&] {
        Progress progress("writing boot...");
        progress.show_steps(done, end, step, total);
    });
}

TEST(ShowSteps, PrintsTheLinesOfEveryStep) {
    for (const uint64_t total : {0U, 1U, 3U, 99U, 100U, 101U, 450U, 2048U})
        for (const uint64_t step : {1U, 2U, 7U, 100U, 5000U})
            for (const uint64_t done : {0U, 1U, 50U})
                for (const uint64_t end : {0U, 1U, 2U, 51U, 99U, 100U, 1000U})
                    ASSERT_EQ(in_leaps(done, end, step, total), every_step(done, end, step, total))
                        << done << " to " << end << " by " << step << " of " << total;
}

TEST(ShowSteps, CostsItsLinesAndNotItsSteps) {
    std::string lines;
    for (int percent = 1; percent <= 100; ++percent)
        lines += redrawn("writing boot..." + std::to_string(percent) + "%");
    EXPECT_EQ(in_leaps(0, kLargest, 1, kLargest), lines);
    EXPECT_EQ(in_leaps(0, kLargest, 2048, kLargest), lines);
    EXPECT_EQ(in_leaps(0, kLargest, kLargest, kLargest), redrawn("writing boot...100%"));
    EXPECT_EQ(in_leaps(0, kLargest, 1, 0), redrawn("writing boot...100%"));
}

}  // namespace
