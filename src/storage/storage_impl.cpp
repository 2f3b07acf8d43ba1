#include "storage_impl.h"

#include "../common/byte_run.h"
#include "console.h"
#include "page_source.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

namespace {

constexpr char kParameterName[] = "parameter";
constexpr char kGptName[] = "gpt";

// Without a GPT, partition offsets count from this sector, 4 MiB into the device.
constexpr uint32_t kParameterLayoutStart = 8192;

// Bytes of padding of one output file that go through write_page page by page. More (a firmware can ask for
// terabytes) goes to the file at once, so that a damaged firmware does not take hours.
constexpr uint64_t kPaddingByPages = 64 * 1024 * 1024;

// Pages of padding in a run that write_page may refuse, each with a line. The others are left out.
constexpr uint64_t kLargestRefusedPadding = 1024 * 1024;

/// The items and how they are written.
struct ItemPlan {
    std::vector<STRUCT_QZIMAGE_ITEM> items;
    std::size_t parameter = 0;  // index of the parameter item
    uint32_t sparse_mask = 0;   // kept: bit (index mod 32) is set for a sparse image, so items share bits
};

bool read_items(CQZImage& image, ItemPlan& plan) {
    const ItemTableResult result = read_item_table(image, plan.items);
    if (result == ItemTableResult::kNoHeader)
        print_error_line("failed to get header of firmware");
    else if (result == ItemTableResult::kNoTable)
        print_error_line("failed to get extended info of firmware");
    else if (result == ItemTableResult::kNoItems)
        print_error_line("not found any of partition items in the firmware");
    return result == ItemTableResult::kRead;
}

/// Finds the parameter item and the sparse images. False, after a line, without a parameter item.
bool classify_items(CStorage& storage, ItemPlan& plan) {
    bool found = false;
    for (std::size_t i = 0; i < plan.items.size(); ++i) {
        STRUCT_QZIMAGE_ITEM& item = plan.items[i];
        if (item.flash_offset == kNotOnStorage)
            continue;
        if (item_name(item) == kParameterName) {
            plan.parameter = i;  // a later one replaces an earlier one
            found = true;
        } else if (storage.is_sparse_image(item)) {
            plan.sparse_mask |= 1U << i % 32;
        }
    }
    if (!found)
        print_error_line("not found parameter in the firmware");
    return found;
}

ENUM_IMAGE_TYPE kind_of(const ItemPlan& plan, std::size_t index, bool gpt) {
    if (index == plan.parameter)
        return gpt ? IMAGE_GPT : IMAGE_PARAM;
    if (item_data_size(plan.items[index]) == 0)
        return IMAGE_NONE;
    return (plan.sparse_mask >> index % 32 & 1) != 0 ? IMAGE_SPARSE : IMAGE_FILE;
}

bool write_item(CStorage& storage, STRUCT_QZIMAGE_ITEM& item, ENUM_IMAGE_TYPE kind) {
    if (!storage.prepare_write_partition(item)) {
        print_error_line("failed to prepare " + item_name(item));
        return false;
    }
    if (const int result = storage.write_partition(item, kind); result != kDone) {
        print_error_line("failed to write " + item_name(item) + result_suffix(result));
        return false;
    }
    storage.post_write_partition();
    return true;
}

// Length of one page of padding in a gap. Kept: it has 16 bits, so with 2 KB of data per page and pages
// beyond 64 KB a gap gets more pages. A length of 0 would never fill the gap and counts as 64 KB.
uint32_t padding_step(uint64_t length) {
    const auto step = static_cast<uint16_t>(length);
    return step != 0 ? step : 65536;
}

}  // namespace

CStorage::CStorage(ENUM_FLASH_TYPE type, uint32_t block_size, uint32_t page_size, uint32_t oob_size,
                   std::string in_file, std::string out_dir, bool page_2k)
    : m_init_ok(false), m_block_size(block_size << 10), m_in_firmware(std::move(in_file)), m_page_2k(page_2k),
      m_fill_byte(0), m_out_dir(std::move(out_dir)), m_type(type), m_page_size(page_size << 10),
      m_oob_size(oob_size), m_block_size_sector(block_size * 2), m_page_size_sector(page_size * 2),
      m_update_image(std::make_unique<CQZImage>()) {
    m_update_image_ptr = m_update_image.get();
}

