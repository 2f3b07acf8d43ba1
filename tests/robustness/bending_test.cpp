// A firmware is bent in every way that one wrong byte, one wrong number or a cut-off file can bend it. After
// the boot container's checksum nothing would be reached, so it is repaired.

#include "bent_runs.h"
#include "fuzz/small_firmware.h"
#include "fuzz/structure.h"

#include <array>
#include <gtest/gtest.h>
#include <tuple>
#include <utility>
#include <vector>

namespace robustness {
namespace {

using namespace test_support;

struct Specimen {
    Bytes bytes{};
    Structure structure{};

    BentFirmware bent(const std::string& what, Bytes changed) const {
        repair_checksum(changed, structure);
        return {what, std::move(changed)};
    }

    BentRuns runs(std::size_t count, const std::function<BentFirmware(std::size_t)>& make) const {
        return {.count = count, .make = make, .container = !structure.head};
    }
};

Specimen firmware_specimen(bool gpt) {
    const Bytes bytes = small_firmware({.gpt = gpt}).build();
    Specimen specimen{bytes, image_structure(bytes)};
    specimen.structure.chunks.resize(small_sparse_image().chunks.size());  // not what lies after them
    return specimen;
}

Specimen container_specimen() {
    return {small_container(), container_structure(small_container())};
}

// ---- single bytes ----

void add_range(std::vector<std::size_t>& positions, std::size_t from, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
        positions.push_back(from + i);
}

std::vector<std::size_t> structure_bytes(const Structure& structure) {
    std::vector<std::size_t> positions;
    const std::size_t container = structure.container.value().offset;
    add_range(positions, container, structure.container_tables_end - container);
    if (!structure.head)
        return positions;
    add_range(positions, 0, head_field::kHeadBytes);
    add_range(positions, structure.package.value(), package_field::kItems);
    for (const std::size_t item : structure.items)
        add_range(positions, item, item_field::kRecordBytes);
    add_range(positions, structure.parameter.value().offset, 8);
    add_range(positions, structure.sparse.value(), sparse_field::kHeaderBytes);
    for (const std::size_t chunk : structure.chunks)
        add_range(positions, chunk, sparse_field::kChunkHeaderBytes);
    return positions;
}

BentRuns bent_bytes(const Specimen& specimen) {
    const std::vector<std::size_t> positions = structure_bytes(specimen.structure);
    const auto make = [specimen, positions](std::size_t index) {
        const std::size_t position = positions[index / 4];
        Bytes bytes = specimen.bytes;
        uint8_t& byte = bytes[position];
        const std::array<uint8_t, 4> values = {0, 0xFF, static_cast<uint8_t>(byte ^ 0x01),
                                               static_cast<uint8_t>(byte ^ 0x80)};
        byte = values[index % 4];
        const std::string what = "byte " + std::to_string(position) + " = " + std::to_string(byte);
        return specimen.bent(what, std::move(bytes));
    };
    return specimen.runs(positions.size() * 4, make);
}

// ---- size, offset and count fields ----

// 0, 1 and, of the field's width, the largest positive number, the smallest negative one, and all bits.
constexpr std::size_t kExtremes = 5;

uint64_t extreme(std::size_t which, const Field& field) {
    const uint64_t top = field.largest() / 2 + 1;
    return std::array<uint64_t, kExtremes>{0, 1, top - 1, top, field.largest()}[which];
}

// Bends the field and says so.
std::string bend_to(Bytes& bytes, const Field& field, uint64_t value) {
    bend_field(bytes, field, value);
    return field.name + " = " + std::to_string(value);
}

BentRuns bent_numbers(const Specimen& specimen) {
    const std::vector<Field> fields = number_fields(specimen.structure);
    const auto make = [specimen, fields](std::size_t index) {
        const Field& field = fields[index / kExtremes];
        Bytes bytes = specimen.bytes;
        const std::string what = bend_to(bytes, field, extreme(index % kExtremes, field));
        return specimen.bent(what, std::move(bytes));
    };
    return specimen.runs(fields.size() * kExtremes, make);
}

// Two numbers of one structure at a time: sizes that only their product or sum makes wild.
BentRuns bent_pairs(const Specimen& specimen, const std::vector<Field>& fields) {
    std::vector<std::pair<Field, Field>> pairs;
    for (std::size_t i = 0; i < fields.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            pairs.emplace_back(fields[i], fields[j]);
    constexpr std::size_t ways = kExtremes * kExtremes;
    const auto make = [specimen, pairs](std::size_t index) {
        const auto& [one, other] = pairs[index / ways];
        Bytes bytes = specimen.bytes;
        std::string what = bend_to(bytes, one, extreme(index % kExtremes, one));
        what += ", " + bend_to(bytes, other, extreme(index / kExtremes % kExtremes, other));
        return specimen.bent(what, std::move(bytes));
    };
    return specimen.runs(pairs.size() * ways, make);
}

// ---- prefixes ----

BentRuns prefixes(const Specimen& specimen) {
    const auto make = [specimen](std::size_t size) {
        return BentFirmware{"the first " + std::to_string(size) + " bytes", slice(specimen.bytes, 0, size)};
    };
    return specimen.runs(specimen.bytes.size() + 1, make);
}

// ---- tests ----

// Nothing is left out because it was not found.
TEST(BendingSpecimen, HasEveryStructure) {
    for (const bool gpt : {false, true}) {
        const Firmware firmware = small_firmware({.gpt = gpt});
        const FirmwareLayout where = firmware.layout();
        const Structure found = firmware_specimen(gpt).structure;
        EXPECT_EQ(found.container.value().offset, where.boot_offset);
        EXPECT_EQ(found.container.value().size, where.boot_size);
        EXPECT_EQ(found.container_tables_end,
                  where.boot_offset + firmware.boot.layout().entries_471.data.front());
        EXPECT_EQ(found.package.value(), where.package_offset);
        EXPECT_EQ(found.items,
                  std::vector<std::size_t>(where.item_records.begin(), where.item_records.end()));
        EXPECT_EQ(found.parameter.value().offset, where.item_data.at(0));
        EXPECT_EQ(found.sparse.value(), where.item_data.at(2));
        std::vector<std::size_t> chunks = small_sparse_image().chunk_offsets();
        for (std::size_t& chunk : chunks)
            chunk += where.item_data.at(2);
        EXPECT_EQ(found.chunks, chunks);
    }
}

BentRuns with_2k_pages_and_list(BentRuns runs) {
    runs.conversion = {"", "16", "4", "128", true, true};
    return runs;
}

BentRuns pairs_of_a_sparse_image() {
    Specimen specimen = firmware_specimen(true);
    const std::size_t record = specimen.structure.items.at(2);
    specimen.structure.chunks.resize(2);  // a raw one and a fill
    std::vector<Field> fields = sparse_fields(specimen.structure);
    fields.push_back({"part_size", record + item_field::kPartSize});
    fields.push_back({"size", record + item_field::kSize});
    return bent_pairs(specimen, fields);
}

BentRuns pairs_of_a_plain_image() {
    const Specimen specimen = firmware_specimen(true);
    return bent_pairs(specimen, item_fields("boot", specimen.structure.items.at(1)));
}

struct Situation {
    const char* name;
    BentRuns (*runs)();
};

constexpr Situation kSituations[] = {
    {"EveryPrefixOfAFirmware", [] { return prefixes(firmware_specimen(true)); }},
    {"EveryPrefixOfABareContainer", [] { return prefixes(container_specimen()); }},
    {"EveryStructureByte", [] { return bent_bytes(firmware_specimen(false)); }},
    {"EveryStructureByteWithGpt", [] { return bent_bytes(firmware_specimen(true)); }},
    {"EveryStructureByteOfABareContainer", [] { return bent_bytes(container_specimen()); }},
    {"ExtremeNumbers", [] { return bent_numbers(firmware_specimen(false)); }},
    {"ExtremeNumbersWithGpt", [] { return bent_numbers(firmware_specimen(true)); }},
    {"ExtremeNumbersWith2kPagesAndList",
     [] { return with_2k_pages_and_list(bent_numbers(firmware_specimen(true))); }},
    {"TwoExtremeNumbersOfASparseImage", pairs_of_a_sparse_image},
    {"TwoExtremeNumbersOfAPlainImage", pairs_of_a_plain_image},
};

class Bending : public testing::TestWithParam<std::tuple<Situation, std::string>> {};

TEST_P(Bending, EndsOrderly) {
    const auto& [situation, type] = GetParam();
    expect_orderly_ends(type, situation.runs());
}

INSTANTIATE_TEST_SUITE_P(Types, Bending,
                         testing::Combine(testing::ValuesIn(kSituations), testing::ValuesIn(kStorageTypes)),
                         [](const auto& tested) {
                             return std::get<0>(tested.param).name + ("_" + std::get<1>(tested.param));
                         });

}  // namespace
}  // namespace robustness
