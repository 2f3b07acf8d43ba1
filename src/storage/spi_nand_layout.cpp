#include "storage_impl.h"

#include "console.h"

#include <utility>

CSpiStorage::CSpiStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                         std::string out_dir, bool page_2k)
    : CStorage(FLASH_SPI_NAND, block_size, page_size, oob_size, std::move(in_file), std::move(out_dir),
               page_2k) {}

CSpiStorage::~CSpiStorage() = default;

bool CSpiStorage::prepare_write_idblock() {
    return open_nand_idblock();
}

bool CSpiStorage::post_write_idblock() {
    return CSpiStorage::post_write_partition();
}

bool CSpiStorage::prepare_write_partition(STRUCT_QZIMAGE_ITEM& item) {
    return open_nand_partition(item);
}

bool CSpiStorage::post_write_partition() {
    align_to_block();
    close_output();
    return true;
}

// The files of both NAND types.

bool CStorage::open_nand_idblock() {
    if (!switch_output("idblock.img"))
        return false;
    m_idb_copy = 1;
    m_idb_start_sector = 0;
    m_idb_second_start_sector = 0;
    m_idb_upper_limit = 2048;
    return true;
}

bool CStorage::open_nand_partition(const STRUCT_QZIMAGE_ITEM& item) {
    const std::string name = item_name(item);
    if (!switch_output(name + ".img"))
        return false;
    print_line("preparing " + name + " saving at " + m_out_file);
    return true;
}
