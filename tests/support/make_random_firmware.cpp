// Writes a firmware that a seed decides, and prints the arguments of a run that fits it, one per line. The
// first two are "-i" and the name that the run has to find the firmware under. Two runs with the same seed
// give the same bytes. Most firmwares are sound and come to an image; the others are there for the failure
// codes.

#include "bytes.h"
#include "firmware_builder.h"
#include "sparse_builder.h"

#include <initializer_list>
#include <iostream>
#include <utility>

using namespace test_support;

namespace {

using Words = std::vector<std::string>;

constexpr uint32_t kKib = 1024;
constexpr uint32_t kMib = 1024 * kKib;
constexpr uint32_t kOutputBudget = 40 * kMib;  // of item data, as it lies in the output
constexpr uint32_t kDataBudget = 6 * kMib;     // of item data in the firmware

uint32_t sectors_of(uint64_t bytes) {
    return static_cast<uint32_t>((bytes + kSectorSize - 1) / kSectorSize);
}

/// Random numbers that are the same with every standard library, which its distributions are not.
class Dice {
public:
    explicit Dice(uint32_t seed) : m_generator(seed) {}

    uint32_t any() { return static_cast<uint32_t>(m_generator()); }
    uint32_t below(uint64_t end) { return static_cast<uint32_t>(any() % end); }
    uint32_t between(uint32_t first, uint32_t last) { return first + below(uint64_t{last} - first + 1); }
    bool in_1000(uint32_t chances) { return below(1000) < chances; }
    template <typename Value>
    Value one_of(std::initializer_list<Value> values) {
        return values.begin()[below(values.size())];
    }
    /// Gives the field one of the values, in that many of 1000 cases.
    template <typename Field, typename Value>
    void bend(uint32_t chances, Field& field, std::initializer_list<Value> values) {
        if (in_1000(chances))
            field = static_cast<Field>(one_of(values));
    }

private:
    std::mt19937 m_generator;
};

class RandomRun : Dice {
public:
    using Dice::Dice;

    /// Writes the firmware and gives the arguments. To be called once.
    Words make(const std::filesystem::path& path) {
        choose_geometry();
        Firmware firmware;
        firmware.boot = boot_container();
        firmware.items = choose_items();
        bend_head(firmware);
        const bool single = in_1000(40);
        Bytes bytes = single && in_1000(900) ? firmware.boot.build() : firmware.build();
        if (!single)
            bend_bytes(bytes, firmware.layout());
        write_file(path, bytes);
        return arguments_for(firmware_name(single));
    }

private:
    void choose_geometry() {
        m_type = one_of({"emmc", "spinor", "spinand", "slc"});
        m_nand = m_type == "spinand" || m_type == "slc";
        m_page_kb = one_of({1U, 2U, 2U, 2U, 4U, 4U, 8U, 16U, 32U, 64U});
        bend(100, m_page_kb, {3, 5, 6, 7, 12, 24, 48, 100, 128});
        m_page = m_page_kb * kKib;
        m_2k_data = in_1000(350);
        m_growth = m_2k_data ? (m_page_kb + 1) / 2 : 1;
        m_data_left = std::min(kDataBudget, kOutputBudget / m_growth);

        const uint32_t whole = m_page_kb * one_of({1U, 2U, 4U, 16U, 64U});
        const uint32_t broken = between(1, 5 * m_page_kb);
        m_block_kb = one_of({whole, whole, whole, broken, (m_page_kb + 1) / 2, 1U, 64U, 512U, 4096U});
        m_many_items = in_1000(60);
        if (m_nand)  // each of their files is filled up to a block, in pages that grow
            m_block_kb = std::min<int64_t>(m_block_kb, m_many_items ? m_page_kb * 4 : 5120 / m_growth);
        bend<int64_t, int64_t>(4, m_block_kb, {-1, 4194304, 4194305, 65536});
    }

