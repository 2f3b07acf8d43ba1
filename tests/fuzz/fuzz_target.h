#pragma once

// What is fuzzed, apart from the fuzzer: an entry function per target, its seeds, and the inputs that once
// broke it. libFuzzer drives them, and so does a test without it.

#include "structure.h"
#include "support/bytes.h"

#include <array>
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

const std::array<FuzzTarget, 5>& fuzz_targets();
const FuzzTarget& fuzz_target(std::string_view name);  // std::out_of_range

// Inputs that once broke a target, in its seeds too; each says what failed.
std::vector<NamedInput> findings_of(const FuzzTarget& target);

void run_boot_container(const test_support::Bytes& input);
void run_update_image(const test_support::Bytes& input);
void run_parameter_text(const test_support::Bytes& input);
void run_sparse_expansion(const test_support::Bytes& input);
void run_conversion(const test_support::Bytes& input);

// ---- control bytes: the last bytes of an input choose how it is run ----

class ControlBytes {
public:
    // An input that is shorter has control bytes of 0 behind it.
    ControlBytes(const test_support::Bytes& input, std::size_t count)
        : body_(input.begin(), input.end() - static_cast<std::ptrdiff_t>(std::min(count, input.size()))),
          values_(input.end() - static_cast<std::ptrdiff_t>(std::min(count, input.size())), input.end()) {
        values_.resize(count);
    }

    const test_support::Bytes& body() const { return body_; }
    uint8_t operator[](std::size_t index) const { return values_[index]; }
    bool flag(std::size_t index, unsigned bit) const { return (values_[index] >> bit & 1) != 0; }
    template <typename Value, std::size_t count>
    Value choice(std::size_t index, const Value (&values)[count]) const {
        return values[values_[index] % count];
    }

private:
    test_support::Bytes body_;
    test_support::Bytes values_;
};

inline constexpr std::size_t parameter_controls = 1;
inline constexpr std::size_t sparse_controls = 3;
inline constexpr std::size_t conversion_controls = 4;

}  // namespace robustness
