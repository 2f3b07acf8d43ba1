#include "storage_impl.h"

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
