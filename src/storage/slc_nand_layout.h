#pragma once

#include "../common/bch.h"
#include "../io/byte_buffer.h"
#include "storage_impl.h"

#include <cstdint>
#include <string>

/// Units that wait for their parity. The encoder takes several at a time, so they are encoded when it has
/// enough of them, or when their bytes are about to leave.
class WaitingUnits {
public:
    /// The 1028 bytes at unit, and the parity after them, stay where they are until encode.
    void add(uint8_t* unit);
    /// Encodes all that wait.
    void encode();

private:
    uint8_t* m_units[kBchUnitsTogether];
    uint32_t m_count = 0;
};

/// SLC NAND: the files of SPI NAND, but every page with its spare area: 1 KB units with BCH parity after
/// each, and the list index of the page in the first unit.
class CSlcStorage : public CStorage {
public:
    /// page_list: the list indexes count 0, 1, 2 (page linked list) instead of 0, 4, 8. Sets the BCH code up.
    CSlcStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                std::string out_dir, bool page_2k, bool page_list);
    ~CSlcStorage() override;
    bool prepare_write_idblock() override;
    bool post_write_idblock() override;
    bool prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) override;
    bool post_write_partition() override;
    /// Writes the m_page_size bytes of data as one flash page of m_page_size + m_oob_size bytes or, with 2 KB
    /// per page, as several; length is ignored. False, after a line, when the spare area is too small for the
    /// parity.
    bool write_page(uint8_t* data, uint32_t length) override;

protected:
    uint32_t m_bch_size;        ///< spare bytes of a unit: 4 system bytes and 28 of parity
    uint32_t m_bch_list_index;  ///< list index of the next page; 0 at the start of every file
    uint8_t m_bch_list_step;    ///< from page to page: 1 for a page linked list, else 4

private:
    bool prepare_buffers();
    void write_flash_page(const uint8_t* data, uint32_t size);
    void lay_out_flash_page(const uint8_t* data, uint32_t size, uint8_t* page);
    void write_logical_fill_pages(uint64_t count);
    uint64_t sectors_to_block_end(uint64_t sectors) const;
    uint32_t units() const { return m_page_size_sector / 2; }
    uint64_t flash_page_size() const { return uint64_t{m_page_size} + m_oob_size; }
    uint32_t flash_pages_per_page() const;
    uint32_t data_per_flash_page() const;

    /// A flash page of fill bytes, encoded once: such pages differ in list index and parity alone.
    ByteBuffer m_fill_page;
    uint8_t m_fill_page_byte = 0;
    ByteBuffer m_flash_page;  ///< for pages that do not fit the block in which the output gathers bytes
    WaitingUnits m_waiting;
};
