// What a run costs, by counts that are the same on every machine: a change that costs an order of magnitude
// goes red here.

#include "common/bch.h"
#include "program_run.h"
#include "support/bch_paths.h"
#include "support/output_of.h"
#include "support/sparse_builder.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sstream>

namespace robustness {
namespace {

using namespace test_support;

Conversion usual(const std::string& type) {
    return {type, "128", "2", "64"};
}

// A GPT, and one plain image of so many bytes.
Firmware firmware_with_data(std::size_t size) {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.item("rootfs").data = patterned(size, 1);
    return firmware;
}

// The last line of `strace -c`: "100.00    0.012345           4      2814         3 total".
long total_calls(const std::string& table) {
    for (const std::string& line : split(table, '\n')) {
        std::istringstream words(line);
        double number = 0;
        long calls = 0;
        if (line.ends_with(" total") && words >> number >> number >> number >> calls)
            return calls;
    }
    return -1;
}

class SystemCalls : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (kSanitized)
            GTEST_SKIP() << "needs a build without sanitizers";
        m_strace = find_program("strace");
        if (m_strace.empty())
            GTEST_SKIP() << "missing tool: strace";
        if (!run_program(m_strace, {"-f", "-c", "-o", counts(), "true"}).succeeded())
            GTEST_SKIP() << "strace is not allowed to trace here";
    }

    // System calls of a conversion, its output removed before.
    long calls_of(const Workplace& place) {
        place.empty_output();
        Arguments arguments = usual(GetParam()).arguments(place.firmware(), place.out_dir());
        arguments.insert(arguments.begin(), {"-f", "-c", "-o", counts(), NANDSMITH_PROGRAM});
        const RunResult run = run_program(m_strace, arguments);
        EXPECT_TRUE(run.succeeded()) << run.out << run.err;
        return total_calls(to_text(read_file(counts())));
    }

    // Between two firmwares, so that what a run costs in any case falls out.
    void expect_at_most_one_for_64_kib(const Firmware& small, const Firmware& large, uint64_t moved) {
        const long base = calls_of(Workplace(small));
        const long calls = calls_of(Workplace(large));
        ASSERT_GT(base, 0);
        EXPECT_LE(calls - base, static_cast<long>(moved / (64 * 1024)));
#ifndef NANDSMITH_COVERAGE  // which makes calls of its own
        EXPECT_LE(base, 400);
#endif
    }

    std::string counts() const {
        return m_files / "counts";
    }

    fs::path m_strace;
    TemporaryDirectory m_files;
};

TEST_P(SystemCalls, AreAtMostOneFor64KibOfData) {
    constexpr uint64_t size = 32 * kMib;
    expect_at_most_one_for_64_kib(firmware_with_data(4096), firmware_with_data(size), size);
}

TEST_P(SystemCalls, AreAtMostOneFor64KibOfASparseImage) {
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 1))};
    Firmware small = firmware_with_data(0);
    small.item("rootfs").data = image.build();
    for (int i = 0; i < 16; ++i) {
        image.chunks.push_back(SparseChunk::raw(patterned(kMib, 2)));
        image.chunks.push_back(SparseChunk::dont_care(256));
    }
    Firmware large = small;
    large.item("rootfs").data = image.build();
    // The temporary file and the output hold every byte.
    expect_at_most_one_for_64_kib(small, large, 2 * 32 * kMib);
}

INSTANTIATE_TEST_SUITE_P(Types, SystemCalls, testing::ValuesIn(kStorageTypes),
                         [](const auto& tested) { return tested.param; });

uint64_t codewords_of(const Firmware& firmware, const Conversion& conversion, const BchPath* path = nullptr) {
    const Workplace place(firmware);
    const uint64_t before = bch_encoded_codewords();
    int status = -1;
    const std::string out =
        output_of([&] { status = convert_by_call(conversion, place.firmware(), place.out_dir(), path); });
    EXPECT_EQ(status, kConverted) << out;
    return bch_encoded_codewords() - before;
}

// Every file is filled up to a whole block, of 256 pages in one run and of 4096 in the other.
TEST(EncoderCalls, DoNotGrowWithFillPages) {
    for (const bool page_2k : {false, true}) {
        SCOPED_TRACE(page_2k);
        Firmware firmware = sample_firmware({.gpt = true});
        firmware.items.resize(2);  // parameter and boot
        const uint64_t few = codewords_of(firmware, {"slc", "1024", "4", "128", page_2k});
        const uint64_t many = codewords_of(firmware, {"slc", "16384", "4", "128", page_2k});
        EXPECT_LE(many, few + 16);
        EXPECT_LE(few, 400U);
    }
}

TEST(EncoderCalls, AreOneForAKilobyteOfData) {
    constexpr std::size_t size = 4 * kMib;
    for (const BchPath& path : available_bch_paths()) {
        const uint64_t base = codewords_of(firmware_with_data(2048), usual("slc"), &path);
        const uint64_t calls = codewords_of(firmware_with_data(2048 + size), usual("slc"), &path);
        EXPECT_EQ(calls - base, size / 1024);
    }
}

class PeakMemory : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (kSanitized)
            GTEST_SKIP() << "needs a build without sanitizers";
#ifdef __GLIBC__
        ::malloc_trim(0);  // what this process holds counts in until it has become the program
#endif
    }
};

// The firmware is nearly all holes, and its image goes where it takes no room.
TEST_P(PeakMemory, IsAtMost16MibForAFirmwareOf1Gib) {
    Firmware firmware = firmware_with_data(4096);
    Item& rootfs = firmware.item("rootfs");
    rootfs.size = 1024 * kMib;
    rootfs.reserve_size = true;
    const WorkDirectory place(memory_directory());
    place.pack(firmware);
    for (const char* name : {"out_image.img", "rootfs.img"})
        fs::create_symlink("/dev/null", place.out(name));

    const RunResult run =
        run_program(NANDSMITH_PROGRAM, usual(GetParam()).arguments(place.firmware(), place.out_dir()));
    ASSERT_TRUE(run.succeeded()) << run.out;
    EXPECT_LE(run.max_rss_kb, 16 * 1024);
}

INSTANTIATE_TEST_SUITE_P(Types, PeakMemory, testing::ValuesIn(kStorageTypes),
                         [](const auto& tested) { return tested.param; });

}  // namespace
}  // namespace robustness
