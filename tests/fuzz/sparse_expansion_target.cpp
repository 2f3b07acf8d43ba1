// Sparse expansion: what is written is what a model makes of the same bytes, wherever that is small enough to
// be made.

#include "fuzz_target.h"
#include "scratch_storage.h"
#include "support/process_limits.h"
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

int expected_status(const Bytes& image, std::size_t page_size, std::optional<uint32_t> part_sectors) {
    if (image.size() < sparse_field::kHeaderBytes)
        return -1;
    if (part_sectors && round_up(*part_sectors * test_support::kSectorSize, page_size) < declared_size(image))
        return -2;
    return expand_sparse(image, page_size).status;
}

int expand_into(const std::string& name, const SingleItem& firmware, STRUCT_QZIMAGE_ITEM item,
                uint32_t page_kb, uint8_t fill_byte) {
    OpenStorage storage(FLASH_EMMC, 8, page_kb, 0, firmware.firmware(), firmware.out_dir(), false);
    storage.m_fill_byte = fill_byte;
    require(storage.m_update_image_ptr->ObjectInit(firmware.firmware(), false) == 0,
            "the firmware around the image was not loaded");
    require(storage.switch_output(name), "no output");
    storage.get_sparse_size(item);
    storage.is_sparse_image(item);
    const int status = storage.write_sparse_image(item);
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
        const std::size_t page_size = std::size_t{page_kb} * 1024;
        const int wanted = expected_status(image.body(), page_size, part_sectors);
        require(status == wanted, "another result than the model's");
        if (wanted == 0)
            require(firmware.output("out.img") ==
                        expected_sparse_partition(image.body(), page_size, fill_byte, part_sectors),
                    "other pages than the model's");
    }
    firmware.empty_output();
}

}  // namespace robustness
