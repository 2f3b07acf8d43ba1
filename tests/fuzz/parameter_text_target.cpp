// The parameter text: partition list, UUID lines and GPT flag, the GPT that is made of them, and the
// parameter partition.

#include "fuzz_target.h"
#include "scratch_storage.h"
#include "support/process_limits.h"

#include <memory>

namespace robustness {

using namespace test_support;

namespace {

constexpr std::size_t kGptBytes = 17408;

// A copy of exactly the text's size and its NUL, so that a sanitizer sees any access beside it.
void check_parsing(OpenStorage& storage, const Bytes& text) {
    const auto copy = std::make_unique<char[]>(text.size() + 1);
    std::copy(text.begin(), text.end(), copy.get());
    PARAM_ITEM_VECTOR parts;
    const bool found = storage.parse_parameter(copy.get(), parts);
    require(found || parts.empty(), "partitions of a list that is not there");
    UUID_ITEM_VECTOR uuids;
    require(storage.get_uuid_from_parameter(copy.get(), uuids) == !uuids.empty(), "UUIDs of no line");

    const auto table = std::make_unique<uint8_t[]>(kGptBytes);
    storage.create_gpt_buffer(table.get(), parts, uuids, 0xFFFFFFFF);
}

void check_pieces(OpenStorage& storage, const Bytes& text) {
    std::string piece = to_text(text);
    std::string name;
    std::string uuid;
    uint32_t offset = 0;
    uint32_t length = 0;
    if (storage.parse_partition_info(piece, name, offset, length))
        require(piece.find(name) != std::string::npos, "a partition with a name that is not in the text");
    if (storage.parse_uuid(piece, name, uuid))
        require(uuid.size() == 32, "a UUID that has not 32 digits");
    uint8_t bytes[16];
    storage.string_to_uuid(piece, bytes);
    UUID_ITEM_VECTOR uuids(1);
    uuids[0].szUUidName = piece;
    require(storage.find_uuid_item(uuids, piece) == 0, "a name does not find itself");
}

void check_partition(OpenStorage& storage, STRUCT_QZIMAGE_ITEM item, uint32_t part_sectors) {
    if (!storage.make_param_buffer(item))
        return;
    require(storage.switch_output("out.img"), "no output");
    item.part_size = part_sectors;
    const int parameter = storage.write_parameter(item);
    require(parameter == 0 || parameter == -1, "unknown result of the parameter partition");
    const int gpt = storage.write_gpt(item);
    require(gpt == 0 || gpt == -2 || gpt == -3, "unknown result of the GPT");
    storage.close_output();
}

}  // namespace

void run_parameter_text(const Bytes& input) {
    static SingleItem firmware("parameter");
    const FileSizeLimit limit(kLargestFuzzedFile);
    const ControlBytes text(input, kParameterControls);
    const uint32_t page_kb = text.choice(0, {1U, 2U, 64U});
    const uint32_t part_sectors = text.flag(0, 6) ? 0x40 : 0x180;

    const Bytes record = text.flag(0, 7) ? text.body() : parameter_record(to_text(text.body()));
    const STRUCT_QZIMAGE_ITEM item = firmware.write(record);
    OpenStorage storage(FLASH_SPI_NAND, 8, page_kb, 0, firmware.firmware(), firmware.out_dir(), false);
    require(storage.storage_init(), "the firmware around the text was not loaded");
    check_parsing(storage, text.body());
    check_pieces(storage, text.body());
    STRUCT_QZIMAGE_ITEM asked = item;
    storage.get_gpt_flag(asked);
    check_partition(storage, item, part_sectors);
    firmware.empty_output();
}

}  // namespace robustness
