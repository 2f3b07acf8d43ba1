#include "check/comparison/comparison.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

namespace {

using namespace test_support;

const OutputPart kGap{};
const OutputPart kTable{.kind = OutputPart::Kind::kGpt};

OutputPart item(const std::string& name) {
    return {.kind = OutputPart::Kind::kItem, .name = name};
}

/// One write of a conversion. A part that goes on has no name of its own.
struct Write {
    uint64_t offset = 0;
    Bytes bytes{};
    std::optional<OutputPart> part{};
};

using Writes = std::vector<Write>;

Bytes of(uint8_t value, std::size_t count) {
    return Bytes(count, value);
}

Bytes image_of(const Writes& writes) {
    Bytes image;
    for (const Write& write : writes) {
        image.resize(std::max<std::size_t>(image.size(), write.offset + write.bytes.size()));
        put_bytes_at(image, write.offset, write.bytes);
    }
    return image;
}

/// A comparison with files in a directory of its own. It takes what a conversion would hand over.
class Driven {
public:
    explicit Driven(const Bytes& image) : Driven() {
        write_file(m_directory / "image", image);
        EXPECT_EQ(m_target.open(m_directory / "image"), 0);
        plan.target = &m_target;
        plan.geometry.whole_image = true;
    }
    explicit Driven(const Files& files) : Driven() {
        for (const auto& [name, bytes] : files)
            write_file(m_directory / name, bytes);
        plan.directory = m_directory.path().string() + "/";
    }

    /// 0, or what the first write that was refused gave.
    int write(const std::string& file, const Writes& writes) {
        uint64_t size = 0;
        EXPECT_EQ(compared().open(file, {}, size), 0);
        for (const Write& write : writes) {
            if (write.part)
                compared().begin_part(*write.part);
            if (const int error = compared().bytes(write.offset, write.bytes.data(), write.bytes.size());
                error != 0)
                return error;
        }
        EXPECT_EQ(compared().end(image_of(writes).size()), 0);
        EXPECT_EQ(compared().close(), 0);
        return 0;
    }
    int write(const Writes& writes) { return write("out_image.img", writes); }

    Comparison& compared() {
        if (!m_comparison)
            m_comparison = std::make_unique<Comparison>(plan);
        return *m_comparison;
    }
    PartResult part(const std::string& name) {
        for (const PartResult& result : compared().results())
            if (result.name == name)
                return result;
        ADD_FAILURE() << "no part " << name;
        return {};
    }

    ComparisonPlan plan;  // as it stands at the first write

private:
    Driven() {
        plan.geometry.page = plan.geometry.page_data = 2048;
        plan.geometry.block = 128 * kIb;
    }