    /// Stretches of random bytes, of zeros, of 0xFF and of other repeated bytes, many of whole pages.
    Bytes content(uint32_t size) {
        Bytes bytes(size);
        for (uint32_t position = 0; position < size;) {
            const uint32_t stretch = one_of({m_page * between(1, 6), between(1, 64 * kKib)});
            const uint32_t end = position + std::min(stretch, size - position);
            const auto repeated = one_of<uint8_t>({0, 0, 0xFF, 0xFF, static_cast<uint8_t>(any())});
            const bool repeats = in_1000(500);
            for (; position < end; ++position)
                bytes[position] = repeats ? repeated : static_cast<uint8_t>(any() >> 11);
        }
        return bytes;
    }

    // ---- boot container ----

    BootEntry stage(const std::string& name) {
        const uint32_t usual = between(1, 20000);
        uint32_t size = one_of({0U, 1U, 511U, 512U, 513U, 2047U, 2048U, 2049U, usual, usual, usual, usual});
        bend(80, size, {between(20000, 200000)});
        BootEntry entry{.name = name, .data = content(size)};
        bend(12, entry.data_size, {0U, 33552384U, 33552385U, 0xFFFFFFFFU, below(30000)});
        bend(6, entry.data_offset, {0U, 0xFFFFFFF0U, below(30000)});
        return entry;
    }

    BootContainer boot_container() {
        BootContainer boot;
        bend(600, boot.rc4_flag, {1, 0xFF});
        bend(500, boot.sign_flag, {'S'});
        bend(100, boot.tag, {"LDR ", "LDR ", "LDR ", "WXYZ"});
        bend(20, boot.merge_version, {0x1000000U, 0x1000001U});
        bend(20, boot.loader.count, {0, 1, 255});
        bend(15, boot.crc, {any()});
        bend(400, boot.loader.record_size, {58, 64, 255});
        if (in_1000(500))
            boot.entries_471.entries = {stage("MemoryInit")};
        std::vector<BootEntry>& entries = boot.loader.entries;
        if (!in_1000(15))
            entries.push_back(stage(one_of({"FlashData", "FlashData", "flashdata"})));
        if (in_1000(200))
            entries.push_back(stage(one_of({"", "FlashDat", "FlashHead", "FlashBoot"})));
        if (!in_1000(15))
            entries.push_back(stage(one_of({"FlashBoot", "FlashBoot", "FLASHBOOT"})));
        if (!entries.empty() && in_1000(200))
            std::swap(entries.front(), entries.back());
        return boot;
    }

    // ---- items ----

    SparseChunk sparse_chunk(uint32_t block_size) {
        const uint32_t room = one_of({32U, 64U, 96U, 96U, 96U, 96U, 96U, 800U}) * kKib / m_growth;
        const uint32_t most = std::max(room / block_size, 1U);  // blocks
        const uint32_t blocks = between(one_of({0U, 1U}), most);
        SparseChunk chunk = SparseChunk::dont_care(blocks);
        const uint32_t kind = below(100);
        if (kind < 45) {
            Bytes data = content(blocks * block_size);
            if (in_1000(60))  // the length counts and not the blocks
                data.resize(below(data.size() + m_page));
            chunk = SparseChunk::raw(std::move(data), block_size);
            bend(30, chunk.blocks, {blocks});
        } else if (kind < 70) {
            chunk = SparseChunk::fill(one_of({0U, 0xFFFFFFFFU, 0x12345678U, any()}), blocks);
        } else if (kind < 75) {
            chunk = SparseChunk::crc(any());
        } else if (kind < 77) {
            chunk = SparseChunk::unknown(one_of<uint16_t>({0, 0xCAC0, 0xCAC5}), {}, blocks);
        }
        bend(8, chunk.total_size, {0U, 11U, 12U, 13U, 0xFFFFFFFFU, below(100000)});
        bend(3, chunk.blocks, {20000U, 0x10000U, 0xFFFFFFFFU});
        return chunk;
    }

