#include "fuzz_target.h"
#include "small_firmware.h"
#include "support/conversion.h"

#include <functional>
#include <utility>

namespace robustness {

using namespace test_support;

namespace {

Firmware bent(const std::function<void(Firmware&)>& bend, bool gpt = true) {
    Firmware firmware = small_firmware({.gpt = gpt});
    bend(firmware);
    return firmware;
}

void force_large_marks(Firmware& firmware) {
    firmware.force_large_package_mark = true;
    for (Item& item : firmware.items)
        item.force_large_marks = true;
}

void add_many_items(Firmware& firmware) {
    for (int i = 0; i < 20; ++i)
        firmware.items.push_back({.name = "extra" + std::to_string(i), .flash_offset = kNotPlaced});
    firmware.item_count_extension = static_cast<uint16_t>(4);
}

// Without a GPT positions count from 4 MiB on, as a 32-bit sum: these wrap back to the front of the device,
// where they cost less.
void wrap_positions(Firmware& firmware) {
    constexpr uint32_t layout_start = 8192;
    for (Item& item : firmware.items)
        item.flash_offset -= layout_start;
    firmware.item("parameter").flash_offset = 0x400U - layout_start;
}

std::vector<std::pair<std::string, Firmware>> firmwares() {
    return {
        {"parameter", bent(wrap_positions, false)},
        {"gpt", small_firmware({.gpt = true})},
        {"gpt-scrambled", small_firmware({.gpt = true, .scramble_stages = true})},
        {"large-marks", bent(force_large_marks)},
        {"signature", bent([](Firmware& firmware) { firmware.signature = patterned(256, 21); })},
        {"many-items", bent(add_many_items)},
        {"no-loader", bent([](Firmware& firmware) { firmware.boot.loader.entries.clear(); }, false)},
        {"placed-at-the-end-of-4-tebibytes",
         bent([](Firmware& firmware) { firmware.item("data").flash_offset = 0xFFFFFFF0; })},
        {"partition-of-2-tebibytes",
         bent([](Firmware& firmware) { firmware.item("boot").part_size = 0xFFFFFFFE; })},
    };
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
            seeds.push_back({name + ("-page" + std::to_string(page)), to_bytes(text) + Bytes{page}});
    seeds.push_back({"record", parameter_record(usual) + Bytes{0x80}});
    seeds.push_back({"short-record", to_bytes("PARM") + Bytes{0x80}});
    return seeds;
}

std::vector<NamedInput> sparse_expansion_seeds() {
    const std::pair<std::string, SparseImage> images[] = {
        {"every-chunk", small_sparse_image()},
        {"no-chunk", {}},
        {"odd-sizes",
         {.block_size = 1022,
          .chunks = {SparseChunk::raw(patterned(10, 1)), SparseChunk::fill(0x01020304, 1)}}},
        {"unknown-chunk",
         {.chunks = {SparseChunk::unknown(0x1234, Bytes(12, 0)), SparseChunk::dont_care(1)}}},
        {"chunks-of-16-tebibytes",
         {.total_blocks = 1,
          .chunks = {SparseChunk::dont_care(0xFFFFFFFF), SparseChunk::fill(1, 0xFFFFFFFF)}}},
        {"more-chunks-than-bytes",
         {.total_blocks = 0xFFFFFFFF,
          .total_chunks = 0xFFFFFFFF,
          .chunks = {SparseChunk::crc(0), SparseChunk::raw(patterned(4096, 2))}}},
    };
    std::vector<NamedInput> seeds;
    for (const auto& [name, image] : images)
        for (uint8_t page = 0; page < 4; ++page)
            seeds.push_back({name + "-page" + std::to_string(page), image.build() + Bytes{page, page, 0}});
    seeds.push_back({"bounded", small_sparse_image().build() + Bytes{0x80, 0xFF, 20}});
    seeds.push_back({"bounded-too-small", small_sparse_image().build() + Bytes{0x80, 0, 2}});
    return seeds;
}

std::vector<NamedInput> conversion_seeds() {
    std::vector<NamedInput> seeds;
    for (uint8_t type = 0; type < 4; ++type) {
        const std::string word = "-" + kStorageTypes[type];
        for (const auto& [name, firmware] : firmwares())
            seeds.push_back({name + word, firmware.build() + Bytes{type, 0, 0, 0}});
        const Bytes gpt = small_firmware({.gpt = true}).build();
        const auto two_kilobytes = static_cast<uint8_t>(type | 0x10);
        const auto like_a_file = static_cast<uint8_t>(type | 0x40);
        const auto bare = static_cast<uint8_t>(type | 0x80);
        seeds.push_back({"gpt-2k" + word, gpt + Bytes{two_kilobytes, 1, 1, 1}});
        seeds.push_back({"gpt-odd" + word, gpt + Bytes{two_kilobytes, 5, 4, 3}});
        seeds.push_back({"gpt-file" + word, gpt + Bytes{like_a_file, 0, 0, 0}});
        seeds.push_back({"container" + word, small_container() + Bytes{bare, 0, 0, 0}});
    }
    for (uint8_t path = 1; path < 4; ++path) {
        constexpr uint8_t slc = 3;
        const auto control = static_cast<uint8_t>(kConversionPageSizes * path);
        seeds.push_back({"gpt-path" + std::to_string(path) + "-slc",
                         small_firmware({.gpt = true}).build() + Bytes{slc, 0, control, 0}});
    }
    return seeds;
}

}  // namespace robustness
