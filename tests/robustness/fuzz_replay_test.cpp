// What fuzzing starts from and what it has found, through the same entry functions, without a fuzzer: in
// every build, and under every sanitizer.

#include "fuzz/fuzz_target.h"
#include "fuzz/mutation.h"
#include "program_run.h"

#include <cctype>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <random>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

namespace robustness {
namespace {

using namespace test_support;

// The program's messages go nowhere while the object lives.
class MutedOutput {
public:
    MutedOutput() : m_kept(::dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nowhere, STDOUT_FILENO);
        ::close(nowhere);
    }
    MutedOutput(const MutedOutput&) = delete;
    MutedOutput& operator=(const MutedOutput&) = delete;
    ~MutedOutput() {
        std::fflush(stdout);
        ::dup2(m_kept, STDOUT_FILENO);
        ::close(m_kept);
    }

private:
    int m_kept;
};

// Empty, or what the target has against the input.
std::string complaint(const FuzzTarget& target, const Bytes& input) {
    const MutedOutput muted;
    try {
        target.run(input);
    } catch (const std::exception& exception) {
        return exception.what();
    }
    return {};
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

void PrintTo(const Finding& finding, std::ostream* out) {
    *out << finding.target.name << " with " << finding.input.name;
}

std::vector<Finding> all_findings() {
    std::vector<Finding> findings;
    for (const FuzzTarget& target : fuzz_targets())
        for (const NamedInput& input : findings_of(target))
            findings.push_back({target, input});
    return findings;
}

// Letters and digits of the name, each word with a capital letter.
std::string test_name(const Finding& finding) {
    std::string name;
    bool starts_word = true;
    for (const char c : finding.target.name + ("-" + finding.input.name)) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            name += starts_word ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        starts_word = std::isalnum(static_cast<unsigned char>(c)) == 0;
    }
    return name;
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

INSTANTIATE_TEST_SUITE_P(Targets, FuzzFinding, testing::ValuesIn(all_findings()),
                         [](const auto& tested) { return test_name(tested.param); });

}  // namespace
}  // namespace robustness
