#pragma once

// What the tests of the partition writers share beyond storage_fixture.h.

#include "storage_fixture.h"
#include "support/expected/parameter.h"
#include "support/process_limits.h"

#include <utility>
#include <vector>

namespace storage_test {

// Pages of 1 GB, for tests in which no memory can be had for one.
inline constexpr uint32_t kHugePageKb = 1024 * 1024;

// A recorder whose page writer says that it failed.
template <typename Recorder>
class Refusing : public Recorder {
public:
    using Recorder::Recorder;
    bool write_page(uint8_t* data, uint32_t length) override {
        Recorder::write_page(data, length);
        return false;
    }
};

// A firmware that holds these items only. Nothing is aligned and there is no trailer: the last item's data
// ends the file.
inline Firmware firmware_with(std::vector<Item> items) {
    Firmware firmware = sample_firmware();
    firmware.items = std::move(items);
    firmware.md5.clear();
    firmware.item_alignment = 1;
    return firmware;
}

}  // namespace storage_test
