#include "conversion.h"

#include <csignal>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace robustness {

const char* type_name(ENUM_FLASH_TYPE type) {
    switch (type) {
    case FLASH_EMMC:
        return "emmc";
    case FLASH_NOR:
        return "spinor";
    case FLASH_SPI_NAND:
        return "spinand";
    case FLASH_SLC_NAND:
        return "slc";
    case FLASH_NONE:
        break;
    }
    throw std::invalid_argument("no storage type");
}

std::unique_ptr<CStorage> make_storage(ENUM_FLASH_TYPE type, const Geometry& g,
                                       const std::filesystem::path& firmware,
                                       const std::filesystem::path& output) {
    const std::string in = firmware.string();
    const std::string out = output.string();
    switch (type) {
    case FLASH_EMMC:
        return std::make_unique<CEmmcStorage>(g.block_kb, g.page_kb, g.oob_bytes, in, out, g.page_2k);
    case FLASH_NOR:
        return std::make_unique<CNorStorage>(g.block_kb, g.page_kb, g.oob_bytes, in, out, g.page_2k);
    case FLASH_SPI_NAND:
        return std::make_unique<CSpiStorage>(g.block_kb, g.page_kb, g.oob_bytes, in, out, g.page_2k);
    case FLASH_SLC_NAND:
        return std::make_unique<CSlcStorage>(g.block_kb, g.page_kb, g.oob_bytes, in, out, g.page_2k,
                                             g.page_list);
    case FLASH_NONE:
        break;
    }
    throw std::invalid_argument("no storage type");
}

int convert(ENUM_FLASH_TYPE type, const Geometry& geometry, const std::filesystem::path& firmware,
            const std::filesystem::path& output) {
    try {
        std::srand(1);
        const auto storage = make_storage(type, geometry, firmware, output);
        if (type == FLASH_SLC_NAND && geometry.bch_path)
            bch_select_path(*geometry.bch_path);
        if (!storage->storage_init())
            return kStatusInitFailed;
        return storage->create_image() ? kStatusSuccess : kStatusCreationFailed;
    } catch (const std::bad_alloc&) {
        return kStatusOutOfMemory;
    }
}

FileSizeLimit::FileSizeLimit(uint64_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &m_before);
    const rlimit lowered{bytes, m_before.rlim_max};
    if (::setrlimit(RLIMIT_FSIZE, &lowered) != 0)
        throw std::runtime_error("cannot limit the size of files");
}

FileSizeLimit::~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &m_before);
}

}  // namespace robustness
