// Converts for SLC NAND as the program does, with a BCH path of the caller's choice. The program itself has
// no such option: it takes the fastest path that the processor has.

#include "named_path.h"
#include "storage/storage_impl.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Job {
    BchPath path = kBchPortable;
    std::string firmware{};
    std::string out_directory{};
    uint32_t block_kib = 0;
    uint32_t page_kib = 0;
    uint32_t spare_bytes = 0;
    bool two_kilobytes_data = false;
};

void print_usage() {
    std::fprintf(stderr,
                 "usage: convert_with_path PATH FIRMWARE DIRECTORY BLOCK_KB PAGE_KB SPARE_BYTES [-2]\n");
    print_path_names();
}

uint32_t number(const std::string& text) {
    return static_cast<uint32_t>(std::stoul(text));
}

std::optional<Job> parse(const std::vector<std::string>& words) {
    if (words.size() < 6 || words.size() > 7 || (words.size() == 7 && words[6] != "-2"))
        return std::nullopt;
    const std::optional<BchPath> path = path_named(words[0]);
    if (!path)
        return std::nullopt;
    return Job{.path = *path,
               .firmware = words[1],
               .out_directory = words[2],
               .block_kib = number(words[3]),
               .page_kib = number(words[4]),
               .spare_bytes = number(words[5]),
               .two_kilobytes_data = words.size() == 7};
}

bool convert(const Job& job) {
    CSlcStorage storage(job.block_kib, job.page_kib, job.spare_bytes, job.firmware, job.out_directory,
                        job.two_kilobytes_data, false);
    bch_select_path(job.path);  // the constructor has selected the fastest one
    return storage.storage_init() && storage.create_image();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::optional<Job> job = parse(std::vector<std::string>(argv + 1, argv + argc));
        if (!job) {
            print_usage();
            return 2;
        }
        if (!job->path.available()) {
            std::fprintf(stderr, "convert_with_path: this processor does not have what the path needs\n");
            return 3;
        }
        return convert(*job) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "convert_with_path: %s\n", error.what());
        return 2;
    }
}
