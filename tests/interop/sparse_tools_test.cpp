// Sparse images expand to what other people's tools make of them.

#include "interop/sample.h"
#include "support/sparse_builder.h"

namespace {

using namespace interop_test;

// What simg2img makes of a sparse image; nothing when it does not take it.
std::optional<Bytes> expanded_by_simg2img(const Bytes& sparse, const fs::path& scratch) {
    const fs::path input = scratch / "input.sparse";
    const fs::path output = scratch / "output.flat";
    fs::remove(output);
    write_file(input, sparse);
    const RunResult result = run_program(find_program("simg2img"), {input, output});
    return result.succeeded() ? std::optional(read_file(output)) : std::nullopt;
}

// Converts the images as partitions part0, part1, ... of one firmware and returns the data of each.
std::vector<Bytes> expanded_by_program(const std::vector<Bytes>& images, const std::string& page_kb) {
    Firmware firmware = sample_firmware();
    firmware.items.resize(1);
    for (const Bytes& image : images)
        firmware.items.push_back({.name = "part" + std::to_string(firmware.items.size() - 1), .data = image});
    const Workbench bench(firmware);
    const RunResult result = bench.convert({"spinand", page_kb, page_kb});
    EXPECT_EQ(result.exit_status, 0) << result.out;
    EXPECT_FALSE(fs::exists(bench.out("unsparse_tmp.bin")));
    std::vector<Bytes> expanded;
    for (std::size_t i = 0; i < images.size(); ++i)
        expanded.push_back(bench.output("part" + std::to_string(i) + ".img"));
    return expanded;
}

class Generator {
public:
    explicit Generator(uint32_t seed) : m_random(seed) {}

    // Chunks of all kinds in any order; every third image ends in a hole.
    SparseImage image() {
        SparseImage image;
        image.block_size = block_size();
        const uint32_t chunks = 1 + below(9);
        for (uint32_t i = 0; i < chunks; ++i)
            image.chunks.push_back(chunk(image.block_size));
        if (below(3) == 0)
            image.chunks.push_back(SparseChunk::dont_care(1 + below(20)));
        return image;
    }

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_random() % limit); }

    // Others take multiples of four alone; most of these are no multiple of any page.
    uint32_t block_size() {
        const std::array<uint32_t, 8> usual{4, 512, 1024, 2048, 4096, 8192, 4 * 257, 4 * 1021};
        return below(3) == 0 ? 4 * (1 + below(3000)) : usual.at(below(usual.size()));
    }

    SparseChunk chunk(uint32_t block_size) {
        const uint32_t blocks = 1 + below(12);
        switch (below(5)) {
        case 0:
        case 1:
            return SparseChunk::raw(patterned(blocks * block_size, static_cast<uint32_t>(m_random())),
                                    block_size);
        case 2:
            return SparseChunk::fill(below(4) == 0 ? 0 : static_cast<uint32_t>(m_random()), blocks);
        case 3:
            return SparseChunk::dont_care(blocks);
        default:
            return SparseChunk::crc(static_cast<uint32_t>(m_random()));
        }
    }

    std::mt19937 m_random;
};

class GeneratedSparseImages : public testing::TestWithParam<std::string> {};

TEST_P(GeneratedSparseImages, ExpandAsSimg2imgExpandsThem) {
    REQUIRE_TOOL("simg2img");
    const std::size_t page_size = std::stoul(GetParam()) * 1024;
    const TemporaryDirectory scratch;
    Generator generator(static_cast<uint32_t>(page_size));
    int taken = 0;
    for (int round = 0; round < 3; ++round) {
        std::vector<Bytes> images(30);
        std::generate(images.begin(), images.end(), [&generator] { return generator.image().build(); });
        const std::vector<Bytes> expanded = expanded_by_program(images, GetParam());
        for (std::size_t i = 0; i < images.size(); ++i) {
            const std::string what = "image " + std::to_string(i) + " of round " + std::to_string(round);
            EXPECT_TRUE(same_bytes(expanded[i], expected_sparse_partition(images[i], page_size))) << what;
            std::optional<Bytes> flat = expanded_by_simg2img(images[i], scratch.path());
            if (flat) {
                flat->resize(round_up(flat->size(), page_size), 0);
                EXPECT_TRUE(same_bytes(expanded[i], *flat)) << what;
                ++taken;
            }
        }
    }
    EXPECT_GE(taken, 80);  // with three page sizes more than 200 in all
}

INSTANTIATE_TEST_SUITE_P(Pages, GeneratedSparseImages, testing::Values("1", "2", "3"),
                         [](const testing::TestParamInfo<std::string>& tested) {
                             return "Of" + tested.param + "Kilobytes";
                         });

class MadeSparseImages : public testing::TestWithParam<std::string> {};

TEST_P(MadeSparseImages, ExpandToTheirSource) {
    REQUIRE_SAMPLE_TOOLS();
    REQUIRE_TOOL("simg2img");
    const Sample& firmware = sample(false, true);
    const TemporaryDirectory scratch;
    const fs::path sparse = scratch / "rootfs.sparse";
    const RunResult made =
        run_program(find_program("img2simg"), {firmware.root_file_system_path(), sparse, GetParam()});
    ASSERT_TRUE(made.succeeded()) << made.err;

    const Bytes image = read_file(sparse);
    ASSERT_LT(image.size(), firmware.root_file_system().size());
    const std::optional<Bytes> flat = expanded_by_simg2img(image, scratch.path());
    ASSERT_TRUE(flat.has_value());
    for (const std::string page_kb : {"2", "3"}) {
        SCOPED_TRACE(page_kb);
        Bytes expanded = expanded_by_program({image}, page_kb).at(0);
        ASSERT_GE(expanded.size(), flat->size());
        EXPECT_TRUE(all_bytes_are(expanded, 0, flat->size(), expanded.size() - flat->size()));
        expanded.resize(flat->size());
        EXPECT_TRUE(same_bytes(expanded, *flat)) << "expansion";
        EXPECT_TRUE(same_bytes(expanded, firmware.root_file_system())) << "source";
    }
}

INSTANTIATE_TEST_SUITE_P(BlockSizes, MadeSparseImages, testing::Values("1024", "2048", "4096", "65536"),
                         [](const testing::TestParamInfo<std::string>& tested) {
                             return "Of" + tested.param + "Bytes";
                         });

}  // namespace
