#pragma once

// What the tests of the boot container and of the update image share.

#include "firmware/QZBoot.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace firmware_tests {

using test_support::Bytes;

// A container object over memory of exactly its size, so that a sanitizer sees any access after it.
inline std::unique_ptr<CQZBoot> boot_object(const Bytes& container) {
    auto data = std::make_unique<uint8_t[]>(container.size());
    std::copy(container.begin(), container.end(), data.get());
    return std::make_unique<CQZBoot>(data.release(), static_cast<uint32_t>(container.size()));
}

inline int init_code(const Bytes& container) {
    return boot_object(container)->ObjectInit();
}

inline std::string to_text(const STRUCT_QZTIME& time) {
    const uint16_t year = time.usYear;  // the record is packed
    std::string text = std::to_string(year);
    for (const uint8_t part : {time.ucMonth, time.ucDay, time.ucHour, time.ucMinute, time.ucSecond})
        text += " " + std::to_string(part);
    return text;
}

// `size` bytes whose CRC is right, beginning like a container with `tag`.
inline Bytes short_container(std::size_t size, const std::string& tag) {
    Bytes bytes = test_support::BootContainer{.tag = tag}.build();
    bytes.resize(size, 0);
    if (size >= sizeof(uint32_t))
        test_support::repair_boot_crc(bytes);
    return bytes;
}

// Two entries in every table; the loader entries are those of which boot blocks are made.
inline test_support::BootContainer sample_container() {
    test_support::BootContainer container;
    container.entries_471.entries = {
        {.name = "MemoryInit", .data = test_support::patterned(70, 1), .delay = 1},
        {.name = "Second471", .data = test_support::patterned(71, 2), .delay = 11}};
    container.entries_472.entries = {
        {.name = "UsbLoader", .data = test_support::patterned(90, 3), .delay = 2},
        {.name = "Second472", .data = test_support::patterned(91, 4), .delay = 22}};
    container.loader.entries = {
        {.name = "FlashData", .data = test_support::patterned(300, 5), .delay = 3},
        {.name = "FlashBoot", .data = test_support::patterned(513, 6), .delay = 0xFFFFFFFF}};
    return container;
}

}  // namespace firmware_tests
