#include "run.h"

#include "boot_block.h"
#include "flash_pages.h"
#include "image.h"
#include "parameter.h"
#include "support/sparse_builder.h"
#include "transcript.h"

#include <array>
#include <cstdio>

namespace test_support {

namespace {

bool is_sparse(const Bytes& data) {
    return data.size() >= sparse_field::kHeaderBytes && get32(data, sparse_field::kMagic) == kSparseMagic;
}

class Model {
public:
    Model(const Firmware& firmware, const Conversion& conversion, const std::filesystem::path& out,
          const GptEntries& gpt)
        : m_firmware(firmware), m_conversion(conversion), m_out(out), m_gpt(gpt),
          m_page_size(conversion.page_size()), m_image(m_page_size, conversion.two_kilobytes_data) {}

    ExpectedRun run() {
        write_boot_block();
        m_run.text = opening_lines(0, m_gpt.has_value());
        const std::size_t parameter = parameter_index();
        for (std::size_t i = 0; i < m_firmware.items.size(); ++i) {
            const Item& item = m_firmware.items[i];
            if (item.flash_offset == kNotPlaced)
                continue;
            if (i == parameter)
                write_table(item);
            else if (!item.data.empty())
                write_item(item);
        }
        if (m_conversion.is_whole_device())
            m_run.files["out_image.img"] = m_image.pad_to_block(m_conversion.block_size()).bytes();
        m_run.text += line("creating programming image ok.");
        return std::move(m_run);
    }

    ExpectedRun run_boot_block() {
        write_boot_block();
        if (m_conversion.is_whole_device())
            m_run.files["out_image.img"] = m_image.bytes();
        m_run.text = line("writing idblock...") + line("creating programming image ok.");
        return std::move(m_run);
    }

private:
    // The last one of that name that is placed.
    std::size_t parameter_index() const {
        std::size_t index = m_firmware.items.size();
        for (std::size_t i = 0; i < m_firmware.items.size(); ++i)
            if (m_firmware.items[i].name == "parameter" && m_firmware.items[i].flash_offset != kNotPlaced)
                index = i;
        return index;
    }

    void write_boot_block() {
        const Bytes block = padded(boot_block(m_firmware), m_page_size);
        if (m_conversion.is_whole_device()) {
            const BootBlockPlace place = boot_block_place(block.size(), m_conversion);
            const Bytes copy = zero_padded(block, place.sectors * kSectorSize);
            m_image.write(64, copy).write(place.second_copy, copy);
        } else {
            add_file("idblock", block, true);
        }
    }

    void write_table(const Item& item) {
        const std::string name = m_gpt ? "gpt" : "parameter";
        place(item, name,
              m_gpt ? gpt_table(*m_gpt) : parameter_partition(item.data, item.part_size, m_page_size));
        m_run.text += table_lines(name);
    }

    void write_item(const Item& item) {
        const bool bounded = m_conversion.is_whole_device() && item.part_size != kGrowsToEnd;
        const auto sectors = bounded ? std::optional(item.part_size) : std::nullopt;
        const bool sparse = is_sparse(item.data) && item.name != "parameter";
        const Bytes pages =
            sparse ? expected_sparse_partition(item.data, m_page_size, 0, sectors)
                   : padded(zero_padded(item.data, bounded ? item.part_size * kSectorSize : item.data.size()),
                            m_page_size);
        place(item, item.name, pages);
        const uint64_t count = pages.size() / m_page_size;
        m_run.text +=
            sparse ? sparse_lines(item.name, item.data, m_page_size, count) : writing_lines(item.name, count);
    }

    void place(const Item& item, const std::string& name, const Bytes& data) {
        if (m_conversion.is_whole_device()) {
            const uint32_t sector = item.flash_offset + (m_gpt ? 0 : 0x2000);
            m_run.text += preparing_line(name, sector);
            m_image.write(sector, data);
        } else {
            m_run.text += preparing_line(name, m_out);
            add_file(name, padded(data, m_page_size), false);
        }
    }

