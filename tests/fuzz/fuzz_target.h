#pragma once

// What is fuzzed, apart from the fuzzer: an entry function per target, its seeds, and the inputs that once
// broke it. libFuzzer drives them, and so does a test without it.

#include "structure.h"
#include "support/bytes.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace robustness {

// The program did something that it must not do. Not to be caught by anything that is being fuzzed.
class Misbehaviour : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

inline void require(bool condition, const char* what) {
    if (!condition)
        throw Misbehaviour(what);
}

struct NamedInput {
    std::string name{};
    test_support::Bytes bytes{};
};

struct FuzzTarget {
    const char* name;
    // Takes any bytes. Returns, or throws Misbehaviour; a sanitizer ends the process.
    void (*run)(const test_support::Bytes& input);
    Structure (*structure)(const test_support::Bytes& input);
    std::vector<NamedInput> (*seeds)();
};

const std::vector<FuzzTarget>& fuzz_targets();
const FuzzTarget& fuzz_target(std::string_view name);  // std::out_of_range

// Inputs that once broke a target, in its seeds too; each says what failed.
std::vector<NamedInput> findings_of(const FuzzTarget& target);

void run_boot_container(const test_support::Bytes& input);
void run_update_image(const test_support::Bytes& input);
void run_parameter_text(const test_support::Bytes& input);
void run_sparse_expansion(const test_support::Bytes& input);
void run_conversion(const test_support::Bytes& input);
// Only where nandsmith-check is built.
void run_check(const test_support::Bytes& input);
void run_dump(const test_support::Bytes& input);

// How far a conversion is followed. A firmware can make it print a million lines; the fuzzer sets this lower,
// because they say nothing new. The replay of findings follows each to its end.
struct ConversionPatience {
    uint64_t messages = UINT64_MAX;
};
ConversionPatience& conversion_patience();

// Correct inputs of every kind, and the numbers that cost most when they are wild.
std::vector<NamedInput> boot_container_seeds();
std::vector<NamedInput> update_image_seeds();
std::vector<NamedInput> parameter_text_seeds();
std::vector<NamedInput> sparse_expansion_seeds();
std::vector<NamedInput> conversion_seeds();
std::vector<NamedInput> check_seeds();
std::vector<NamedInput> dump_seeds();

// ---- control bytes: the last bytes of an input choose how it is run ----

class ControlBytes {
public:
    // An input that is shorter has control bytes of 0 after it.
    ControlBytes(const test_support::Bytes& input, std::size_t count) {
        const auto start = input.end() - static_cast<std::ptrdiff_t>(std::min(count, input.size()));
        m_body.assign(input.begin(), start);
        m_values.assign(start, input.end());
        m_values.resize(count);
    }

    const test_support::Bytes& body() const { return m_body; }
    uint8_t operator[](std::size_t index) const { return m_values[index]; }
    bool flag(std::size_t index, unsigned bit) const { return (m_values[index] >> bit & 1) != 0; }
    template <typename Value, std::size_t count>
    Value choice(std::size_t index, const Value (&values)[count]) const {
        return values[m_values[index] % count];
    }

private:
    test_support::Bytes m_body{};
    test_support::Bytes m_values{};
};

inline constexpr std::size_t kParameterControls = 1;
inline constexpr std::size_t kSparseControls = 3;
inline constexpr std::size_t kConversionControls = 4;
// Control byte 2 is a page size and, times this, a second path of the encoder.
inline constexpr std::size_t kConversionPageSizes = 6;

}  // namespace robustness
