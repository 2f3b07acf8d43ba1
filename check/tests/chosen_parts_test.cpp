// Checks of parts that --only and --ignore name: what is left to compare, and what is said of nothing.

#include "check_bench.h"

namespace {

using namespace check_test;

// ---- nothing is left ----

class NothingToCompare : public testing::TestWithParam<Conversion> {
protected:
    static void expect_nothing(const CheckBench& bench, const std::string& option) {
        SCOPED_TRACE(option);
        const RunResult run = bench.check({option});
        EXPECT_EQ(run.exit_status, kTrouble) << run.out;
        EXPECT_EQ(last_line(run.out), "trouble: nothing is left to compare");
        EXPECT_EQ(bench.document({option}).at("error"), "nothing is left to compare");
    }
};

TEST_P(NothingToCompare, WithANameThatHasNoPartHere) {
    const CheckBench table(GetParam(), with_gpt());
    expect_nothing(table, "--only=parameter");
    expect_nothing(table, "--only=rest");
    const CheckBench parameter(GetParam(), without_gpt());
    expect_nothing(parameter, "--only=gpt");
    const CheckBench loader(GetParam(), with_gpt().boot.build(), "loader.bin");
    expect_nothing(loader, "--only=parameter");
    expect_nothing(loader, "--ignore=idblock,gaps");
    EXPECT_EQ(loader.check({"--only=idblock"}).exit_status, kSame);
}

INSTANTIATE_TEST_SUITE_P(Types, NothingToCompare, testing::ValuesIn(kFourTypes),
                         [](const auto& made) { return made.param.type; });

TEST(NothingIsCompared, OfAPartThatIsAllWrittenAgain) {
    Firmware firmware = with_gpt();
    for (const uint32_t seed : {1U, 2U})
        firmware.items.push_back(
            partition_item("twin" + std::to_string(seed), 0x9000, 0x40, patterned(20000, seed)));
    const CheckBench bench(kEmmc, firmware);
    EXPECT_EQ(last_line(bench.check({"--only=twin1"}).out), "trouble: nothing is left to compare");
    EXPECT_EQ(bench.check({"--only=twin2"}).exit_status, kSame);
}

TEST(ChosenGaps, AreCountedWhereNothingDiffers) {
    const CheckBench bench(kEmmc);
    const Json document = bench.document({"--only=gaps"});
    EXPECT_EQ(document.at("verdict"), "same");
    const Json gaps = part_of(document, "gaps");
    ASSERT_FALSE(gaps.is_null()) << document.dump(1);
    EXPECT_EQ(gaps.at("verdict"), "same");
    EXPECT_GT(gaps.at("compared"), 0);
    EXPECT_TRUE(last_line(bench.check({"--only=gaps"}).out).starts_with("same: 1 of 1 part"));
    EXPECT_TRUE(part_of(bench.document(), "gaps").is_null());
}

TEST(ChosenRest, IsAnAnswerWhereItCounts) {
    const CheckBench bench(kEmmc);
    const std::string image = bench.out("out_image.img");
    const auto status = [&](const std::string& option) {
        return run_check_program(bench.arguments_without_target({"--only=rest", option, image})).exit_status;
    };
    EXPECT_EQ(status("--strict"), kTrouble) << "there is no rest";
    fs::resize_file(image, fs::file_size(image) + 5000);
    EXPECT_EQ(status("--strict"), kSame);
    EXPECT_EQ(status("--verbose"), kTrouble) << "the rest does not count";
    bench.damage("out_image.img", fs::file_size(image) - 10);
    EXPECT_EQ(status("--strict"), kDiffers);
}

// ---- items with names of other parts ----

TEST(ChosenItems, NamedLikeACopyOfSomethingElse) {
    const std::string boot = "boot block, copy 1";
    const std::string parameter = "parameter, copy 3";
    Firmware firmware = with_gpt();
    firmware.items.push_back(partition_item(boot, 0x9000, 0x40, patterned(20000, 1)));
    firmware.items.push_back(partition_item(parameter, 0x9040, 0x40, patterned(20000, 2)));
    const CheckBench image(kEmmc, firmware);
    image.damage("out_image.img", 0x9000 * kSectorSize + 100);
    image.damage("out_image.img", 0x9040 * kSectorSize + 100);
    const CheckBench files(kSpiNand, firmware);
    files.damage(boot + ".img", 100);
    files.damage(parameter + ".img", 100);
    for (const CheckBench* bench : {&image, &files}) {
        EXPECT_EQ(bench->check({"--ignore=idblock,parameter"}).exit_status, kDiffers);
        EXPECT_EQ(bench->check({"--only=idblock"}).exit_status, kSame);
        EXPECT_EQ(bench->document({"--ignore=idblock,parameter"}).at("diagnoses"), Json::array());
        for (const std::string name : {"misc", "rootfs"})
            EXPECT_EQ(bench->check({"--ignore=" + name}).exit_status, kDiffers);
    }
}

TEST(ChosenItems, NamedLikeTheGapsHaveARow) {
    Firmware firmware = with_gpt();
    firmware.items.push_back(partition_item("gaps", 0x9000, 0x40, patterned(20000, 1)));
    const CheckBench bench(kEmmc, firmware);
    const Json document = bench.document();
    EXPECT_EQ(part_of(document, "gaps").at("bytes"), 0x40 * kSectorSize) << document.dump(1);
}

}  // namespace
