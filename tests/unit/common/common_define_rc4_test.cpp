#include "common/common_define.h"

#include "support/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using test_support::Bytes;
using test_support::patterned;
using test_support::slice;
using test_support::to_bytes;

Bytes from_hex(std::string_view text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
    return bytes;
}

// The key that this build scrambles with, as sixteen characters.
std::string build_key() {
#ifdef NANDSMITH_RC4_KEY
    return test_support::to_text(from_hex(NANDSMITH_RC4_KEY));
#else
    return "nandsmith-devkey";
#endif
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

// RFC 6229, the two 128-bit keys.
constexpr std::string_view kCountingKey = "0102030405060708090a0b0c0d0e0f10";
constexpr KeystreamPiece kCountingKeystream[] = {
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

constexpr std::string_view kRandomKey = "ebb46227c6cc8b37641910833222772a";
constexpr KeystreamPiece kRandomKeystream[] = {
    {0, "720c94b63edf44e131d950ca211a5a30"},    {16, "c366fdeacf9ca80436be7c358424d20b"},
    {240, "b3394a40aabf75cba42282ef25a0059f"},  {256, "4847d81da4942dbc249defc48c922b9f"},
    {496, "08128c469f275342adda202b2b58da95"},  {512, "970dacef40ad98723bac5d6955b81761"},
    {752, "3cb89993b07b0ced93de13d2a11013ac"},  {768, "ef2d676f1545c2c13dc680a02f4adbfe"},
    {1008, "b60595514f24bc9fe522a6cad7393644"}, {1024, "b515a8c5011754f59003058bdb81514e"},
    {1520, "3c70047e8cbc038e3b9820db601da495"}, {1536, "1175da6ee756de46a53e2b075660b770"},
    {2032, "00a542bba02111cc2c65b38ebdba587e"}, {2048, "5865fdbb5b48064104e830b380f2aede"},
    {3056, "34b21ad2ad44e999db2d7f0863f0d9b6"}, {3072, "84a9218fc36e8a5f2ccfbeae53a27d25"},
    {4080, "a2221a11b833ccb498a59540f0545f4a"}, {4096, "5bbeb4787d59e5373fdbea6c6f75c29b"},
};

TEST(Rc4WithKey, GivesThePublishedKeystreamOfTheCountingKey) {
    const Bytes keystream = scrambled_with(from_hex(kCountingKey), Bytes(4112, 0));
    for (const KeystreamPiece& piece : kCountingKeystream)
        EXPECT_EQ(slice(keystream, piece.offset, 16), from_hex(piece.bytes)) << "offset " << piece.offset;
}

TEST(Rc4WithKey, GivesThePublishedKeystreamOfTheRandomKey) {
    const Bytes keystream = scrambled_with(from_hex(kRandomKey), Bytes(4112, 0));
    for (const KeystreamPiece& piece : kRandomKeystream)
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

TEST(Rc4, ScramblesUnderTheKeyOfTheBuild) {
    ASSERT_EQ(build_key().size(), 16U);
    const Bytes sector = patterned(512, 2);
    EXPECT_EQ(scrambled(sector), test_support::rc4_scrambled(sector, build_key()));
    EXPECT_EQ(scrambled(sector), scrambled_with(to_bytes(build_key()), sector));
}

TEST(Rc4, TwiceRestoresTheBytes) {
    const Bytes sector = patterned(512, 3);
    EXPECT_NE(scrambled(sector), sector);
    EXPECT_EQ(scrambled(scrambled(sector)), sector);
}

TEST(Rc4, StartsTheKeystreamAfreshAtEveryCall) {
    const Bytes first = patterned(512, 4);
    const Bytes second = patterned(512, 5);
    const Bytes scrambled_first = scrambled(first);
    const Bytes scrambled_second = scrambled(second);
    for (std::size_t i = 0; i < first.size(); ++i)
        ASSERT_EQ(first[i] ^ scrambled_first[i], second[i] ^ scrambled_second[i]) << i;
}

TEST(Rc4, FirstBytesOfASectorAreScrambledAsInIt) {
    const Bytes sector = patterned(512, 6);
    const Bytes whole = scrambled(sector);
    for (const std::size_t length : {1U, 2U, 255U, 256U, 257U, 511U})
        EXPECT_EQ(scrambled(slice(sector, 0, length)), slice(whole, 0, length)) << length;
}

TEST(Rc4, TouchesNothingAfterItsLength) {
    Bytes bytes(40, 0xEE);
    rc4(bytes.data(), 0);
    EXPECT_EQ(bytes, Bytes(40, 0xEE));
    rc4(bytes.data() + 10, 20);
    EXPECT_EQ(slice(bytes, 0, 10), Bytes(10, 0xEE));
    EXPECT_EQ(slice(bytes, 10, 20), scrambled(Bytes(20, 0xEE)));
    EXPECT_EQ(slice(bytes, 30, 10), Bytes(10, 0xEE));
}

}  // namespace