    TemporaryDirectory m_directory;
    Target m_target;
    std::unique_ptr<Comparison> m_comparison;
};

/// A gap and an item, then the table over the start of the gap, then an item after all.
const Writes kTableOverGap{
    {0, of(0, 4000), kGap},
    {4000, of(1, 1000), item("boot")},
    {0, of(2, 1000), kTable},
    {5000, of(3, 1000), item("rootfs")},
};

Bytes changed_at(std::size_t offset) {
    Bytes image = image_of(kTableOverGap);
    image.at(offset) ^= 1U;
    return image;
}

// ---- whether a second pass is needed ----

TEST(ComparisonPasses, OneWhereNothingIsWrittenAgain) {
    Driven driven(Bytes(2000, 7));
    EXPECT_EQ(driven.write({{0, of(1, 1000), item("a")}, {1000, of(2, 1000), item("b")}}), 0);
    EXPECT_FALSE(driven.compared().needs_second_pass());
    EXPECT_EQ(driven.part("a").differing, 1000U);
    EXPECT_EQ(driven.part("b").differing, 1000U);
}

TEST(ComparisonPasses, OneWhereTheSameIsWrittenAgain) {
    const Writes writes{{0, of(1, 2000), item("a")}, {0, of(1, 1000), kTable}};
    Driven driven(image_of(writes));
    EXPECT_EQ(driven.write(writes), 0);
    EXPECT_FALSE(driven.compared().needs_second_pass());
}

TEST(ComparisonPasses, OneForADifferenceInTheLastWriter) {
    const Writes writes{{0, of(1, 2000), item("a")}, {0, of(1, 1000), kTable}, {2000, of(2, 9), item("b")}};
    Bytes image = image_of(writes);
    image.at(2003) ^= 1U;
    Driven driven(image);
    EXPECT_EQ(driven.write(writes), 0);
    EXPECT_FALSE(driven.compared().needs_second_pass());
    EXPECT_EQ(driven.part("b").differing, 1U);
}

TEST(ComparisonPasses, TwoForADifferenceBeforeTheLastWriter) {
    for (const std::size_t place : {std::size_t{1500}, std::size_t{4999}}) {
        Driven driven(changed_at(place));
        EXPECT_EQ(driven.write(kTableOverGap), 0);
        EXPECT_TRUE(driven.compared().needs_second_pass()) << place;
    }
}

TEST(ComparisonPasses, TwoWhereBytesAreMissing) {
    Driven driven(Bytes(500, 1));
    EXPECT_EQ(driven.write({{0, of(1, 1000), item("a")}, {0, of(1, 400), kTable}}), 0);
    EXPECT_TRUE(driven.compared().needs_second_pass());
}

// ---- the second pass ----

TEST(ComparisonSecondPass, RefusesBytesFromTheLastRewriting) {
    Driven driven(image_of(kTableOverGap));
    EXPECT_EQ(driven.write(kTableOverGap), 0);
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    const Writes before_the_table(kTableOverGap.begin(), kTableOverGap.begin() + 2);
    const Writes up_to_the_table(kTableOverGap.begin(), kTableOverGap.begin() + 3);
    EXPECT_EQ(driven.write(before_the_table), 0);
    EXPECT_EQ(driven.write(up_to_the_table), ECANCELED);
    EXPECT_EQ(driven.compared().bytes(5000, kTableOverGap[3].bytes.data(), 1000), ECANCELED);
    EXPECT_TRUE(driven.compared().finish_second_pass());
}

TEST(ComparisonSecondPass, ThatEndsEarlierIsNotComplete) {
    Driven driven(image_of(kTableOverGap));
    EXPECT_EQ(driven.write(kTableOverGap), 0);
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(driven.write(Writes(kTableOverGap.begin(), kTableOverGap.begin() + 1)), 0);
    EXPECT_FALSE(driven.compared().finish_second_pass());
}

TEST(ComparisonSecondPass, FindsARewrittenPlaceTheSame) {
    Driven driven(image_of(kTableOverGap));
    EXPECT_EQ(driven.write(kTableOverGap), 0);
    EXPECT_EQ(driven.part("gaps").differing, 1000U) << "the first pass does not know the table yet";
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(driven.write(kTableOverGap), ECANCELED);
    ASSERT_TRUE(driven.compared().finish_second_pass());
    ASSERT_EQ(driven.compared().results().size(), 4U);
    uint64_t compared = 0;
    for (const PartResult& part : driven.compared().results()) {
        EXPECT_EQ(part.verdict, Verdict::kSame) << part.name;
        compared += part.compared;
    }
    EXPECT_EQ(compared, 6000U) << "each byte once";
    EXPECT_EQ(driven.part("gaps").compared, 3000U);
}

TEST(ComparisonSecondPass, KeepsWhatTheFirstOneFoundAfterIt) {
    Bytes image = changed_at(10);  // in the table
    for (const std::size_t place : {2000U, 5000U, 5500U, 5501U})
        image.at(place) ^= 3U;
    Driven driven(image);
    EXPECT_EQ(driven.write(kTableOverGap), 0);
    const PartResult rootfs = driven.part("rootfs");
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(driven.write(kTableOverGap), ECANCELED);
    ASSERT_TRUE(driven.compared().finish_second_pass());
    EXPECT_EQ(driven.part("gaps").differing, 1U);
    EXPECT_EQ(driven.part("boot").differing, 0U);
    EXPECT_EQ(driven.part("gpt").differing, 1U);
    EXPECT_EQ(driven.part("gpt").runs.at(0).offset, 10U);
    EXPECT_EQ(driven.part("rootfs").differing, 3U);
    EXPECT_EQ(driven.part("rootfs").runs_found, 2U);
    EXPECT_EQ(driven.part("rootfs").compared, rootfs.compared);
    EXPECT_EQ(driven.part("rootfs").runs.at(1).offset, rootfs.runs.at(1).offset);
}

TEST(ComparisonSecondPass, TellsNeitherProgressNorWatch) {
    Driven driven(Files{{"misc.img", of(2, 1000)}});
    uint64_t told = 0;
    uint64_t watched = 0;
    driven.plan.progress = [&](uint64_t bytes) { told += bytes; };
    driven.plan.watch = [&](const std::string&, std::span<const uint8_t> bytes) { watched += bytes.size(); };
    const Writes writes{{0, of(1, 1000), item("misc")}, {0, of(2, 1000)}};
    EXPECT_EQ(driven.write("misc.img", writes), 0);
    EXPECT_EQ(told, 2000U);
    EXPECT_EQ(watched, 2000U);
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(driven.write("misc.img", writes), ECANCELED);
    EXPECT_EQ(told, 2000U);
    EXPECT_EQ(watched, 2000U);
}

// ---- several parts at one place ----

/// Three items at overlapping places, the first one with a piece that stays.
const Writes kThreeAtOnePlace{
    {0, of(1, 3000), item("first")},
    {500, of(2, 1000), item("second")},
    {1000, of(3, 1000), item("third")},
};

PartResult part_after_both_passes(const Bytes& image, const std::string& name) {
    Driven driven(image);
    EXPECT_EQ(driven.write(kThreeAtOnePlace), 0);
    EXPECT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(driven.write(kThreeAtOnePlace), ECANCELED);
    EXPECT_TRUE(driven.compared().finish_second_pass());
    return driven.part(name);
}

TEST(ComparisonOverlap, LastWriterIsTheOneThatCounts) {
    const Bytes image = image_of(kThreeAtOnePlace);
    for (const auto& [name, bytes] : {std::pair{"first", 1500U}, {"second", 500U}, {"third", 1000U}}) {
        const PartResult part = part_after_both_passes(image, name);
        EXPECT_EQ(part.verdict, Verdict::kSame) << name;
        EXPECT_EQ(part.compared, bytes) << name;
        EXPECT_TRUE(part.is_compared()) << name;
    }
}

TEST(ComparisonOverlap, BytesOfAnEarlierWriterDiffer) {
    const Bytes image(3000, 1);  // as the first one would leave it
    EXPECT_EQ(part_after_both_passes(image, "first").differing, 0U);
    EXPECT_EQ(part_after_both_passes(image, "second").differing, 500U);
    EXPECT_EQ(part_after_both_passes(image, "third").differing, 1000U);
}

TEST(ComparisonOverlap, ExtentsSayWhatIsWrittenAgain) {
    Driven driven(image_of(kThreeAtOnePlace));
    EXPECT_EQ(driven.write(kThreeAtOnePlace), 0);
    std::map<std::string, bool> again;
    for (const Comparison::Extent& extent : driven.compared().extents())
        again[extent.part.name] = extent.written_again;
    EXPECT_EQ(again, (std::map<std::string, bool>{{"first", true}, {"second", true}, {"third", false}}));
}

// ---- files ----

TEST(ComparisonFiles, AnItemOfTheSameNameReplacesAFile) {
    Driven driven(Files{{"misc.img", of(2, 700)}});
    EXPECT_EQ(driven.write("misc.img", {{0, of(1, 3000), item("misc")}, {0, of(9, 10)}}), 0);
    EXPECT_EQ(driven.write("misc.img", {{0, of(2, 700), item("misc")}}), 0);
    EXPECT_FALSE(driven.compared().needs_second_pass()) << "what was replaced does not count";
    ASSERT_EQ(driven.compared().results().size(), 1U);
    EXPECT_EQ(driven.part("misc").verdict, Verdict::kSame);
    EXPECT_EQ(driven.part("misc").bytes, 700U);
    EXPECT_EQ(driven.part("misc").compared, 700U);
}

TEST(ComparisonFiles, SecondPassLeavesOutAReplacedFile) {
    Driven driven(Files{{"misc.img", of(2, 700)}, {"boot.img", of(5, 100)}});
    const auto write_all = [&] {
        EXPECT_EQ(driven.write("misc.img", {{0, of(1, 3000), item("misc")}}), 0);
        const int error = driven.write("boot.img", {{0, of(4, 100), item("boot")}, {0, of(5, 100)}});
        return error != 0 ? error : driven.write("misc.img", {{0, of(2, 700), item("misc")}});
    };
    EXPECT_EQ(write_all(), 0);
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    EXPECT_EQ(write_all(), ECANCELED);
    ASSERT_TRUE(driven.compared().finish_second_pass());
    EXPECT_EQ(driven.part("misc").verdict, Verdict::kSame);
    EXPECT_EQ(driven.part("misc").bytes, 700U);
    EXPECT_EQ(driven.part("boot").verdict, Verdict::kSame);
}

// ---- what was compared to its end ----

TEST(ComparisonEnd, OfFilesIsKnownByEachOfThem) {
    Driven driven(Files{{"boot.img", of(5, 100)}, {"misc.img", of(2, 700)}});
    uint64_t size = 0;
    EXPECT_EQ(driven.compared().open("boot.img", {}, size), 0);
    EXPECT_EQ(driven.compared().bytes(0, of(5, 50).data(), 50), 0);
    EXPECT_EQ(driven.compared().close(), 0);  // not all was handed over
    EXPECT_EQ(driven.write("misc.img", {{0, of(2, 700), item("misc")}}), 0);
    EXPECT_FALSE(driven.part("boot").is_compared());
    EXPECT_TRUE(driven.part("misc").is_compared());
}

TEST(ComparisonEnd, OfAnImageIsInItsLastPart) {
    Driven driven(of(5, 200));
    uint64_t size = 0;
    EXPECT_EQ(driven.compared().open("out_image.img", {}, size), 0);
    for (const uint64_t offset : {0U, 100U}) {
        driven.compared().begin_part(item(offset == 0 ? "boot" : "misc"));
        EXPECT_EQ(driven.compared().bytes(offset, of(5, 100).data(), 100), 0);
    }
    EXPECT_EQ(driven.compared().close(), 0);
    EXPECT_TRUE(driven.part("boot").is_compared());
    EXPECT_FALSE(driven.part("misc").is_compared());
}

TEST(ComparisonEnd, BytesAfterItTakeItBack) {
    Driven driven(Files{{"boot.img", of(5, 100)}});
    uint64_t size = 0;
    EXPECT_EQ(driven.compared().open("boot.img", {}, size), 0);
    EXPECT_EQ(driven.compared().bytes(0, of(5, 50).data(), 50), 0);
    EXPECT_EQ(driven.compared().end(50), 0);
    EXPECT_EQ(driven.compared().bytes(50, of(5, 50).data(), 50), 0);
    EXPECT_EQ(driven.compared().close(), 0);
    EXPECT_FALSE(driven.part("boot").is_compared());
}

TEST(ComparisonEnd, SecondPassNeedsThatOfEarlierFiles) {
    Driven driven(Files{{"misc.img", of(2, 700)}, {"boot.img", of(5, 100)}});
    const Writes misc{{0, of(2, 700), item("misc")}};
    const Writes boot{{0, of(4, 100), item("boot")}, {0, of(5, 100)}};
    EXPECT_EQ(driven.write("misc.img", misc), 0);
    EXPECT_EQ(driven.write("boot.img", boot), 0);
    ASSERT_TRUE(driven.compared().needs_second_pass());
    driven.compared().start_second_pass();
    uint64_t size = 0;
    EXPECT_EQ(driven.compared().open("misc.img", {}, size), 0);
    EXPECT_EQ(driven.compared().bytes(0, of(2, 50).data(), 50), 0);
    EXPECT_EQ(driven.compared().close(), 0);
    EXPECT_EQ(driven.write("boot.img", boot), ECANCELED);
    EXPECT_FALSE(driven.compared().finish_second_pass());
}

TEST(NotCompared, NamesAPartThatIsSameAndHasNoEnd) {
    CheckResult result;
    for (const std::string name : {"boot", "misc", "rootfs", "data"}) {
        PartResult part;
        part.name = name;
        part.bytes = 5;
        part.ended = true;
        result.parts.push_back(part);
    }
    result.parts[0].compared = 5;
    result.parts[1].compared = 3;
    result.parts[1].written_again = 2;
    result.parts[2].verdict = Verdict::kIgnored;
    result.parts[3].verdict = Verdict::kMissing;
    EXPECT_EQ(not_compared(result, false), std::nullopt);
    result.parts[1].compared = 2;
    EXPECT_EQ(not_compared(result, false), "misc was not compared to its end");
    result.parts[1].compared = 3;
    result.parts[0].ended = false;
    result.parts[0].file = "boot.img";
    EXPECT_EQ(not_compared(result, false), "boot.img was not compared to its end");
}

// ---- giving up ----

TEST(ComparisonGivesUp, AtThatManyWrongBytesOfParts) {
    for (const auto& [count, error] : {std::pair{99U, 0}, std::pair{100U, ECANCELED}}) {
        Driven driven(Bytes(1000, 1));
        driven.plan.give_up_at = 100;
        EXPECT_EQ(driven.write({{0, of(2, count), item("a")}}), error) << count;
    }
}

TEST(ComparisonGivesUp, NotForWrongBytesOfGaps) {
    Driven driven(Bytes(10000, 1));
    driven.plan.give_up_at = 100;
    EXPECT_EQ(driven.write({{0, of(0, 9000), kGap}, {9000, of(2, 99), item("a")}}), 0);
    EXPECT_EQ(driven.part("gaps").differing, 9000U);
}

TEST(ComparisonGivesUp, NotForWhatAFileWasReplacedBy) {
    Driven driven(Files{{"misc.img", of(2, 300)}});
    driven.plan.give_up_at = 100;
    EXPECT_EQ(driven.write("misc.img", {{0, of(1, 99), item("misc")}}), 0);
    EXPECT_EQ(driven.write("misc.img", {{0, of(2, 201), item("misc")}, {201, of(1, 99)}}), 0);
}

TEST(ComparisonGivesUp, AtBytesThatAreMissing) {
    Driven driven(Bytes(1000, 1));
    driven.plan.give_up_at = 100;
    EXPECT_EQ(driven.write({{0, of(1, 1099), item("a")}}), 0);
    EXPECT_EQ(driven.compared().bytes(1099, of(1, 1).data(), 1), ECANCELED);
}

}  // namespace
