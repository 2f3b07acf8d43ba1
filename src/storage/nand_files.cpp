#include "console.h"
#include "storage_impl.h"

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
