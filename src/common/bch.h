#pragma once

#include <cstdint>

struct BchRegister;

/// Binary BCH code over GF(2^14) for NAND pages. A codeword has 1024 data bytes, 4 system bytes and parity
/// for t correctable bits. bch_init configures the code and bch_encode uses it. Both work on global state.

// Configuration, set by bch_init.
extern uint8_t mm;                ///< degree of the field, 14
extern uint32_t MaxBitsNum;       ///< t, correctable bits per codeword
extern uint32_t CodeBytesNum;     ///< data bytes, 1024
extern uint32_t SysBytesNum;      ///< system bytes protected with the data, 4
extern uint32_t CodeBitsNum;      ///< data bits
extern uint32_t DubCodeBitsNum;   ///< 2^14 - 1, the multiplicative order of the field
extern uint32_t CodeSysBitsNum;   ///< data and system bits
extern uint32_t CodeSysBytesNum;  ///< bytes that are encoded, 1028
extern uint32_t CodecBitsNum;     ///< parity bits, 14 t
extern uint32_t CodecBytesNum;    ///< parity bytes that are written
extern uint32_t CodecWordsNum;    ///< 32-bit words of the parity register
extern uint32_t AllBitsNum;       ///< bits of a codeword
extern uint32_t AllBytesNum;      ///< bytes of a codeword
extern uint32_t BCHSpareSize;     ///< spare bytes reserved for the parity, an even number

constexpr uint32_t kLargestBchStrength = 64;  ///< largest t
constexpr uint32_t kBchUnitsTogether = 8;     ///< codewords that the encoder takes at a time

// Field and generator tables.
extern int32_t* alpha_to;  ///< powers of the primitive element; only while bch_init runs, else null
extern int32_t* index_of;  ///< its logarithms, index_of[0] = -1; only while bch_init runs, else null
extern uint8_t p[21];      ///< coefficients of the primitive polynomial, from x^0 to x^mm
extern uint8_t gg[14 * kLargestBchStrength + 1];  ///< coefficients of the generator polynomial, from x^0 on
extern uint32_t rr;                               ///< degree of the generator polynomial
/// The generator as the encoder's register holds it: bit b is the coefficient of x^(rr - 1 - b).
extern uint32_t ggx[64];

/// Configures the code for t correctable bits, 1 to 64 (asserted). Must be called before any encoding; a
/// later call replaces the configuration.
void bch_init(uint16_t t);

/// A step of bch_init: fills p, alpha_to and index_of for the degree mm, 2 to 20 (asserted). alpha_to and
/// index_of point to 2^mm entries each and are not null (asserted).
void generate_gf();

/// A step of bch_init: fills gg, rr and ggx for MaxBitsNum correctable bits, from the alpha_to and index_of
/// of generate_gf, which are not null (asserted).
void gen_poly();

/// Encodes one codeword: copies the 1028 bytes at input to output, unless both pointers are equal, and writes
/// CodecBytesNum parity bytes at output + 1028. For t = 16, 24 and 60 a codeword of 0xFF bytes is valid.
void bch_encode(const uint8_t* input, uint8_t* output);

/// Encodes count codewords in place, each as bch_encode does. They may lie anywhere. A multiple of
/// kBchUnitsTogether takes the least time for each.
void bch_encode_units(uint8_t* const* units, uint32_t count);

/// Sets parities[i] to the parity that bch_encode_units would write to units[i], for i below count, which is
/// 1 to kBchUnitsTogether. Bits after the CodecBytesNum bytes mean nothing. The units stay as they are.
void bch_compute_parities(const uint8_t* const* units, uint32_t count, BchRegister* parities);

/// Replaces the system bytes of an encoded codeword by value (little-endian) and updates its parity. The code
/// is linear, so the data is not read.
void bch_replace_system_bytes(uint8_t* codeword, uint32_t value);

/// Number of codewords encoded since the program started; bch_replace_system_bytes does not count.
uint64_t bch_encoded_codewords();
