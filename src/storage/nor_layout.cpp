#include "storage_impl.h"

namespace {

constexpr uint32_t kCopyAlignment = 128;  // 64 KB in sectors

}  // namespace

bool CNorStorage::prepare_write_idblock() {
    m_idb_total_sector = whole_blocks(m_idb_total_sector, m_block_size_sector);
    m_idb_copy = 2;
    m_idb_upper_limit = 2048;
    m_idb_start_sector = kIdbFirstCopySector;
    // The end of the erase block in which the first copy ends, rounded up to 64 KB. May wrap to 0 at 32 bits.
    const uint32_t end =
        ((m_idb_total_sector + kIdbFirstCopySector - 1) / m_block_size_sector + 1) * m_block_size_sector;
    m_idb_second_start_sector = end == 0 ? 0 : (end - 1) / kCopyAlignment * kCopyAlignment + kCopyAlignment;
    return true;
}
