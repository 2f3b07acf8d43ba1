#include "seeds.h"

#include "small_firmware.h"

#include <utility>

namespace robustness {

using namespace test_support;

namespace {

Bytes with_controls(Bytes bytes, const Bytes& controls) {
    put_bytes(bytes, controls);
    return bytes;
}

Firmware with_item_field(bool gpt, const std::string& item, uint32_t Item::*field, uint32_t value) {
    Firmware firmware = small_firmware({.gpt = gpt});
    firmware.item(item).*field = value;
    return firmware;
}

Firmware with_large_marks() {
    Firmware firmware = small_firmware({.gpt = true});
    firmware.force_large_package_mark = true;
    for (Item& item : firmware.items)
        item.force_large_marks = true;
    return firmware;
}

Firmware with_signature() {
    Firmware firmware = small_firmware({.gpt = true});
    firmware.signature = patterned(256, 21);
    return firmware;
}

Firmware with_many_items() {
    Firmware firmware = small_firmware({.gpt = true});
    for (int i = 0; i < 20; ++i)
        firmware.items.push_back({.name = "extra" + std::to_string(i), .flash_offset = kNotPlaced});
    firmware.item_count_extension = static_cast<uint16_t>(4);
    return firmware;
}

Firmware without_loader_entries() {
    Firmware firmware = small_firmware();
    firmware.boot.loader.entries.clear();
    return firmware;
}

// Without a GPT positions count from 4 MiB on, as a 32-bit sum: these wrap back to the front of the device,
// where they cost less.
Firmware with_positions_that_wrap() {
    constexpr uint32_t layout_start = 8192;
    Firmware firmware = small_firmware();
    for (Item& item : firmware.items)
        item.flash_offset -= layout_start;
    firmware.item("parameter").flash_offset = 0x400U - layout_start;
    return firmware;
}

std::vector<std::pair<std::string, Firmware>> firmwares() {
    return {
        {"parameter", with_positions_that_wrap()},
        {"gpt", small_firmware({.gpt = true})},
        {"gpt-scrambled", small_firmware({.gpt = true, .scramble_stages = true})},
        {"large-marks", with_large_marks()},
        {"signature", with_signature()},
        {"many-items", with_many_items()},
        {"no-loader", without_loader_entries()},
        {"placed-at-the-end-of-4-tebibytes", with_item_field(true, "data", &Item::flash_offset, 0xFFFFFFF0)},
        {"partition-of-2-tebibytes", with_item_field(true, "boot", &Item::part_size, 0xFFFFFFFE)},
    };
}

SparseImage sparse_with(std::vector<SparseChunk> chunks) {
    SparseImage image;
    image.chunks = std::move(chunks);
    return image;
}

}  // namespace

std::vector<NamedInput> boot_container_seeds() {
    BootContainer loader = small_firmware().boot;
    loader.tag = "LDR ";
    BootContainer overlapping = small_firmware().boot;
    overlapping.loader.entries[1].data_offset = 0;
    BootContainer spaced = small_firmware().boot;
    spaced.loader.record_size = 80;
    return {{"boot", small_container()},
            {"boot-scrambled", small_container(true)},
            {"loader-tag", loader.build()},
            {"entry-over-the-head", overlapping.build()},
            {"records-apart", spaced.build()}};
}

std::vector<NamedInput> update_image_seeds() {
    std::vector<NamedInput> seeds;
    for (const auto& [name, firmware] : firmwares())
        seeds.push_back({name, firmware.build()});
    return seeds;
}

std::vector<NamedInput> parameter_text_seeds() {
    std::vector<Partition> crowd;
    for (uint32_t i = 0; i < 130; ++i)
        crowd.push_back({"p" + std::to_string(i), i * 8, 8});
    const std::string usual = parameter_text({{"boot", 0x40, 0x10}, {"data:grow", 0x50, std::nullopt}}, true,
                                             {{"boot", "7a3c19e4-52d0-4f6b-9e81-c0ffee123456"}});
    const std::pair<const char*, std::string> texts[] = {
        {"usual", usual},
        {"no-gpt", parameter_text({{"boot:bootable", 0x40, 0x10}}, false)},
        {"crowd", parameter_text(crowd, true)},
        {"blanks", " mtdparts = : - @ 0x1 ( a ) , 0x@0x(),(\r\n#TYPE: GPT\r\ntype: gpt\r\nuuid: a = -"},
        {"one-piece", "0x10@0x20(name)"},
        {"one-uuid", "name=7a3c19e4-52d0-4f6b-9e81-c0ffee123456"},
        {"no-text", ""},
    };
    std::vector<NamedInput> seeds;
    for (const auto& [name, text] : texts)
        for (uint8_t page = 0; page < 3; ++page)
            seeds.push_back({name + ("-page" + std::to_string(page)), with_controls(to_bytes(text), {page})});
    seeds.push_back({"record", with_controls(parameter_record(usual), {0x80})});
    seeds.push_back({"short-record", {'P', 'A', 'R', 'M', 0x80}});
    return seeds;
}

std::vector<NamedInput> sparse_expansion_seeds() {
    SparseImage odd = sparse_with({SparseChunk::raw(patterned(10, 1)), SparseChunk::fill(0x01020304, 1)});
    odd.block_size = 1022;
    SparseImage unknown =
        sparse_with({SparseChunk::unknown(0x1234, Bytes(12, 0)), SparseChunk::dont_care(1)});
    SparseImage wild = sparse_with({SparseChunk::dont_care(0xFFFFFFFF), SparseChunk::fill(1, 0xFFFFFFFF)});
    wild.total_blocks = 1;
    SparseImage endless = sparse_with({SparseChunk::crc(0), SparseChunk::raw(patterned(4096, 2))});
    endless.total_chunks = 0xFFFFFFFF;
    endless.total_blocks = 0xFFFFFFFF;
    const std::pair<const char*, Bytes> images[] = {
        {"every-chunk", small_sparse_image().build()},
        {"no-chunk", SparseImage().build()},
        {"odd-sizes", odd.build()},
        {"unknown-chunk", unknown.build()},
        {"chunks-of-16-tebibytes", wild.build()},
        {"more-chunks-than-bytes", endless.build()},
    };
    std::vector<NamedInput> seeds;
    for (const auto& [name, image] : images)
        for (uint8_t page = 0; page < 4; ++page)
            seeds.push_back({name + ("-page" + std::to_string(page)), with_controls(image, {page, page, 0})});
    seeds.push_back({"bounded", with_controls(small_sparse_image().build(), {0x80, 0xFF, 20})});
    seeds.push_back({"bounded-too-small", with_controls(small_sparse_image().build(), {0x80, 0, 2})});
    return seeds;
}

std::vector<NamedInput> conversion_seeds() {
    const std::string types[] = {"emmc", "spinor", "spinand", "slc"};
    std::vector<NamedInput> seeds;
    for (uint8_t type = 0; type < 4; ++type) {
        for (const auto& [name, firmware] : firmwares())
            seeds.push_back({name + "-" + types[type], with_controls(firmware.build(), {type, 0, 0, 0})});
        const Bytes gpt = small_firmware({.gpt = true}).build();
        const auto two_kilobytes = static_cast<uint8_t>(type | 0x10);
        const auto bare = static_cast<uint8_t>(type | 0x80);
        seeds.push_back({"gpt-2k-" + types[type], with_controls(gpt, {two_kilobytes, 1, 1, 1})});
        seeds.push_back({"gpt-odd-" + types[type], with_controls(gpt, {two_kilobytes, 5, 4, 3})});
        seeds.push_back({"container-" + types[type], with_controls(small_container(), {bare, 0, 0, 0})});
    }
    return seeds;
}

}  // namespace robustness
