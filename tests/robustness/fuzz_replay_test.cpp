// What fuzzing starts from and what it has found, through the same entry functions, without a fuzzer: in
// every build, and under every sanitizer.

#include "fuzz/fuzz_target.h"
#include "fuzz/mutation.h"
#include "support/output_of.h"
#include "support/process_limits.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

namespace robustness {
namespace {

using namespace test_support;

// Empty, or what the target has against the input.
std::string complaint(const FuzzTarget& target, const Bytes& input) {
    std::string what;
    output_of([&] {
        try {
            target.run(input);
        } catch (const std::exception& exception) {
            what = exception.what();
        }
    });
    return what;
}

void expect_no_complaints(const FuzzTarget& target, const std::vector<NamedInput>& inputs) {
    for (const NamedInput& input : inputs)
        EXPECT_EQ(complaint(target, input.bytes), "") << target.name << " with " << input.name;
}

class FuzzReplay : public testing::TestWithParam<FuzzTarget> {};

TEST_P(FuzzReplay, PassesEverySeed) {
    const std::vector<NamedInput> seeds = GetParam().seeds();
    std::set<std::string> names;
    for (const NamedInput& seed : seeds)
        names.insert(seed.name);
    EXPECT_GE(seeds.size(), 5U);
    EXPECT_EQ(names.size(), seeds.size()) << "a seed writes over another one";
    expect_no_complaints(GetParam(), seeds);
}

TEST_P(FuzzReplay, PassesInputsThatAreNotAnImage) {
    for (const std::size_t size : {0U, 1U, 2U, 3U, 4U, 5U, 27U, 28U, 101U, 102U, 103U, 512U, 4096U})
        for (const uint8_t value : {uint8_t{0}, uint8_t{0xFF}})
            EXPECT_EQ(complaint(GetParam(), Bytes(size, value)), "") << size << " times " << int{value};
}

// The same inputs on every machine: a fuzzer's mutations with a plain generator in the place of the fuzzer's.
TEST_P(FuzzReplay, PassesBentSeeds) {
    std::minstd_rand random(1);
    const auto change_a_byte = [&random](Bytes& bytes, std::size_t largest) {
        bytes.resize(std::max<std::size_t>(std::min(bytes.size(), largest), 1));
        bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
    };
    const std::vector<NamedInput> seeds = GetParam().seeds();
    constexpr unsigned bent_inputs = 150;
    for (unsigned i = 0; i < bent_inputs; ++i) {
        const NamedInput& seed = seeds[i % seeds.size()];
        Bytes input = seed.bytes;
        Mutation mutation(GetParam(), i + 1, change_a_byte);
        for (unsigned times = 0; times <= i % 3; ++times)
            mutation.apply(input, input.size() + 64);
        EXPECT_EQ(complaint(GetParam(), input), "") << GetParam().name << ", bent seed " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, testing::ValuesIn(fuzz_targets()),
                         [](const auto& tested) { return std::string(tested.param.name); });

// ---- findings ----

struct Finding {
    FuzzTarget target;
    NamedInput input;
};

std::vector<Finding> all_findings() {
    std::vector<Finding> findings;
    for (const FuzzTarget& target : fuzz_targets())
        for (const NamedInput& input : findings_of(target))
            findings.push_back({target, input});
    return findings;
}

class FuzzFinding : public testing::TestWithParam<Finding> {};

// In a process of its own, because a finding may end the process or take hours.
TEST_P(FuzzFinding, PassesInSeconds) {
    constexpr rlim_t cpu_seconds = kSanitized ? 60 : 5;
    const auto run = [] {
        const rlimit limit{cpu_seconds, cpu_seconds};
        if (::setrlimit(RLIMIT_CPU, &limit) != 0)
            ::_exit(2);
        const std::string said = complaint(GetParam().target, GetParam().input.bytes);
        std::fprintf(stderr, "%s\n", said.c_str());
        ::_exit(said.empty() ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzFinding, testing::ValuesIn(all_findings()), [](const auto& tested) {
    std::string name = tested.param.target.name + ("_" + tested.param.input.name);
    std::ranges::replace(name, '-', '_');
    return name;
});

}  // namespace
}  // namespace robustness
