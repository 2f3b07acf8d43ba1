#pragma once

#include "../common/bch.h"
#include "../io/byte_buffer.h"
#include "storage_impl.h"

#include <cstdint>
#include <string>

/// Units that wait for their parity, because the encoder is fastest with several at a time.
class WaitingUnits {
public:
    /// Adds the 1028 bytes at unit, which stay there until encoded. Encodes all when there are enough.
    void add(uint8_t* unit);
    /// Encodes all units that wait.
    void encode();

private:
    uint8_t* m_units[kBchUnitsTogether];
    uint32_t m_count = 0;
};

/// SLC NAND: the files of SPI NAND, but every page with its spare area. A page consists of units, each 1 KB
/// of data, 4 system bytes and BCH parity. The system bytes of the first unit are the list index of the page.
class CSlcStorage : public CStorage {
public:
    /// page_list: list indexes 0, 1, 2 and so on (page linked list) instead of 0, 4, 8. Calls bch_init.
    CSlcStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                std::string out_dir, bool page_2k, bool page_list);
    ~CSlcStorage() override;
    bool prepare_write_idblock() override;
    bool post_write_idblock() override;
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override;
    bool post_write_partition() override;
    /// Writes the m_page_size bytes of data as one flash page of m_page_size + m_oob_size bytes or, with 2 KB
    /// per page, as several. length is ignored. False when the spare area is too small for the parity, after
    /// a line that says so, or when there is no memory.
    bool write_page(uint8_t* data, uint32_t length) override;

protected:
    uint32_t m_bch_size;        ///< spare bytes of a unit: 4 system bytes and 28 bytes of parity
    uint32_t m_bch_list_index;  ///< list index of the next flash page; 0 at the start of every file
    uint8_t m_bch_list_step;    ///< from page to page: 1 for a page linked list, else 4

private:
    bool prepare_buffers();
    void write_flash_page(const uint8_t* data, uint32_t size);
    void lay_out_flash_page(const uint8_t* data, uint32_t size, uint8_t* page);
    uint64_t fill_pages_after(uint64_t sectors) const;
    uint32_t units() const { return m_page_size_sector / 2; }
    uint64_t flash_page_size() const { return uint64_t{m_page_size} + m_oob_size; }
    uint32_t flash_pages_per_page() const;

    /// A flash page of fill bytes, encoded once: such pages differ only in the first unit.
    ByteBuffer m_fill_page;
    ByteBuffer m_flash_page;  ///< for a page that does not fit where the output gathers its bytes
    WaitingUnits m_waiting;
};
