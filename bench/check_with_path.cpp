// Checks as nandsmith-check does, with a BCH path of the caller's choice, and prints nothing.

#include "check/check.h"
#include "check/chip/ecc_run.h"
#include "check/options/options.h"
#include "named_path.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>

namespace {

template <typename Result>
int status_of_run(const Result& result) {
    if (result.error)
        std::fprintf(stderr, "check_with_path: %s\n", result.error->c_str());
    return result.status();
}

// Whoever encodes selects the fastest path before the first bytes come. The progress is told of these, after
// at most one block of the output or the dump.
int check(const CheckOptions& options, const BchPath& path) {
    const auto select = [&path](uint64_t /*done*/, uint64_t /*total*/) { bch_select_path(path); };
    return options.action == Action::kEcc ? status_of_run(run_ecc(options, select))
                                          : status_of_run(run_check(options, select));
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        const std::optional<BchPath> path = argc < 2 ? std::nullopt : path_named(argv[1]);
        if (!path) {
            std::fprintf(stderr, "usage: check_with_path PATH OPTION...\nOPTION: as of nandsmith-check. ");
            print_path_names();
            return 2;
        }
        if (!path->available()) {
            std::fprintf(stderr, "check_with_path: this processor does not have what the path needs\n");
            return 3;
        }
        const CheckOptions options = parse_check_options(argc - 1, argv + 1);
        if (options.error) {
            std::fprintf(stderr, "check_with_path: %s\n", options.error->c_str());
            return 2;
        }
        return check(options, *path);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "check_with_path: %s\n", error.what());
        return 2;
    }
}
