#pragma once

// What the tests of the two NAND types share.

#include "sparse_fixture.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace storage_test {

class NandTest : public StorageTest {
protected:
    Bytes out_file(const std::string& name) const { return read_file(out_path(name)); }

    // An item that only has a name.
    static STRUCT_QZIMAGE_ITEM named(const std::string& name) {
        STRUCT_QZIMAGE_ITEM item{};
        std::memcpy(item.name, name.data(), std::min(name.size(), sizeof(item.name)));
        return item;
    }
};

}  // namespace storage_test
