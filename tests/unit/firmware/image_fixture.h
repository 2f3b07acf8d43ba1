#pragma once

// What the tests of the update image share.

#include "firmware/QZImage.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace firmware_tests {

using test_support::Bytes;
using test_support::Firmware;

// The trailer as GetMd5Data hands it out; of the signature all 256 bytes that the image keeps.
struct Trailer {
    explicit Trailer(CQZImage& image) : signature_size(image.GetMd5Data(md5_data, signature_data)) {}

    uint8_t* md5_data = nullptr;
    uint8_t* signature_data = nullptr;
    int signature_size;
    Bytes md5{md5_data, md5_data + 32};
    Bytes signature{signature_data, signature_data + 256};
};

// Gives every test a directory, an image object, and a path whose name does not select single mode.
class QZImageTest : public ::testing::Test {
protected:
    std::filesystem::path path() const { return m_directory / "firmware.img"; }

    // What ObjectInit returns for a fresh image, which is m_image from then on.
    int init(const std::filesystem::path& file) {
        m_image = std::make_unique<CQZImage>();
        return m_image->ObjectInit(file.string(), false);
    }

    int init(const Firmware& firmware) {
        firmware.write(path());
        return init(path());
    }

    int init(const Bytes& bytes) {
        test_support::write_file(path(), bytes);
        return init(path());
    }

    // What GetData reads, if anything.
    std::optional<Bytes> data(uint64_t offset, uint32_t size) {
        Bytes bytes(size, 0xEE);
        return m_image->GetData(offset, size, bytes.data()) ? std::optional(bytes) : std::nullopt;
    }

    test_support::TemporaryDirectory m_directory;
    std::unique_ptr<CQZImage> m_image = std::make_unique<CQZImage>();
};

// A firmware of a few kilobytes without items.
inline Firmware small_firmware() {
    Firmware firmware;
    firmware.md5 = test_support::patterned(32, 32);
    return firmware;
}

}  // namespace firmware_tests
