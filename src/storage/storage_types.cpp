#include "storage_types.h"

namespace {

template <typename Storage>
std::unique_ptr<CStorage> make(const StorageSettings& s) {
    return std::make_unique<Storage>(s.block_size, s.page_size, s.oob_size, s.in_firmware, s.out_dir,
                                     s.page_2k);
}

template <>
std::unique_ptr<CStorage> make<CSlcStorage>(const StorageSettings& s) {
    return std::make_unique<CSlcStorage>(s.block_size, s.page_size, s.oob_size, s.in_firmware, s.out_dir,
                                         s.page_2k, s.page_list);
}

constexpr StorageType kTypes[] = {
    {"slc", true, make<CSlcStorage>},
    {"spinand", false, make<CSpiStorage>},
    {"spinor", false, make<CNorStorage>},
    {"emmc", false, make<CEmmcStorage>},
};

}  // namespace

std::span<const StorageType> storage_types() {
    return kTypes;
}
