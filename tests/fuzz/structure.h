#pragma once

// Where the structures of a firmware lie in its bytes, and the numbers in them that say how much there is of
// something and where: what a fuzzer and the systematic bending bend.

#include "support/bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace robustness {

struct Span {
    std::size_t offset = 0;
    std::size_t size = 0;
};

// What is not there is empty. Everything named here lies inside the bytes.
struct Structure {
    std::optional<Span> container{};
    std::size_t container_tables_end = 0;  // from the start of the bytes
    bool head = false;                     // of an update image, at byte 0
    std::optional<std::size_t> package{};
    std::vector<std::size_t> items{};  // records
    std::vector<Span> item_data{};
    std::optional<Span> parameter{};  // the record: tag, length, text, checksum
    std::optional<std::size_t> sparse{};
    std::vector<std::size_t> chunks{};  // headers
};

// Finds them by what the bytes themselves say, as far as that makes sense.
Structure image_structure(const test_support::Bytes& bytes);
Structure container_structure(const test_support::Bytes& bytes);
Structure sparse_structure(const test_support::Bytes& bytes);

// Gives the boot container the checksum that fits its bytes: after a wrong one nothing would be reached.
void repair_checksum(test_support::Bytes& bytes, const Structure& structure);

// A size, an offset or a count.
struct Field {
    std::string name{};
    std::size_t position = 0;
    unsigned width = 4;                          // bytes
    std::optional<std::size_t> mark_position{};  // where `mark` has to stand for the field to count
    std::string mark{};

    // The largest number of that width.
    uint64_t largest() const { return (uint64_t{1} << (8 * width)) - 1; }
};

std::vector<Field> number_fields(const Structure& structure);
std::vector<Field> sparse_fields(const Structure& structure);
std::vector<Field> item_fields(const std::string& item, std::size_t record);

uint64_t field_value(const test_support::Bytes& bytes, const Field& field);
// Sets the number, and the mark if it needs one.
void bend_field(test_support::Bytes& bytes, const Field& field, uint64_t value);

}  // namespace robustness