bool CStorage::storage_init() {
    // The sizes wrap at 32 bits. They are divided by, so none may be 0.
    if (m_page_size == 0 || m_page_size_sector == 0) {
        print_line("page size is out of range");
        return false;
    }
    if (m_block_size == 0 || m_block_size_sector == 0) {
        print_line("block size is out of range");
        return false;
    }
    if (m_update_image_ptr->ObjectInit(m_in_firmware, false) != CQZImage::kLoaded) {
        print_line("failed to load firmware" + result_suffix(1));  // kept: always 1, not the reader's code
        return false;
    }
    m_fout.file().protect(m_update_image_ptr->GetIdentity());
    if ((m_type == FLASH_EMMC || m_type == FLASH_NOR) && !switch_output("out_image.img"))
        return false;
    m_init_ok = true;
    return true;
}

void CStorage::send_output_to(OutputReceiver& receiver) {
    m_fout.buffer().send_to(receiver);
    m_writes_files = false;
}

bool CStorage::create_image() {
    const bool created = run_creation();
    close_output();  // also after a failure: what was written so far stays in the file
    return created;
}

bool CStorage::run_creation() {
    if (const int result = write_idblock(); result != kDone) {
        print_error_line("failed to write idblock" + result_suffix(result));
        return false;
    }
    if (!m_update_image_ptr->SingleFlag) {
        if (!write_partitions())
            return false;
        align_to_block();
    }
    return finish_output();
}

bool CStorage::write_partitions() {
    ItemPlan plan;
    if (!read_items(*m_update_image_ptr, plan) || !classify_items(*this, plan))
        return false;
    STRUCT_QZIMAGE_ITEM& parameter = plan.items[plan.parameter];
    if (!make_param_buffer(parameter)) {
        print_error_line("failed to create param buffer");
        return false;
    }
    m_gpt_flag = get_gpt_flag(parameter);
    if (m_gpt_flag)
        std::memcpy(parameter.name, kGptName, sizeof(kGptName));
    print_line(std::string("start to write partitions...gpt=") + (m_gpt_flag ? "1" : "0"));

    for (std::size_t i = 0; i < plan.items.size(); ++i) {
        const ENUM_IMAGE_TYPE kind = kind_of(plan, i, m_gpt_flag);
        if (plan.items[i].flash_offset == kNotOnStorage || kind == IMAGE_NONE)
            continue;
        if (!write_item(*this, plan.items[i], kind))
            return false;
    }
    return true;
}

bool CStorage::finish_output() {
    close_output();
    // Some steps go on after a read of the firmware that failed. The run then ends in failure here.
    if (const int error = m_update_image_ptr->GetReadError(); error != 0) {
        print_error_line("failed to read " + m_in_firmware + error_suffix(error));
        return false;
    }
    if (m_write_failure.error != 0) {
        print_error_line("failed to write " + m_write_failure.path + error_suffix(m_write_failure.error));
        return false;
    }
    print_line("creating programming image ok.");
    return true;
}

int CStorage::write_partition(STRUCT_QZIMAGE_ITEM& item, ENUM_IMAGE_TYPE type) {
    switch (type) {
    case IMAGE_GPT:
        return write_gpt(item);
    case IMAGE_PARAM:
        return write_parameter(item);
    case IMAGE_SPARSE:
        return write_sparse_image(item);
    case IMAGE_FILE:
        return write_image(item);
    case IMAGE_NONE:
        break;
    }
    print_line("Invalid image type");
    return kUnknownImageType;
}

bool CStorage::prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) {
    const uint32_t start = item.flash_offset + (m_gpt_flag ? 0 : kParameterLayoutStart);  // wraps at 32 bits
    if (!fill_output_file(uint64_t{start} * kSectorSize))
        return false;
    char position[9];
    std::snprintf(position, sizeof(position), "%08x", static_cast<unsigned>(start));
    print_line("preparing " + item_name(item) + " at 0x" + position);
    m_fout.buffer().begin_part({.kind = OutputPart::Kind::kItem, .name = item_name(item)});
    return true;
}

bool CStorage::fill_output_file(uint64_t offset) {
    if (!m_fout.is_open() || m_fout.buffer().has_failed())
        return true;  // a failure is reported by create_image
    m_fout.buffer().begin_part({});
    m_fout.seekp(0, std::ios_base::end);
    const uint64_t size = m_fout.buffer().size();
    if (size >= offset) {
        m_fout.seekp(static_cast<std::streamoff>(offset));
        return true;
    }

    ByteBuffer page(m_page_size);
    if (!page)
        return false;
    uint64_t missing = offset - size;
    if (missing >= m_page_size) {
        const uint32_t step = padding_step(m_page_size);
        const uint64_t steps = (missing - m_page_size) / step + 1;
        write_fill_pages(page.data(), steps, step);
        missing -= steps * step;
    }
    while (missing != 0) {
        const uint32_t step = padding_step(missing);
        write_fill_pages(page.data(), 1, step);
        missing -= step;
    }
    return true;
}