    void add_file(const std::string& name, const Bytes& pages, bool boot_block) {
        const bool two_kilobytes_data = m_conversion.two_kilobytes_data;
        if (m_conversion.type == "slc") {
            const SlcFormat format{.page_size = m_page_size,
                                   .spare = std::stoul(m_conversion.spare_bytes),
                                   .two_kilobytes_data = two_kilobytes_data,
                                   .list_step = m_conversion.page_list ? 1U : 4U};
            const std::size_t fill = slc_fill_pages(pages.size(), boot_block) * m_page_size;
            m_run.files[name + ".img"] = slc_flash_pages(pages + Bytes(fill, 0), format);
        } else {
            m_run.files[name + ".img"] = ExpectedImage(m_page_size, two_kilobytes_data)
                                             .write(0, pages)
                                             .pad_to_block(m_conversion.block_size())
                                             .bytes();
        }
    }

    // Pages of data, each of which takes several flash pages with 2 KB of data per page. What a partition has
    // written is counted without these, the boot block with them.
    std::size_t slc_fill_pages(std::size_t data_bytes, bool boot_block) const {
        const std::size_t factor = m_conversion.two_kilobytes_data ? (m_page_size + 2047) / 2048 : 1;
        const std::size_t written = boot_block ? data_bytes * factor : data_bytes;
        const std::size_t missing = round_up(written, m_conversion.block_size()) - written;
        return missing == 0 ? 0 : (missing - 1) / m_page_size / factor + 1;
    }

    const Firmware& m_firmware;
    const Conversion& m_conversion;
    const std::filesystem::path& m_out;
    const GptEntries& m_gpt;
    const std::size_t m_page_size;
    ExpectedImage m_image;
    ExpectedRun m_run{};
};

}  // namespace

ExpectedRun expected_run(const Firmware& firmware, const Conversion& conversion,
                         const std::filesystem::path& out, const GptEntries& gpt) {
    return Model(firmware, conversion, out, gpt).run();
}

ExpectedRun expected_boot_run(const BootContainer& boot, const Conversion& conversion) {
    Firmware firmware;
    firmware.boot = boot;
    return Model(firmware, conversion, {}, std::nullopt).run_boot_block();
}

std::vector<GptEntry> sample_gpt() {
    return {{.name = "boot", .first = 0x2000, .last = 0x207F},
            {.name = "misc", .first = 0x2080, .last = 0x20BF},
            {.name = std::string("rootfs\0grow", 11),
             .first = 0x20C0,
             .last = kLastUsableSector,
             .guid = Bytes{0xE4, 0x19, 0x3C, 0x7A, 0xD0, 0x52, 0x6B, 0x4F, 0x9E, 0x81, 0xC0, 0xFF, 0xEE, 0x12,
                           0x34, 0x56}}};
}

std::string opening_lines(int unreadable_items, bool gpt) {
    std::string text = line("writing idblock...");
    for (int i = 0; i < unreadable_items; ++i)
        text += line("failed to get sparse info");
    return text + line(std::string("start to write partitions...gpt=") + (gpt ? "1" : "0"));
}

std::string preparing_line(const std::string& name, uint32_t sector) {
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "%08x", sector);
    return line("preparing " + name + " at 0x" + digits.data());
}

std::string preparing_line(const std::string& name, const std::filesystem::path& out) {
    return line("preparing " + name + " saving at " + (out / (name + ".img")).string());
}

BootBlockPlace boot_block_place(std::size_t block_bytes, const Conversion& conversion) {
    const std::size_t size = round_up(block_bytes, conversion.block_size());
    const std::size_t end = round_up(64 * kSectorSize + size, conversion.block_size());
    return {.sectors = round_up(size, conversion.page_size()) / kSectorSize,
            .second_copy = conversion.type == "emmc" ? 1088 : round_up(end, 64 * kIb) / kSectorSize};
}

}  // namespace test_support