    /// Sets expanded to the size by the header: block size times blocks.
    Bytes sparse_image(uint64_t& expanded) {
        SparseImage image;
        bend(600, image.block_size, {512, 1024, 2048, 65536, 4, 6, 1000});
        const uint32_t block_size = image.block_size;
        const uint32_t count = m_many_items ? 1 : between(0, 14);
        uint32_t blocks = 0;
        for (uint32_t i = 0; i < count; ++i) {
            image.chunks.push_back(sparse_chunk(block_size));
            blocks += image.chunks.back().blocks;
        }
        bend(10, image.block_size, {0U, 1U, 0x80000000U});
        bend(150, blocks, {0U, blocks + between(1, 40), blocks / 2, blocks - std::min(blocks, 1U)});
        bend(20, image.total_chunks, {0U, count + 1, count / 2, 0xFFFFFFFFU});
        image.total_blocks = blocks;
        expanded = uint64_t{image.block_size} * blocks;
        return image.build();
    }

    std::string text_for(const std::vector<Item>& items) {
        std::vector<Partition> partitions;
        std::vector<PartitionUuid> uuids;
        for (const Item& item : items)
            partitions.push_back({item.name, item.flash_offset, item.part_size});
        if (in_1000(50))
            partitions.resize(one_of({100U, 127U, 128U, 129U, 140U}), {"p", 0xFFFFFFFFU, 0x10000U});
        for (Partition& part : partitions) {
            bend(20, part.name,
                 {"", "\xC3\xA9t\xC3\xA9", " padded ", "more-than-36-letters-in-a-partition-name"});
            std::string uuid;
            bend(250, uuid,
                 {"7a3c19e4-52d0-4f6b-9e81-c0ffee123456", "614E0000-0000-4B53-8000-1D28000054A9",
                  "g14e00000000zzzz80001d28000054a9", "614e0000"});
            if (!uuid.empty())
                uuids.push_back({part.name, uuid});
            part.name +=
                in_1000(900) ? "" : one_of({":grow", ":bootable", ":BOOTABLE", ":grow,bootable", ":"});
            if (in_1000(60))
                part.size.reset();
        }
        std::string text = parameter_text(partitions, in_1000(500), uuids);
        std::string first_line;
        bend(
            200, first_line,
            {"#TYPE: GPT\n", "# type: gpt\n", "type:gpt\r\n", "TYPE = a GPT ", "uuid:boot=\n", "mtdparts\n"});
        for (uint32_t i = in_1000(100) ? between(1, 6) : 0; i > 0; --i)
            bend(900, text[below(text.size())], {'@', '(', ')', ',', ':', '\n', '-', ' ', '0', '\0'});
        return first_line + text;
    }

    Item parameter_item(const std::vector<Item>& items) {
        Item item{.name = "parameter", .data = parameter_record(text_for(items))};
        const uint32_t record = sectors_of(round_up(item.data.size(), m_page));
        const uint32_t more = 8 * record + below(40 * m_page_kb);
        const uint32_t most =
            std::max(static_cast<uint32_t>(kOutputBudget / 2 / m_growth / kSectorSize), 8 * record);
        item.part_size = std::min(one_of({8 * record, more, 8 * record - 1, 4 * record, 0x2000U}), most);
        bend(15, item.part_size, {0U, record, 4 * record - 1, kGrowsToEnd});
        bend(100, item.flash_offset, {below(0x8000)});
        const uint32_t other_size = below(item.data.size() + 4 * m_page);
        bend(30, item.size, {0U, 7U, 11U, 12U, 13U, 0xFFFFFFFFU, other_size, other_size, other_size});
        return item;
    }

    uint32_t data_size() {
        const uint32_t pages = m_page * between(1, 12);
        const uint32_t small = between(2, 300 * kKib);
        const uint32_t large = between(200 * kKib, 3 * kMib);
        uint32_t size = one_of({0U, 1U, m_page - 1, m_page, m_page + 1, pages, pages - 1, pages + 1,
                                256 * kKib, small, large, large});
        size = std::min(m_many_items ? size % (2 * m_page) : size, m_data_left);
        m_data_left -= size;
        return size;
    }

    uint32_t partition_size(uint64_t bytes) {
        const auto needed = sectors_of(std::min<uint64_t>(bytes, UINT32_MAX));
        const uint32_t more = needed + below(kOutputBudget / m_growth / kSectorSize / 8);
        uint32_t sectors = one_of({needed, needed, needed + below(64), more});
        bend(100, sectors, {kGrowsToEnd});
        bend(12, sectors, {below(uint64_t{needed} + 1)});  // mostly too small
        return sectors;
    }

