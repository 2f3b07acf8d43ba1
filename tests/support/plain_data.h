#pragma once

// What an extraction gives of a firmware's items.

#include "firmware_builder.h"
#include "sparse_builder.h"

namespace test_support {

// What a sparse image expands to, without the rest of its last page.
inline Bytes expanded(const Bytes& sparse) {
    Bytes image = expand_sparse(sparse, 2048).image;
    image.resize(static_cast<std::size_t>(declared_size(sparse)));
    return image;
}

// The files that the extraction gives, but for the GPT, whose GUIDs are random.
inline Files plain_data(const Firmware& firmware) {
    Files files;
    for (const BootEntry& entry : firmware.boot.loader.entries)
        files[entry.name] = entry.data;
    for (const Item& item : firmware.items)
        if (item.data.size() >= sparse_field::kHeaderBytes && get32(item.data, 0) == kSparseMagic)
            files[item.name + ".img"] = expanded(item.data);
        else if (!item.data.empty() && item.flash_offset != kNotPlaced)
            files[item.name + ".img"] = item.data;
    return files;
}

}  // namespace test_support
