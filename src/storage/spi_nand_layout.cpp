#include "storage_impl.h"

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
