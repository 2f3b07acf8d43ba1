// The update image: its head, its trailer, reads from anywhere in it, and the item table of its package.

#include "firmware/QZImage.h"
#include "fuzz_target.h"
#include "scratch_storage.h"
#include "support/process_limits.h"

#include <algorithm>

namespace robustness {

using namespace test_support;

namespace {

const WorkDirectory& scratch() {
    static const WorkDirectory directory(memory_directory());
    return directory;
}

bool is_known_result(int code) {
    const bool own = code <= 0 && code >= -5;
    const bool of_container = code == -1006 || code == -2006 || code == -3006 || code == -4006;
    return own || of_container;
}

// Reads come from the file's bytes or fail.
void check_read(CQZImage& image, const Bytes& file, uint64_t offset, uint32_t size) {
    const bool there = offset <= file.size() && size <= file.size() - offset;
    Bytes bytes(there ? size : 0);
    uint8_t none = 0;
    require(image.GetData(offset, size, there ? bytes.data() : &none) == there,
            "a read fails in the file or succeeds beside it");
    if (there)
        require(std::equal(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(offset)),
                "a read gives other bytes");
}

void check_reads(CQZImage& image, const Bytes& file) {
    const uint64_t package = image.FWOffset;
    const uint64_t boot = image.BootOffset;
    for (const uint64_t offset : {uint64_t{0}, package, boot, package + image.FWSize, uint64_t{file.size()},
                                  uint64_t{1} << 32, ~uint64_t{0}, ~uint64_t{0} - package})
        for (const uint32_t size : {0U, 1U, 102U, static_cast<uint32_t>(file.size()), 0x80000000U, ~0U})
            check_read(image, file, offset, size);
}

void check_saved(bool saved, const fs::path& path, const Bytes& file, uint64_t offset, uint64_t size) {
    if (!saved || size == 0)  // nothing can be saved from anywhere
        return;
    require(offset <= file.size() && size <= file.size() - offset, "more was saved than there is");
    require(read_file(path) == slice(file, offset, size), "other bytes were saved");
}

void check_image(const Bytes& file) {
    CQZImage image;
    const int code = image.ObjectInit(scratch().firmware(), false);
    require(is_known_result(code), "unknown result of loading an image");
    if (code != 0)
        return;
    require(image.GetImageSize() == file.size(), "wrong size of the image");
    require(image.GetBootObject() != nullptr, "an image without a container was loaded");
    check_reads(image, file);

    uint8_t* md5 = nullptr;
    uint8_t* signature = nullptr;
    const int signature_size = image.GetMd5Data(md5, signature);
    require(signature_size >= 0 && signature_size <= 256, "wrong size of the signature");
    require(std::count(md5, md5 + 32, uint8_t{1}) + std::count(signature, signature + 256, uint8_t{1}) >= 0,
            "all of the trailer can be read");
    uint8_t* reserved = nullptr;
    uint16_t reserved_size = 0;
    image.GetReservedData(reserved, reserved_size);
    require(reserved_size == 61 && reserved != nullptr, "wrong size of the extension");

    const fs::path saved = scratch().out("saved");
    check_saved(image.SaveBootFile(saved), saved, file, image.BootOffset, image.BootSize);
    check_saved(image.SaveFWFile(saved), saved, file, image.FWOffset, image.FWSize);
    require(!image.SaveFWFile(scratch().firmware()), "the firmware was written over itself");
}

void check_item_table() {
    OpenStorage storage(FLASH_SPI_NAND, 8, 2, 0, scratch().firmware(), scratch().out_dir(), false);
    if (!storage.storage_init())
        return;
    std::vector<STRUCT_QZIMAGE_ITEM> items;
    if (read_item_table(*storage.m_update_image_ptr, items) != ItemTableResult::kRead)
        return;
    require(!items.empty() && items.size() <= 583, "an item table of impossible size");
    for (STRUCT_QZIMAGE_ITEM& item : items) {
        require(item_name(item).size() <= sizeof(item.name), "a name longer than its field");
        storage.is_sparse_image(item);
        storage.get_sparse_size(item);
    }
    const auto parameter = std::ranges::find(items, std::string("parameter"), item_name);
    if (parameter == items.end())
        return;
    storage.get_gpt_flag(*parameter);
    if (storage.make_param_buffer(*parameter))
        require(storage.m_uiParamFileSize == parameter->size, "a parameter record of another size");
}

}  // namespace

void run_update_image(const Bytes& input) {
    const FileSizeLimit limit(kLargestFuzzedFile);
    scratch().pack(input);
    check_image(input);
    check_item_table();
    require(scratch().damage(input).empty(), "the firmware was changed, or something stands beside it");
    scratch().empty_output();
}

}  // namespace robustness
