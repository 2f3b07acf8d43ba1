#include "slc_nand_layout.h"

#include "../common/byte_run.h"
#include "console.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

namespace {

constexpr uint16_t kBchStrength = 16;  // whatever the size of the spare area
constexpr uint32_t kUnitData = 1024;
constexpr uint32_t kUnitSpare = 32;  // 4 system bytes and 28 bytes of parity
constexpr uint32_t kUnitStride = kUnitData + kUnitSpare;
constexpr uint8_t kErased = 0xFF;

/// The BCH code of SLC NAND as long as this lives. A derived class may have set up another one.
class SlcCode {
public:
    SlcCode() : m_before(static_cast<uint16_t>(MaxBitsNum)) {
        if (m_before != kBchStrength)
            bch_init(kBchStrength);
    }
    ~SlcCode() {
        if (m_before != kBchStrength)
            bch_init(m_before);
    }

private:
    uint16_t m_before;
};

}  // namespace

void WaitingUnits::add(uint8_t* unit) {
    m_units[m_count++] = unit;
    if (m_count == kBchUnitsTogether)
        encode();
}

void WaitingUnits::encode() {
    const SlcCode code;
    bch_encode_units(m_units, m_count);
    m_count = 0;
}

CSlcStorage::CSlcStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                         std::string out_dir, bool page_2k, bool page_list)
    : CStorage(FLASH_SLC_NAND, block_size, page_size, oob_size, std::move(in_file), std::move(out_dir),
               page_2k),
      m_bch_size(kUnitSpare), m_bch_list_index(0), m_bch_list_step(page_list ? 1 : 4) {
    bch_init(kBchStrength);
    m_plain_pages = false;
    m_fout.buffer().before_leaving([this] { m_waiting.encode(); });
}

CSlcStorage::~CSlcStorage() {
    close_output();
    m_fout.buffer().before_leaving({});
}

bool CSlcStorage::prepare_write_idblock() {
    if (!open_nand_idblock())
        return false;
    m_bch_list_index = 0;
    const uint64_t pages = page_count(m_idb_total_sector, m_page_size_sector);
    const uint64_t sectors = pages * m_page_size_sector * flash_pages_per_page();
    m_idb_fill_page_num = static_cast<uint32_t>(fill_pages_after(sectors));
    return true;
}

bool CSlcStorage::post_write_idblock() {
    write_padding(m_idb_fill_page_num);
    close_output();
    m_bch_list_index = 0;
    return true;
}

bool CSlcStorage::prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) {
    m_bch_list_index = 0;
    m_image_fill_page_num = 0;
    return open_nand_partition(item);
}

bool CSlcStorage::post_write_partition() {
    // Kept: with 2 KB per page this is not multiplied by the flash pages of a page, unlike the boot block.
    write_padding(fill_pages_after(uint64_t{m_image_fill_page_num} * m_page_size_sector));
    close_output();
    m_bch_list_index = 0;
    m_image_fill_page_num = 0;
    return true;
}

/// Pages of padding after that many sectors, up to the end of the erase block.
uint64_t CSlcStorage::fill_pages_after(uint64_t sectors) const {
    const uint64_t block = m_block_size_sector;
    const uint64_t missing = (sectors + block - 1) / block * block - sectors;
    return missing == 0 ? 0 : (missing - 1) / m_page_size_sector / flash_pages_per_page() + 1;
}

/// Flash pages that a page of data takes: with 2 KB per page one for each 2 KB, else one.
uint32_t CSlcStorage::flash_pages_per_page() const {
    return m_page_2k ? std::max(page_count(m_page_size, kDataPerPage2k), 1U) : 1;
}

bool CSlcStorage::write_page(uint8_t* data, uint32_t /*length*/) {
    if (flash_page_size() < uint64_t{units()} * kUnitStride) {
        print_error_line("size of oob is not enough");
        return false;
    }
    if (m_fout.buffer().has_failed())
        return true;  // it would not reach the file
    if (!prepare_buffers()) {
        m_fout.give_up(ENOMEM);
        return false;
    }
    const uint64_t data_size = m_page_2k ? kDataPerPage2k : m_page_size;  // of a flash page
    for (uint64_t position = 0; position < m_page_size; position += data_size)
        write_flash_page(data + position, static_cast<uint32_t>(std::min(data_size, m_page_size - position)));
    return true;
}

bool CSlcStorage::prepare_buffers() {
    const uint64_t size = flash_page_size();
    if (m_flash_page.size() == size && m_fill_page.size() == size && m_fill_page.data()[0] == m_fill_byte)
        return true;
    if (!m_flash_page.reset(size) || !m_fill_page.reset(size))
        return false;

    uint8_t* page = m_fill_page.data();
    std::memset(page, kErased, static_cast<std::size_t>(size));
    std::memset(page + kUnitData, 0, sizeof(m_bch_list_index));
    WaitingUnits waiting;
    for (uint32_t k = 0; k < units(); ++k) {
        std::memset(page + uint64_t{k} * kUnitStride, m_fill_byte, kUnitData);
        waiting.add(page + uint64_t{k} * kUnitStride);
    }
    waiting.encode();
    return true;
}

/// Writes size bytes of data and fill bytes up to a page as the next flash page. A flash page that fits is
/// laid out where the output gathers its bytes, and its units wait for their parity. For example, the units
/// of four pages of 2 KB are encoded together. They get their parity in before_leaving at the latest.
void CSlcStorage::write_flash_page(const uint8_t* data, uint32_t size) {
    const std::span<uint8_t> room = m_fout.buffer().room();
    uint8_t* page = m_flash_page.data();
    if (holds_only(data, size, m_fill_byte)) {
        page = m_fill_page.data();
        const SlcCode code;
        bch_replace_system_bytes(page, m_bch_list_index);
    } else if (m_fout.good() && m_fout.rdbuf() == &m_fout.buffer() && room.size() >= flash_page_size()) {
        page = room.data();
        lay_out_flash_page(data, size, page);
    } else {
        lay_out_flash_page(data, size, page);
        m_waiting.encode();
    }
    m_bch_list_index += m_bch_list_step;
    m_fout.write(reinterpret_cast<const char*>(page), static_cast<std::streamsize>(flash_page_size()));
}

/// Fills a flash page, except for the parity of its data: these units wait.
void CSlcStorage::lay_out_flash_page(const uint8_t* data, uint32_t size, uint8_t* page) {
    // CodeBytesNum equals kUnitData. A copy of a length that the compiler does not know is faster here.
    const uint32_t unit_data = CodeBytesNum;
    const uint32_t data_units = page_count(size, kUnitData);
    for (uint32_t k = 0; k < data_units; ++k) {
        uint8_t* unit = page + uint64_t{k} * kUnitStride;
        std::memcpy(unit, data + uint64_t{k} * kUnitData, unit_data);
        std::memset(unit + kUnitData, kErased, kUnitSpare);
    }
    std::memcpy(page + kUnitData, &m_bch_list_index, sizeof(m_bch_list_index));
    for (uint32_t k = 0; k < data_units; ++k)
        m_waiting.add(page + uint64_t{k} * kUnitStride);

    // The units after the data, with their parity, and the erased bytes after them are those of the fill
    // page.
    const uint64_t end = uint64_t{data_units} * kUnitStride;
    std::memcpy(page + end, m_fill_page.data() + end, static_cast<std::size_t>(flash_page_size() - end));
}
