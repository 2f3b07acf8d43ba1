#pragma once

// Runs of the extraction, and what has to come out of them.

#include "check/extraction/extraction.h"
#include "check_bench.h"
#include "support/plain_data.h"

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace check_test {

/// The options of the conversion, without a target.
inline CheckOptions options_of(const Conversion& conversion, const fs::path& firmware) {
    const auto number = [](const std::string& text) {
        return text.empty() ? 0U : static_cast<uint32_t>(std::stoul(text));
    };
    const auto types = storage_types();
    CheckOptions options;
    options.action = Action::kExtract;
    options.conversion.type = &*std::ranges::find(types, conversion.type, &StorageType::word);
    options.conversion.settings = {number(conversion.block_kb),
                                   number(conversion.page_kb),
                                   number(conversion.spare_bytes),
                                   firmware,
                                   "",
                                   conversion.two_kilobytes_data,
                                   conversion.page_list};
    return options;
}

/// The sample with a sparse item, scrambled stages and stages of odd lengths.
inline Firmware firmware_of_all_kinds(bool gpt) {
    Firmware firmware = sample_firmware({.gpt = gpt, .scramble_stages = true});
    firmware.boot.loader.entries[0].data = patterned(3001, 1);
    firmware.boot.loader.entries[1].data = patterned(9000, 2);
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 7)), SparseChunk::dont_care(2),
                    SparseChunk::fill(0x12345678, 1), SparseChunk::raw(patterned(4096, 8))};
    firmware.item("misc").data = image.build();
    firmware.item("misc").part_size = 0x40;
    return firmware;
}

class ExtractionBench : public CheckBench {
public:
    explicit ExtractionBench(const Conversion& conversion, const Firmware& packed = sample_firmware())
        : CheckBench(conversion, packed) {
        options = options_of(conversion, firmware());
        options.target = out_dir();
        options.chip.extract_directory = into();
        if (conversion.is_whole_device())
            options.target = out("out_image.img");
    }

    fs::path into() const { return directory() / "data"; }
    fs::path extracted(const std::string& name) const { return into() / name; }

    ExtractionResult extract() const { return run_extraction(options, {}); }
    ExtractionResult extract_from_dump(const std::vector<Placement>& placements) const {
        return run_extraction(options, {}, [&](const auto&, Target&, std::vector<Placement>& found) {
            found = placements;
            return std::nullopt;
        });
    }

    /// Pages of data that a unit lies in are counted in the target.
    uint64_t page_bytes() const {
        return conversion().page_size() + std::stoul("0" + conversion().spare_bytes);
    }

    CheckOptions options;
};

inline const ExtractedPart& part_of(const ExtractionResult& result, const std::string& name) {
    const auto part = std::ranges::find(result.parts, name, &ExtractedPart::name);
    if (part == result.parts.end())
        throw std::runtime_error("no part " + name);
    return *part;
}

/// These files are in the directory and no others.
inline void expect_data(const fs::path& directory, const Files& expected) {
    Names names;
    for (const auto& [name, bytes] : expected)
        names.insert(name);
    EXPECT_EQ(names_in(directory), names);
    for (const auto& [name, bytes] : files_in(directory))
        EXPECT_TRUE(same_bytes(bytes, expected.count(name) != 0 ? expected.at(name) : bytes)) << name;
}

/// Inverts so many different bits of a unit, the same for the same seed.
inline void flip_bits(Bytes& bytes, std::size_t unit, unsigned count, uint32_t seed) {
    std::mt19937 generator(seed);
    std::set<uint32_t> bits;
    while (bits.size() != count)
        bits.insert(static_cast<uint32_t>(generator() % (8 * kUnit)));
    for (const uint32_t bit : bits)
        bytes[unit + bit / 8] = static_cast<uint8_t>(bytes[unit + bit / 8] ^ 1U << bit % 8);
}

}  // namespace check_test