    uint32_t flash_offset() {
        uint32_t offset = m_next_sector;
        bend(150, offset, {m_next_sector + below(0x2000)});
        bend(80, offset, {below(uint64_t{m_next_sector} + 1)});
        bend(60, offset, {kNotPlaced});
        bend(3, offset, {0xFFFFFFFEU, 0xFFFFE000U, 0xFFFFE100U, 0x7FFFFFFFU});  // far, or wraps to the start
        return offset;
    }

    Item data_item(std::size_t index) {
        Item item;
        item.name = one_of({"boot", "rootfs", "misc", "userdata", "oem", "Trust", "x y"});
        item.name += in_1000(50) ? "" : std::to_string(index);
        bend(6, item.name,
             {"", "a/b", "..", "idblock", "gpt", "parametername", "a-name-that-has-33-letters-in-it."});
        uint64_t bytes = 0;
        if (in_1000(300)) {
            item.data = sparse_image(bytes);
        } else {
            item.data = content(data_size());
            bytes = item.data.size();
        }
        item.part_size = partition_size(bytes);
        item.flash_offset = flash_offset();
        if (item.flash_offset != kNotPlaced)
            m_next_sector =
                item.flash_offset % 0x20000 + (item.part_size == kGrowsToEnd ? 0 : item.part_size);
        item.force_large_marks = in_1000(150);
        bend(8, item.file, {std::string(60, 'H')});  // size and offset of many GiB
        bend(15, item.size, {0U, below(kMib), 0xFFFFFFFFU});
        return item;
    }

    std::vector<Item> choose_items() {
        uint32_t count = m_many_items ? between(32, 70) : between(1, 7);
        bend(m_many_items ? 60 : 0, count, {582, 583});
        m_next_sector = one_of({0x400U, 0x2000U});
        std::vector<Item> items;
        for (uint32_t i = 0; i < count; ++i)
            items.push_back(data_item(i));

        uint32_t parameters = 1;
        bend(20, parameters, {0, 2});
        for (uint32_t i = 0; i < parameters; ++i) {
            const Item item = parameter_item(items);
            items.insert(items.begin() + one_of({0U, 0U, below(items.size() + 1)}), item);
        }
        return items;
    }

    // ---- what is around the items, and what is not sound ----

    void bend_head(Firmware& firmware) {
        firmware.force_large_package_mark = in_1000(150);
        firmware.md5.resize(in_1000(60) ? 0 : 32);
        firmware.signature.resize(one_of({0U, 0U, 0U, 127U, 128U, 256U, 300U}));
        bend(400, firmware.item_alignment, {1, 7, 512, 4096});
        bend(150, firmware.item_count_extension, {below(firmware.items.size() + 20)});
        bend(10, firmware.item_count, {0, -1, 1, 33, 583, 584, 0x7FFFFFFF});
        bend(6, firmware.tag, {"WXYZ"});
        bend(8, firmware.boot_size, {0U, 3U, 4U, 100U, 0xFFFFFFFFU});
        bend(30, firmware.package_size, {below(16 * kMib)});
        bend(20, firmware.package_offset, {0x80000 + below(4 * kKib)});
    }

    /// Now and then cuts the end off or bends bytes of a structure; a boot container mostly with a right
    /// checksum again.
    void bend_bytes(Bytes& bytes, const FirmwareLayout& where) {
        if (in_1000(25))
            bytes.resize(bytes.size() - below(one_of<uint64_t>({5000, bytes.size()})) % bytes.size());
        const std::pair<uint64_t, uint64_t> structures[] = {
            {0, head_field::kHeadBytes},
            {where.boot_offset, 400},
            {where.package_offset + package_field::kCountExtensionMark, 12},
            {where.package_offset + package_field::kItems,
             where.item_records.size() * item_field::kRecordBytes}};
        const auto [start, size] = one_of({structures[0], structures[1], structures[2], structures[3]});
        for (uint32_t i = in_1000(120) ? between(1, 3) : 0; i > 0; --i) {
            const uint64_t position = start + below(std::max<uint64_t>(size, 1));
            const uint32_t flip = 1U << below(8);
            if (position < bytes.size())
                bend(1000, bytes[position], {0U, 0xFFU, bytes[position] ^ flip, bytes[position] ^ flip});
        }
        if (start == where.boot_offset && in_1000(900) &&
            where.boot_offset + where.boot_size <= bytes.size()) {
            Bytes container = slice(bytes, where.boot_offset, where.boot_size);
            repair_boot_crc(container);
            put_bytes_at(bytes, where.boot_offset, container);
        }
    }

