#include "check/base/places.h"

#include "results.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace {

constexpr Correction kYes = Correction::kCorrectable;
constexpr Correction kNo = Correction::kNotCorrectable;
constexpr Correction kOpen = Correction::kNotKnown;

using Corrections = std::vector<Correction>;

/// A page with 16 bytes after its units.
Geometry roomy_geometry() {
    Geometry geometry = slc_geometry();
    geometry.page = 2128;
    geometry.block = 64 * 2128;
    return geometry;
}

PartResult part_with(const std::vector<DifferenceRun>& runs) {
    PartResult part = same_file("rootfs", 100 * 2112);
    for (const DifferenceRun& run : runs)
        add_run(part, run.offset, run.length, run.flips);
    return part;
}

TEST(PlaceOf, CountsBlocksPagesAndUnitsOfSlc) {
    const Place place = place_of(560 * 2112 + kUnit + 11, slc_geometry());
    EXPECT_EQ(place.block, 8u);
    EXPECT_EQ(place.page, 48u);
    EXPECT_EQ(place.page_of_target, 560u);
    EXPECT_EQ(place.byte_of_page, kUnit + 11);
    EXPECT_EQ(place.unit, std::optional<uint64_t>(1));
    EXPECT_EQ(place.byte_of_unit, 11u);
}

TEST(PlaceOf, HasNoUnitAfterTheLastOneOfAPage) {
    EXPECT_EQ(place_of(2111, roomy_geometry()).unit, std::optional<uint64_t>(1));
    EXPECT_EQ(place_of(2112, roomy_geometry()).unit, std::nullopt);
    EXPECT_EQ(place_of(2128, roomy_geometry()).unit, std::optional<uint64_t>(0));
}

TEST(PlaceOf, HasNoUnitWithoutSpareAreas) {
    EXPECT_EQ(place_of(0, nand_geometry()).unit, std::nullopt);
}

TEST(PlaceOf, DoesNotDivideByZero) {
    EXPECT_EQ(place_of(700, Geometry()).page_of_target, 700u);
    EXPECT_EQ(place_of(700, Geometry()).sector, 1u);
}

TEST(Corrections, EndAtSixteenFlipsOfAUnit) {
    const PartResult part = part_with({{0, 8, 16, 0, 0}, {kUnit, 8, 17, 0, 0}});
    EXPECT_EQ(corrections(part, slc_geometry()), (Corrections{kYes, kNo}));
}

TEST(Corrections, AddTheRunsOfAUnit) {
    const PartResult part = part_with({{0, 2, 8, 0, 0}, {kUnit - 2, 2, 8, 0, 0}, {kUnit, 2, 8, 0, 0}});
    EXPECT_EQ(corrections(part, slc_geometry()), (Corrections{kYes, kYes, kYes}));
    const PartResult worse = part_with({{0, 2, 8, 0, 0}, {kUnit - 2, 2, 9, 0, 0}, {kUnit, 2, 8, 0, 0}});
    EXPECT_EQ(corrections(worse, slc_geometry()), (Corrections{kNo, kNo, kYes}));
}

TEST(Corrections, OfARunInTwoUnits) {
    // Three bytes in each unit, and every byte has a flip at least.
    EXPECT_EQ(corrections(part_with({{kUnit - 3, 6, 19, 0, 0}}), slc_geometry()), Corrections{kYes});
    EXPECT_EQ(corrections(part_with({{kUnit - 3, 6, 20, 0, 0}}), slc_geometry()), Corrections{kOpen});
    EXPECT_EQ(corrections(part_with({{kUnit - 17, 18, 18, 0, 0}}), slc_geometry()), Corrections{kNo});
}

TEST(Corrections, OfARunThatHoldsAWholeUnit) {
    EXPECT_EQ(corrections(part_with({{kUnit - 1, kUnit + 2, kUnit + 2, 0, 0}}), slc_geometry()),
              Corrections{kNo});
}

TEST(Corrections, LeaveBytesAfterTheUnitsOut) {
    const PartResult part =
        part_with({{2111, 17, 17, 0, 0}, {2128 + 2112, 16, 128, 0, 0}, {2 * 2128, 1, 1, 0, 0}});
    EXPECT_EQ(corrections(part, roomy_geometry()), (Corrections{kYes, kOpen, kYes}));
    EXPECT_EQ(corrections(part_with({{2112, 16, 16, 0, 0}}), roomy_geometry()), Corrections{kOpen});
}

TEST(Corrections, AreOpenWhereRunsAreNotListed) {
    PartResult part = part_with({{0, 1, 1, 0, 0}, {kUnit, 1, 1, 0, 0}});
    part.runs_found = 3;
    EXPECT_EQ(corrections(part, slc_geometry()), (Corrections{kYes, kOpen}));
}

TEST(Corrections, AreOpenInAUnitThatIsCutOff) {
    PartResult part = part_with({{0, 1, 1, 0, 0}, {kUnit, 1, 1, 0, 0}});
    part.bytes = 2112;
    part.missing = 100;
    EXPECT_EQ(corrections(part, slc_geometry()), (Corrections{kYes, kOpen}));
}

TEST(Corrections, AreOpenInAPartThatIsNotAllRead) {
    PartResult part = part_with({{0, 1, 1, 0, 0}, {kUnit, 3, 17, 0, 0}});
    part.unreadable = 1;
    EXPECT_EQ(corrections(part, slc_geometry()), (Corrections{kOpen, kNo}));
}

TEST(Corrections, AreOpenWithoutSpareAreas) {
    EXPECT_EQ(corrections(part_with({{0, 1, 1, 0, 0}}), nand_geometry()), Corrections{kOpen});
}

TEST(DifferingSectors, CountsEachSectorOnce) {
    const PartResult part =
        part_with({{512, 2, 2, 0, 0}, {1023, 2, 2, 0, 0}, {5000, 1, 1, 0, 0}, {520, 1, 1, 0, 0}});
    EXPECT_EQ(differing_sectors(part), 3u);
    EXPECT_EQ(differing_sectors(part_with({{0, 512 * 1000, 1, 0, 0}, {100, 5, 1, 0, 0}})), 1000u);
    EXPECT_EQ(differing_sectors(part_with({})), 0u);
}

TEST(FirstRun, IsTheLowestAndNotTheFirstListed) {
    const PartResult part = part_with({{900, 1, 1, 0, 0}, {100, 1, 1, 0, 0}});
    EXPECT_EQ(first_run(part)->offset, 100u);
    EXPECT_EQ(first_run(part_with({})), nullptr);
}

}  // namespace
