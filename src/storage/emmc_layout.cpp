#include "storage_impl.h"

namespace {

// 512 KB after the first copy. Kept: with a large block this overwrites the end of the first copy.
constexpr uint32_t kSecondCopySector = 1088;

}  // namespace

bool CEmmcStorage::prepare_write_idblock() {
    m_idb_total_sector = whole_blocks(m_idb_total_sector, m_block_size_sector);
    m_idb_copy = 2;
    m_idb_upper_limit = 8192;
    m_idb_start_sector = kIdbFirstCopySector;
    m_idb_second_start_sector = kSecondCopySector;
    return true;
}
