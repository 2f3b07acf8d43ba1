#include "storage_impl.h"

#include <utility>

namespace {

// Fixed, 512 KB after the first copy: with a large block the second copy lies over the tail of the first.
constexpr uint32_t kSecondCopySector = 1088;

}  // namespace

CEmmcStorage::CEmmcStorage(uint32_t block_size, uint32_t page_size, uint32_t oob_size, std::string in_file,
                           std::string out_dir, bool page_2k)
    : CStorage(FLASH_EMMC, block_size, page_size, oob_size, std::move(in_file), std::move(out_dir), page_2k) {
}

CEmmcStorage::~CEmmcStorage() = default;

bool CEmmcStorage::prepare_write_idblock() {
    m_idb_total_sector = whole_blocks(m_idb_total_sector, m_block_size_sector);
    m_idb_copy = 2;
    m_idb_upper_limit = 8192;
    m_idb_start_sector = kIdbFirstCopySector;
    m_idb_second_start_sector = kSecondCopySector;
    return true;
}
