// The whole conversion, from the firmware file to the images, for every storage type; SLC NAND on every path
// of the encoder.

#include "fuzz_target.h"
#include "scratch_storage.h"
#include "support/bch_paths.h"
#include "support/conversion.h"
#include "support/process_limits.h"

namespace robustness {

using namespace test_support;

namespace {

WorkDirectory& scratch() {
    static WorkDirectory directory(memory_directory());
    return directory;
}

Conversion conversion_of(const ControlBytes& input) {
    return {.type = kStorageTypes[input[0] % kStorageTypes.size()],
            .block_kb = input.choice(1, {"8", "16", "128", "64", "1", "3"}),
            .page_kb = input.choice(2, {"2", "4", "1", "8", "3", "64"}),
            .spare_bytes = input.choice(3, {"64", "128", "32", "256", "2048", "33"}),
            .two_kilobytes_data = input.flag(0, 4),
            .page_list = input.flag(0, 5)};
}

int run_once(const Conversion& conversion, const Bytes& bytes, const BchPath* path = nullptr) {
    scratch().empty_output();
    const int status = convert_by_call(conversion, scratch().firmware(), scratch().out_dir(), path);
    const std::string damage = scratch().damage(bytes);
    require(damage.empty(), damage.c_str());
    return status;
}

Files output_files() {
    const Files files = scratch().outputs();
    require(files.size() == scratch().output_names().size(),
            "something else than a file in the output directory");
    return files;
}

void run_on_every_path(const Conversion& conversion, const Bytes& bytes) {
    const std::vector<BchPath> paths = available_bch_paths();
    const int first_status = run_once(conversion, bytes, &paths[0]);
    const Files first_output = output_files();
    for (std::size_t i = 1; i < paths.size(); ++i) {
        const int status = run_once(conversion, bytes, &paths[i]);
        require(status == first_status, "the paths of the encoder end differently");
        require(output_files() == first_output, "the paths of the encoder give different images");
    }
}

}  // namespace

void run_conversion(const Bytes& input) {
    const ControlBytes bent(input, kConversionControls);
    const Conversion conversion = conversion_of(bent);
    // A name with ".bin" in it makes the file a bare boot container.
    scratch().name_firmware(bent.flag(0, 7) ? "loader.bin" : "firmware.img");
    scratch().pack(bent.body());
    // NAND has a file for each of up to hundreds of items, so its files are kept small; an image without a
    // GPT begins its partitions at 4 MiB and has to have room after that.
    const FileSizeLimit limit(conversion.is_whole_device() ? kLargestFuzzedFile : 1024 * 1024);
    if (conversion.type == "slc")
        run_on_every_path(conversion, bent.body());
    else
        run_once(conversion, bent.body());
    fs::remove(scratch().firmware());
    scratch().empty_output();
}

}  // namespace robustness
