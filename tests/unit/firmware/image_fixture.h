#pragma once

// What the tests of the update image share.

#include "firmware/QZImage.h"
#include "support/bytes.h"
#include "support/firmware_builder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace firmware_tests {

using test_support::Bytes;
using test_support::Firmware;

// The trailer as GetMd5Data hands it out; of the signature all 256 bytes that the image keeps.
struct Trailer {
    explicit Trailer(CQZImage& image) {
        uint8_t* md5_data = nullptr;
        uint8_t* signature_data = nullptr;
        signature_size = image.GetMd5Data(md5_data, signature_data);
        md5.assign(md5_data, md5_data + 32);
        signature.assign(signature_data, signature_data + 256);
    }

    int signature_size = -1;
    Bytes md5{};
    Bytes signature{};
};

// Gives every test a directory, an image object, and a path whose name does not select single mode.
class QZImageTest : public ::testing::Test {
protected:
    std::filesystem::path path() const { return m_directory / "firmware.img"; }

    int init(const std::filesystem::path& file) { return m_image.ObjectInit(file.string(), false); }

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
        return m_image.GetData(offset, size, bytes.data()) ? std::optional(bytes) : std::nullopt;
    }

    test_support::TemporaryDirectory m_directory;
    CQZImage m_image;
};

// A firmware of a few kilobytes without items.
inline Firmware small_firmware() {
    Firmware firmware;
    firmware.md5 = test_support::patterned(32, 32);
    return firmware;
}

}  // namespace firmware_tests