    // ---- arguments ----

    std::string firmware_name(bool single) {
        if (single)
            return one_of({"loader.bin", "LOADER.BIN", "out/loader.bin.img"});
        std::string name = "firmware.img";
        bend(12, name,  // its own output
             {"out/out_image.img", "out/idblock.img", "out/boot0.img"});
        if (in_1000(4))
            while (name.size() < 256)  // longer than the program takes
                name.insert(0, "./");
        return name;
    }

    void add_option(Words& arguments, char letter, const std::string& name, const std::string& value) {
        const std::string option = in_1000(500) ? std::string{'-', letter} : "--" + name;
        if (in_1000(500))
            arguments.push_back(option + (option.size() > 2 ? "=" : "") + value);
        else
            arguments.insert(arguments.end(), {option, value});
    }

    Words arguments_for(const std::string& name) {
        Words result = {"-i", name};
        const uint32_t given = in_1000(25) ? 600 : 1000;
        std::string type = m_type;
        if (in_1000(200))
            type[0] = static_cast<char>(type[0] - 'a' + 'A');
        const uint32_t enough = 32 * m_page_kb;
        uint32_t oob = one_of({enough, enough, enough + between(1, 300), 2 * enough, 4096U});
        bend(60, oob, {enough - 1, enough / 2, 1U});
        std::string page = std::to_string(m_page_kb);
        bend(100, page, {page + "KB", " " + page});

        if (in_1000(970))
            add_option(result, 'o', "out", in_1000(990) ? "out" : name);
        if (in_1000(given))
            add_option(result, 't', "flash_type", type);
        if (in_1000(given))
            add_option(result, 'b', "block_size", std::to_string(m_block_kb));
        if (in_1000(given))
            add_option(result, 'p', "page_size", page);
        if (in_1000(m_type == "slc" ? given : 300))
            add_option(result, 's', "oob_size", std::to_string(oob));
        if (m_2k_data)
            result.push_back(one_of({"-2", "--2k_data"}));
        if (in_1000(400))
            result.push_back("--page_list");
        if (in_1000(60)) {  // a mistake of a user, or nothing that matters
            const Words mistakes = split("-t mmc|--flash_type=|-b x|-b 99999999999|-p |-s -|-b 0|-p 0|-s 0|"
                                         "-p 2147483648|-p 4194304|-o none|-o |-o out/../out/|-i missing.img|"
                                         "-i out|-l|-z|surplus|--nothing|-b|-v|--help",
                                         '|');
            const Words words = split(mistakes[below(mistakes.size())] + ' ', ' ');
            result.insert(result.end(), words.begin(), words.end());
        }
        return result;
    }

    std::string m_type{};
    bool m_nand = false;
    uint32_t m_page_kb = 0;
    uint32_t m_page = 0;  // bytes
    int64_t m_block_kb = 0;
    bool m_2k_data = false;
    bool m_many_items = false;
    uint32_t m_growth = 1;       // bytes in the output for each byte of an item
    uint32_t m_data_left = 0;    // bytes of item data that the firmware may still get
    uint32_t m_next_sector = 0;  // where the next item in order goes
};

}  // namespace

int main(int argc, char** argv) {
    const Words words(argv + 1, argv + argc);
    if (words.size() != 4 || words[0] != "--seed" || words[2] != "--out") {
        std::cerr << "usage: make_random_firmware --seed N --out FILE\n";
        return 2;
    }
    try {
        for (const std::string& argument :
             RandomRun(static_cast<uint32_t>(std::stoul(words[1]))).make(words[3]))
            std::cout << argument << '\n';
    } catch (const std::exception& error) {
        std::cerr << "make_random_firmware: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
