// Makes a libFuzzer program of the target FUZZ_TARGET.

#include "fuzz_target.h"
#include "mutation.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>

using robustness::FuzzTarget;
using test_support::Bytes;

extern "C" {

std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t largest);
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t largest, unsigned seed);
const char* __asan_default_options();
}

namespace {

const FuzzTarget& target() {
    static const FuzzTarget& chosen = robustness::fuzz_target(FUZZ_TARGET);
    return chosen;
}

void mutate_blindly(Bytes& bytes, std::size_t largest) {
    const std::size_t size = bytes.size();
    bytes.resize(std::max<std::size_t>({size, largest, 1}));
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, std::max<std::size_t>(largest, 1)));
}

}  // namespace

// Freed memory is kept from reuse for a while; what an output file gathers is large, so a part of the usual
// amount serves as well. Short stacks for allocations and a shadow that stays mapped save a third of the
// time.
const char* __asan_default_options() {
    return "quarantine_size_mb=8:malloc_context_size=4:clear_shadow_mmap_threshold=1048576";
}

// The program's messages are of no use here.
int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    robustness::conversion_patience().messages = 400;
    return std::freopen("/dev/null", "w", stdout) != nullptr ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    try {
        target().run(Bytes(data, data + size));
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "%s: %s\n", target().name, exception.what());
        throw;
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t largest, unsigned seed) {
    Bytes input(data, data + size);
    robustness::Mutation(target(), seed, mutate_blindly).apply(input, largest);
    std::copy(input.begin(), input.end(), data);
    return input.size();
}