bool CStorage::align_to_block() {
    if (!m_fout.is_open() || m_fout.buffer().has_failed())
        return true;
    m_fout.buffer().begin_part({});
    m_fout.seekp(0, std::ios_base::end);
    const uint64_t excess = m_fout.buffer().size() % m_block_size;
    return excess == 0 || write_padding(page_count(m_block_size - excess, m_page_size));
}

bool CStorage::write_padding(uint64_t pages) {
    if (pages == 0)
        return true;
    ByteBuffer page(m_page_size);
    if (!page) {
        m_fout.give_up(ENOMEM);
        return false;
    }
    write_fill_pages(page.data(), pages, m_page_size);
    return true;
}

bool CStorage::write_page(uint8_t* data, uint32_t length) {
    if (!m_page_2k) {
        m_fout.write(reinterpret_cast<const char*>(data), length);
        return true;
    }
    for (uint64_t position = 0; position < m_page_size; position += kDataPerPage2k) {
        const uint64_t slice = std::min<uint64_t>(kDataPerPage2k, m_page_size - position);
        m_fout.write(reinterpret_cast<const char*>(data + position), static_cast<std::streamsize>(slice));
        m_fout.write_fill(m_fill_byte, 1, m_page_size - slice);
    }
    return true;
}

void CStorage::write_fill_pages(uint8_t* page, uint64_t count, uint32_t length) {
    const uint64_t written_length =
        m_page_2k ? uint64_t{page_count(m_page_size, kDataPerPage2k)} * m_page_size : length;
    for (uint64_t written = 0; written < count && !m_fout.buffer().has_failed(); ++written) {
        if (m_plain_pages && m_padding_by_pages >= kPaddingByPages) {
            m_fout.write_fill(m_fill_byte, count - written, written_length);
            return;
        }
        if (m_refused_padding >= kLargestRefusedPadding)
            return;
        if (!holds_only(page, m_page_size, m_fill_byte))
            std::memset(page, m_fill_byte, m_page_size);
        if (write_page(page, length))
            m_padding_by_pages += written_length;
        else
            ++m_refused_padding;
    }
}

uint32_t CStorage::write_pages(PageSource& source, uint32_t count, uint32_t pages, Progress* progress) {
    for (uint32_t done = 0; done < count;) {
        if (m_fout.buffer().has_failed()) {  // nothing more reaches the file
            if (progress != nullptr)
                progress->show_steps(done, count, 1, pages);
            return count;
        }
        const std::span<uint8_t> bytes = source.pages(done, count - done);
        if (bytes.empty())
            return done;
        for (uint64_t position = 0; position < bytes.size(); position += m_page_size) {
            write_page(bytes.data() + position, m_page_size);
            ++done;
            if (progress != nullptr)
                progress->show(done, pages);
        }
    }
    return count;
}

void CStorage::write_partition_rest(uint8_t* page, uint32_t done, uint32_t pages, Progress& progress) {
    while (done < pages) {
        const auto steps =
            static_cast<uint32_t>(std::min<uint64_t>(progress.steps_until_change(done, pages), pages - done));
        write_fill_pages(page, steps, m_page_size);
        done += steps;
        progress.show(done, pages);
    }
}

std::optional<uint32_t> CStorage::partition_pages(const STRUCT_QZIMAGE_ITEM& entry,
                                                  uint32_t data_pages) const {
    // The files of NAND partitions have data pages only.
    if (m_type == FLASH_SPI_NAND || m_type == FLASH_SLC_NAND || entry.part_size == kGrowingPartition)
        return data_pages;
    const uint32_t pages = page_count(entry.part_size, m_page_size_sector);
    return pages >= data_pages ? std::optional<uint32_t>(pages) : std::nullopt;
}

std::string CStorage::path_in_output(const std::string& name) const {
    const bool ends = m_out_dir.empty() || m_out_dir.back() == '/';  // empty: the current directory
    return m_out_dir + (ends ? "" : "/") + name;
}

bool CStorage::switch_output(const std::string& name) {
    m_out_file = path_in_output(name);
    close_output();
    m_padding_by_pages = 0;
    if (name.find('/') == std::string::npos) {
        m_fout.open(m_out_file, std::ios_base::out | std::ios_base::binary | std::ios_base::trunc);
    } else {
        m_fout.setstate(std::ios_base::failbit);
        errno = EINVAL;
    }
    if (!m_fout.is_open()) {
        print_line("failed to create " + m_out_file + error_suffix(errno));
        return false;
    }
    return true;
}

void CStorage::close_output() {
    if (m_fout.is_open())
        m_fout.close();
}
