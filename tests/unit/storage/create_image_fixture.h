#pragma once

// Whole runs of create_image, beside an image that is put together piece by piece as the formats ask for it.

#include "support/expected/boot_block.h"
#include "partition_fixture.h"
#include "storage_fixture.h"

#include <algorithm>
#include <memory>
#include <string>

namespace storage_test {

// An output file as it grows.
class PlacedImage {
public:
    void place(uint64_t offset, const Bytes& bytes) {
        m_bytes.resize(std::max(m_bytes.size(), static_cast<std::size_t>(offset) + bytes.size()), 0);
        put_bytes_at(m_bytes, static_cast<std::size_t>(offset), bytes);
    }
    void align(uint64_t block_size, uint64_t page_size) {
        const uint64_t missing = round_up(m_bytes.size(), block_size) - m_bytes.size();
        m_bytes.resize(m_bytes.size() + static_cast<std::size_t>(round_up(missing, page_size)), 0);
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes{};
};

// What a run without an error ends with.
inline const std::string success_line = "creating programming image ok.\n";

// The boot block copies of eMMC in whole pages, as they lie in the output.
inline void place_emmc_boot_blocks(PlacedImage& image, const test_support::Firmware& firmware,
                                   const Geometry& geometry) {
    const uint64_t page = geometry.page_kb * 1024;
    const Bytes block = boot_block(firmware);
    const uint64_t in_blocks =
        test_support::round_up(test_support::round_up(block.size(), page), geometry.block_kb * 1024);
    const Bytes copy = zero_padded(block, test_support::round_up(in_blocks, page));
    image.place(64 * 512, copy);
    image.place(1088 * 512, copy);
}

// A partition of the item's size, or of the data's whole pages when it grows.
inline Bytes partition_bytes(const test_support::Item& item, uint64_t page_size) {
    const bool grows = item.part_size == test_support::grows_to_end;
    const uint64_t size = grows ? item.data.size() : uint64_t{item.part_size} * 512;
    return zero_padded(item.data, test_support::round_up(size, page_size));
}

class CreateImageTest : public StorageTest {
protected:
    // storage_init and create_image; what they print together.
    template <typename Storage>
    std::string run(Storage& storage, bool result = true) {
        bool created = !result;
        const std::string output = output_of([&] {
            ASSERT_TRUE(storage.storage_init());
            created = storage.create_image();
        });
        EXPECT_EQ(created, result);
        EXPECT_FALSE(storage.m_fout.is_open());
        return output;
    }

    // The same for an eMMC storage of its own.
    std::string run_emmc(const test_support::Firmware& firmware, bool result = true,
                         const Geometry& geometry = {}) {
        write_firmware(firmware);
        return run(*make<Exposed<CEmmcStorage>>(geometry), result);
    }

    // What is printed for one ordinary partition.
    static std::string partition_lines(const std::string& name, const std::string& at, uint64_t pages) {
        return "preparing " + name + " at 0x" + at + "\n" + writing_lines(name, pages);
    }
    static std::string parameter_lines(const std::string& at) {
        return "preparing parameter at 0x" + at + "\nwriting parameter...\n" +
               redrawn("writing parameter...OK");
    }
    static inline const std::string start_lines = "writing idblock...\nstart to write partitions...gpt=0\n";
};

// A firmware without a GPT whose parameter item is the first one, for the test to add items to.
inline test_support::Firmware bare_firmware() {
    test_support::Firmware firmware = test_support::sample_firmware();
    firmware.items.resize(1);
    firmware.items[0].part_size = 32;
    return firmware;
}

}  // namespace storage_test
