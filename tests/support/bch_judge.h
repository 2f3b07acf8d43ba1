#pragma once

// Two judges of the BCH parity in SLC NAND pages: a slow encoder that follows the shift register bit by bit,
// and a textbook decoder (syndromes, Berlekamp-Massey, Chien search) with a field and tables of its own. They
// share no code with each other and none with the program.
//
// A codeword is 1024 data bytes and 4 system bytes followed by the parity. The code is a binary BCH code of
// length 2^14 - 1, shortened. In the stream, bit 0 of a byte comes first and the first bit is the coefficient
// of the highest power.

#include "bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

inline constexpr std::size_t kBchMessageBytes = 1028;
inline constexpr std::size_t kBchMessageBits = 8 * kBchMessageBytes;

// Bytes that hold the parity of a code that corrects t bits.
constexpr std::size_t bch_parity_bytes(unsigned t) {
    return (14 * std::size_t{t} + 7) / 8;
}

// The parity of 1028 bytes, bit-serially. t is 1 to 64; for 16, 24 and 60 an erased page is a codeword.
Bytes bch_slow_parity(const uint8_t* message, unsigned t);

struct DecodeResult {
    enum class Status { clean, corrected, failed };

    Status status = Status::failed;
    // Wrong bits in stream order, ascending: below 8224 bit p % 8 of message byte p / 8, from there on
    // bit (p - 8224) % 8 of parity byte (p - 8224) / 8.
    std::vector<std::size_t> wrong_bits{};

    bool clean() const { return status == Status::clean; }
};

// Decodes 1028 message bytes and their parity; `message` and `parity` stay as they are.
DecodeResult bch_decode(const uint8_t* message, const uint8_t* parity, unsigned t);

// "clean", "3 wrong bits" or "not correctable".
std::string to_string(const DecodeResult& result);

}  // namespace test_support
