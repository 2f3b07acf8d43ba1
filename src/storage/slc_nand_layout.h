#pragma once

#include "../io/byte_buffer.h"
#include "storage_impl.h"

#include <cstdint>
#include <string>

/// SLC NAND: the files of SPI NAND, but every page with its spare area: 1 KB units with BCH parity behind
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
    /// A flash page of fill bytes, encoded once: such pages differ in list index and parity alone.
    struct FillPage {
        ByteBuffer bytes;
        uint8_t fill_byte = 0;
        bool made = false;
    };
    /// Flash pages that lie encoded where the output gathers its bytes, right behind what was written last.
    struct PagesAhead {
        const uint8_t* data = nullptr;  ///< that the first of them is made of
        uint32_t list_index = 0;        ///< of the first of them
        uint32_t pages = 0;

        bool has(const uint8_t* page_data, uint32_t index) const {
            return pages != 0 && data == page_data && list_index == index;
        }
    };
    bool prepare_buffers();
    void write_flash_page(const uint8_t* data, uint32_t size);
    const uint8_t* encoded_flash_page(const uint8_t* data, uint32_t size);
    uint32_t pages_to_encode(const uint8_t* data, uint32_t size, uint64_t places) const;
    void encode_flash_pages(const uint8_t* data, uint32_t size, uint32_t pages, uint8_t* place);
    void lay_out_flash_page(const uint8_t* data, uint32_t size, uint32_t list_index, uint8_t* page) const;
    void write_logical_fill_pages(uint64_t count);
    uint64_t sectors_to_block_end(uint64_t sectors) const;
    uint32_t units() const { return m_page_size_sector / 2; }
    uint64_t flash_page_size() const { return uint64_t{m_page_size} + m_oob_size; }
    /// Flash pages that a page of data takes: one for each 2 KB with 2 KB per page, else one.
    uint32_t flash_pages_per_page() const;
    /// Bytes of data in a flash page; with 2 KB per page the last one of a page may have fewer.
    uint32_t data_per_flash_page() const;

    FillPage m_fill_page;
    PagesAhead m_ahead;
    ByteBuffer m_flash_page;
};
