#include "common/common_define.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace {

using namespace test_support;

Bytes from_hex(std::string_view text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
    return bytes;
}

Bytes scrambled(Bytes bytes) {
    rc4(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return bytes;
}

Bytes scrambled_with(const Bytes& key, Bytes bytes) {
    rc4_with_key(bytes.data(), static_cast<uint32_t>(bytes.size()), key.data(),
                 static_cast<uint32_t>(key.size()));
    return bytes;
}

// ---- rc4_with_key, by published vectors ----

struct KeystreamPiece {
    std::size_t offset;
    const char* bytes;
};

// RFC 6229, for the 128-bit key that counts.
constexpr KeystreamPiece kKeystream[] = {
    {0, "9ac7cc9a609d1ef7b2932899cde41b97"},    {16, "5248c4959014126a6e8a84f11d1a9e1c"},
    {240, "065902e4b620f6cc36c8589f66432f2b"},  {256, "d39d566bc6bce3010768151549f3873f"},
    {496, "b6d1e6c4a5e4771cad79538df295fb11"},  {512, "c68c1d5c559a974123df1dbc52a43b89"},
    {752, "c5ecf88de897fd57fed301701b82a259"},  {768, "eccbe13de1fcc91c11a0b26c0bc8fa4d"},
    {1008, "e7a72574f8782ae26aabcf9ebcd66065"}, {1024, "bdf0324e6083dcc6d3cedd3ca8c53c16"},
    {1520, "b40110c4190b5622a96116b0017ed297"}, {1536, "ffa0b514647ec04f6306b892ae661181"},
    {2032, "d03d1bc03cd33d70dff9fa5d71963ebd"}, {2048, "8a44126411eaa78bd51e8d87a8879bf5"},
    {3056, "fabeb76028ade2d0e48722e46c4615a3"}, {3072, "c05d88abd50357f935a63c59ee537623"},
    {4080, "ff38265c1642c1abe8d3c2fe5e572bf8"}, {4096, "a36a4c301ae8ac13610ccbc12256cacc"},
};

TEST(Rc4WithKey, GivesThePublishedKeystream) {
    const Bytes keystream = scrambled_with(from_hex("0102030405060708090a0b0c0d0e0f10"), Bytes(4112, 0));
    for (const KeystreamPiece& piece : kKeystream)
        EXPECT_EQ(slice(keystream, piece.offset, 16), from_hex(piece.bytes)) << "offset " << piece.offset;
}

TEST(Rc4WithKey, XorsTheKeystreamOverTheBytes) {
    EXPECT_EQ(scrambled_with(to_bytes("Key"), to_bytes("Plaintext")), from_hex("bbf316e8d940af0ad3"));
    EXPECT_EQ(scrambled_with(to_bytes("Wiki"), to_bytes("pedia")), from_hex("1021bf0420"));
    EXPECT_EQ(scrambled_with(to_bytes("Secret"), to_bytes("Attack at dawn")),
              from_hex("45a01f645fc35b383552544b9bf5"));
}

TEST(Rc4WithKey, TakesKeysOfOneTo256Bytes) {
    const Bytes data = patterned(600, 1);
    for (const std::size_t length : {1U, 2U, 15U, 16U, 17U, 255U, 256U}) {
        const Bytes key = patterned(length, 77);
        EXPECT_EQ(scrambled_with(key, data), test_support::rc4_scrambled(data, test_support::to_text(key)))
            << "key of " << length;
    }
}

// ---- rc4, under the key of the build ----

// Every call starts the keystream afresh.
TEST(Rc4, ScramblesUnderTheKeyOfTheBuild) {
    const std::string build_key(kDeviceRc4Key);
    for (const uint32_t length : {1U, 2U, 255U, 256U, 257U, 511U, 512U}) {
        const Bytes sector = patterned(length, length);
        EXPECT_EQ(scrambled(sector), test_support::rc4_scrambled(sector, build_key)) << length;
        EXPECT_EQ(scrambled(sector), scrambled_with(to_bytes(build_key), sector)) << length;
        EXPECT_EQ(scrambled(scrambled(sector)), sector) << length;
    }
}

TEST(Rc4, TouchesNothingAfterItsLength) {
    Bytes bytes(40, 0xEE);
    rc4(bytes.data(), 0);
    EXPECT_EQ(bytes, Bytes(40, 0xEE));
    rc4(bytes.data() + 10, 20);
    EXPECT_EQ(bytes, Bytes(10, 0xEE) + scrambled(Bytes(20, 0xEE)) + Bytes(10, 0xEE));
}

}  // namespace
