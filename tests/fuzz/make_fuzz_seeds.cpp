// make_fuzz_seeds DIRECTORY: writes the seeds of every fuzz target, and the inputs that once broke it, to
// DIRECTORY/fuzz_<target>/.

#include "fuzz_target.h"

#include <cstdio>
#include <exception>
#include <filesystem>

using namespace robustness;

namespace {

void write_all(const std::filesystem::path& directory, const std::string& prefix,
               const std::vector<NamedInput>& inputs) {
    for (const NamedInput& input : inputs)
        test_support::write_file(directory / (prefix + input.name), input.bytes);
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_fuzz_seeds DIRECTORY\n");
        return 2;
    }
    try {
        for (const FuzzTarget& target : fuzz_targets()) {
            const std::filesystem::path directory =
                std::filesystem::path(argv[1]) / (std::string("fuzz_") + target.name);
            std::filesystem::create_directories(directory);
            write_all(directory, "", target.seeds());
            write_all(directory, "finding-", findings_of(target));
        }
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "make_fuzz_seeds: %s\n", exception.what());
        return 1;
    }
    return 0;
}
