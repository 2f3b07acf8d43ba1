#pragma once

#include <cstdint>

/// Checksums of the boot container and the GPT, and the scrambler of the boot block.
/// Nothing here has state beyond constant tables, and nothing fails.

/// MSB-first CRC table of the boot container: entry i is i * x^24 modulo x^32 + 0x04C10DB7.
/// The generator differs from the usual 0x04C11DB7 in bit 12. Kept: the checksum in a boot container is made
/// with this value.
extern const uint32_t gCrc32Table[256];

/// The ordinary reflected CRC-32 table (IEEE 802.3, generator 0xEDB88320), as GPT headers use it.
extern const uint32_t crc32table_le[256];

/// CRC of a boot container: MSB-first over gCrc32Table, no reflection, no final XOR.
/// Starts from *init, or from 0 when init is null; *init is only read. len in bytes.
uint32_t crc32(const uint8_t* data, uint32_t len, const uint32_t* init);

/// Standard CRC-32 over len bytes, continuing from seed (0, or the result over the bytes before).
/// An empty buffer returns the seed.
uint32_t crc32_le(const uint8_t* data, uint32_t len, uint32_t seed);

/// Fills 256 entries with the MSB-first table of the standard generator 0x04C11DB7 (not that of gCrc32Table).
void make_crc_table(uint32_t* table);

/// CRC-16 over len bytes: generator 0x8005, start 0, MSB-first, no final XOR.
uint16_t crc16(const uint8_t* data, uint32_t len);

/// Fills 256 entries: entry i is the MSB-first remainder of i * x^8 for the generator poly.
void BuildCrc16Table(uint16_t poly, uint16_t* table);

/// CRC-16/CCITT over len bytes: generator 0x1021, start 0xFFFF, MSB-first, no final XOR.
uint16_t crc_ccitt(const uint8_t* data, uint32_t len);

/// One byte step of crc_ccitt from the value crc.
uint16_t crc_calculate(uint16_t crc, uint8_t byte);

/// Scrambles len bytes in place with RC4. The key is fixed at build time (NANDSMITH_RC4_KEY).
/// The keystream starts anew at every call: in a boot block each 512-byte sector is scrambled by itself.
/// A second call restores the bytes.
void rc4(uint8_t* buf, uint32_t len);

/// rc4 with a given key of key_len bytes (1 to 256).
void rc4_with_key(uint8_t* buf, uint32_t len, const uint8_t* key, uint32_t key_len);
