#include "bch_encoding.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string_view>
#include <vector>
#if defined(__linux__)
#include <sys/auxv.h>
#endif

namespace {

using namespace bch_tests;

using test_support::available_bch_paths;
using Names = std::vector<std::string_view>;

// ---- the table ----

TEST(BchPathTable, EndsWithThePortablePath) {
    EXPECT_EQ(bch_paths().back().name, "portable");
    EXPECT_EQ(bch_paths().back().kernel, kBchPortable.kernel);
    EXPECT_TRUE(bch_paths().back().available());
}

TEST(BchPathTable, HasEachNameAndKernelOnce) {
    std::set<std::string_view> names;
    std::set<BchKernel> kernels;
    for (const BchPath& path : bch_paths()) {
        names.insert(path.name);
        kernels.insert(path.kernel);
    }
    EXPECT_EQ(names.size(), bch_paths().size());
    EXPECT_EQ(kernels.size(), bch_paths().size());
}

// What this processor offers, by its instructions; wider vectors are faster.
Names expected_names() {
    Names names;
#if defined(__x86_64__)
    const bool multiplies_128 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul");
    const bool multiplies_256 = multiplies_128 && __builtin_cpu_supports("vpclmulqdq");
    if (multiplies_256 && __builtin_cpu_supports("avx512f"))
        names.push_back("carry_less_512");
    if (multiplies_256)
        names.push_back("carry_less_256");
    if (multiplies_128)
        names.push_back("carry_less_128");
#elif defined(__aarch64__) && defined(__linux__)
    if ((getauxval(AT_HWCAP) & HWCAP_PMULL) != 0)
        names.push_back("carry_less_arm_128");
#endif
    names.push_back("portable");
    return names;
}

// Paths that this test does not know may stand between the others.
TEST(BchPathTable, OffersWhatThisProcessorHas) {
    const Names known = {"carry_less_512", "carry_less_256", "carry_less_128", "carry_less_arm_128",
                         "portable"};
    Names offered;
    for (const BchPath& path : available_bch_paths())
        if (std::ranges::find(known, path.name) != known.end())
            offered.push_back(path.name);
    EXPECT_EQ(offered, expected_names());
}

// ---- choosing from it ----

BchPath made_up(std::string_view name, bool available) {
    return {name, available ? [] { return true; } : [] { return false; }, kBchPortable.kernel};
}

TEST(BchFastestPath, IsTheFirstThatIsAvailable) {
    for (unsigned available = 1; available < 16; ++available) {
        const Names names = {"first", "second", "third", "fourth"};
        std::vector<BchPath> paths;
        for (std::size_t i = 0; i < names.size(); ++i)
            paths.push_back(made_up(names[i], (available >> i & 1) != 0));
        EXPECT_EQ(&bch_fastest_path(paths), &paths[static_cast<std::size_t>(std::countr_zero(available))])
            << "available: bits of " << available;
    }
}

TEST_F(BchTest, SelectsTheFirstAvailableRowAtInit) {
    const BchPath fastest = available_bch_paths().front();
    for (const BchPath& path : available_bch_paths()) {
        bch_select_path(path);
        EXPECT_EQ(bch_selected_path().name, path.name);
        bch_init(16);
        EXPECT_EQ(bch_selected_path().name, fastest.name);
        EXPECT_EQ(bch_selected_path().kernel, fastest.kernel);
    }
}

uint32_t counted_codewords;

void count_codewords(const BchTables& tables, const uint8_t* const* codewords, uint32_t count,
                     BchRegister* results) {
    counted_codewords += count;
    kBchPortable.kernel(tables, codewords, count, results);
}

TEST_F(BchTest, EncodesByTheSelectedPath) {
    bch_init(16);
    bch_select_path({"counting", [] { return true; }, count_codewords});
    counted_codewords = 0;
    Bytes page = test_support::patterned(std::size_t{9} * AllBytesNum, 6);
    bch_encode_units(units_of(page, 0, 9, AllBytesNum).data(), 9);
    EXPECT_EQ(counted_codewords, 9U);
    bch_encode(page.data(), page.data());
    EXPECT_EQ(counted_codewords, 10U);
}

using BchPathDeathTest = BchTest;

TEST_F(BchPathDeathTest, RefusesPathsThatAreNotAvailable) {
    const std::vector<BchPath> paths = {made_up("absent", false)};
    EXPECT_DEATH(bch_select_path(paths[0]), "bch_select_path.*Assertion");
    EXPECT_DEATH(bch_fastest_path(paths), "bch_fastest_path.*Assertion");
}

}  // namespace
