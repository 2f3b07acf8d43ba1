// The whole conversion, from the firmware file to the images, for every storage type; SLC NAND on every path
// of the encoder.

#include "conversion.h"
#include "fuzz_target.h"
#include "scratch_storage.h"
#include "support/bch_paths.h"

#include <map>

namespace robustness {

using namespace test_support;

namespace {

using Output = std::map<std::string, Bytes>;

const ScratchFiles& scratch() {
    static const ScratchFiles files;
    return files;
}

ENUM_FLASH_TYPE type_of(const ControlBytes& input) {
    return kStorageTypes[input[0] % kStorageTypes.size()];
}

// NAND has a file for each of up to hundreds of items, so its files are kept small; an image without a GPT
// begins its partitions at 4 MiB and has to have room after that.
uint64_t largest_file_of(ENUM_FLASH_TYPE type) {
    const bool has_many = type == FLASH_SPI_NAND || type == FLASH_SLC_NAND;
    return has_many ? 1024 * 1024 : kLargestFuzzedFile;
}

Geometry geometry_of(const ControlBytes& input) {
    return {.block_kb = input.choice(1, {8U, 16U, 128U, 64U, 1U, 3U}),
            .page_kb = input.choice(2, {2U, 4U, 1U, 8U, 3U, 64U}),
            .oob_bytes = input.choice(3, {64U, 128U, 32U, 256U, 2048U, 33U}),
            .page_2k = input.flag(0, 4),
            .page_list = input.flag(0, 5)};
}

Output output_files() {
    Output output;
    for (const auto& entry : std::filesystem::directory_iterator(scratch().output)) {
        require(entry.is_regular_file(), "something else than a file in the output directory");
        output[entry.path().filename()] = read_file(entry.path());
    }
    return output;
}

void check_surroundings(const std::filesystem::path& firmware, const Bytes& bytes) {
    require(read_file(firmware) == bytes, "the firmware was changed");
    for (const auto& entry : std::filesystem::directory_iterator(scratch().top.path()))
        require(entry.path() == firmware || entry.path() == scratch().output,
                "something stands outside the output directory");
}

int run_once(ENUM_FLASH_TYPE type, const Geometry& geometry, const std::filesystem::path& firmware,
             const Bytes& bytes) {
    scratch().clear_output();
    const int status = convert(type, geometry, firmware, scratch().output);
    check_surroundings(firmware, bytes);
    return status;
}

void run_on_every_path(Geometry geometry, const std::filesystem::path& firmware, const Bytes& bytes) {
    std::optional<int> first_status;
    Output first_output;
    for (const BchPath& path : available_bch_paths()) {
        geometry.bch_path = path;
        const int status = run_once(FLASH_SLC_NAND, geometry, firmware, bytes);
        if (!first_status) {
            first_status = status;
            first_output = output_files();
            continue;
        }
        require(status == *first_status, "the paths of the encoder end differently");
        require(output_files() == first_output, "the paths of the encoder give different images");
    }
}

}  // namespace

void run_conversion(const Bytes& input) {
    const ControlBytes bent(input, kConversionControls);
    // A name with ".bin" in it makes the file a bare boot container.
    const std::filesystem::path firmware =
        bent.flag(0, 7) ? scratch().top / "loader.bin" : scratch().firmware;
    write_file(firmware, bent.body());
    const ENUM_FLASH_TYPE type = type_of(bent);
    const FileSizeLimit limit(largest_file_of(type));
    if (type == FLASH_SLC_NAND)
        run_on_every_path(geometry_of(bent), firmware, bent.body());
    else
        run_once(type, geometry_of(bent), firmware, bent.body());
    std::filesystem::remove(firmware);
    scratch().clear_output();
}

}  // namespace robustness
