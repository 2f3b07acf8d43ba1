// Sparse expansion: what is written is what a model makes of the same bytes, wherever that is small enough to
// be made.

#include "conversion.h"
#include "fuzz_target.h"
#include "single_item.h"
#include "support/sparse_builder.h"

#include <algorithm>
#include <optional>

namespace robustness {

using namespace test_support;

namespace {

constexpr uint64_t kLargestModelled = 512 * 1024;

// The bytes that header and chunks announce together, as far as they can be read.
uint64_t announced_size(const Bytes& image) {
    if (image.size() < sparse_field::kHeaderBytes)
        return 0;
    const uint64_t block_size = get32(image, sparse_field::kBlockSize);
    uint64_t sum = block_size * get32(image, sparse_field::kTotalBlocks);
    // Any position may turn out to be a chunk header, because unknown chunks are not skipped.
    for (std::size_t at = sparse_field::kHeaderBytes; at + sparse_field::kChunkHeaderBytes <= image.size();
         ++at) {
        const uint16_t type = get16(image, at + sparse_field::kChunkType);
        if (type == SparseChunk::kFillType || type == SparseChunk::kDontCareType)
            sum += std::min<uint64_t>(block_size * get32(image, at + sparse_field::kChunkBlocks),
                                      uint64_t{1} << 40);
    }
    return sum;
}

struct Expectation {
    int status = 0;
    std::optional<Bytes> pages{};  // nothing when the pages are too many for a test
};

Expectation expectation(const Bytes& image, std::size_t page_size, uint8_t fill_byte,
                        std::optional<uint32_t> part_sectors) {
    if (image.size() < sparse_field::kHeaderBytes)
        return {.status = -1};
    const uint64_t declared =
        uint64_t{get32(image, sparse_field::kBlockSize)} * get32(image, sparse_field::kTotalBlocks);
    if (part_sectors && round_up(*part_sectors * test_support::kSectorSize, page_size) < declared)
        return {.status = -2};
    const SparseExpansion model = expand_sparse(image, page_size, fill_byte);
    if (model.status != 0)
        return {.status = model.status};
    return {.pages = expected_sparse_partition(image, page_size, fill_byte, part_sectors)};
}

int expand_into(const std::string& name, SingleItem& firmware, const STRUCT_QZIMAGE_ITEM& item,
                uint32_t page_kb, uint8_t fill_byte) {
    OpenStorage storage(FLASH_EMMC, 8, page_kb, 0, firmware.files().firmware, firmware.files().output, false);
    storage.m_fill_byte = fill_byte;
    require(storage.m_update_image_ptr->ObjectInit(firmware.files().firmware, false) == 0,
            "the firmware around the image was not loaded");
    require(storage.switch_output(name), "no output");
    STRUCT_QZIMAGE_ITEM written = item;
    storage.get_sparse_size(written);
    storage.is_sparse_image(written);
    const int status = storage.write_sparse_image(written);
    storage.close_output();
    require(status <= 0 && status >= -6, "unknown result of a sparse image");
    return status;
}

}  // namespace

void run_sparse_expansion(const Bytes& input) {
    static SingleItem firmware("root");
    const FileSizeLimit limit(kLargestFuzzedFile);
    const ControlBytes image(input, kSparseControls);
    const uint32_t page_kb = image.choice(0, {1U, 2U, 3U, 64U});
    const uint8_t fill_byte = image[1];
    const std::optional<uint32_t> part_sectors =
        image.flag(0, 7) ? std::optional<uint32_t>(image[2]) : std::nullopt;

    STRUCT_QZIMAGE_ITEM item = firmware.write(image.body());
    if (part_sectors)
        item.part_size = *part_sectors;
    const int status = expand_into("out.img", firmware, item, page_kb, fill_byte);
    if (announced_size(image.body()) <= kLargestModelled) {
        const Expectation wanted =
            expectation(image.body(), std::size_t{page_kb} * 1024, fill_byte, part_sectors);
        require(status == wanted.status, "another result than the model's");
        if (wanted.pages)
            require(read_file(firmware.files().output / "out.img") == *wanted.pages,
                    "other pages than the model's");
    }
    firmware.files().clear_output();
}

}  // namespace robustness
