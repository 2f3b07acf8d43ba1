#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct evp_md_ctx_st;

/// The checksums of a file in a manifest, made from its bytes in their order.
class ManifestSums {
public:
    /// Throws std::bad_alloc without memory, std::runtime_error when the library refuses SHA-256.
    ManifestSums();

    void add(const uint8_t* bytes, uint64_t count);
    void add_zeros(uint64_t count);

    /// In bytes.
    uint64_t length() const { return m_length; }
    /// The bytes added up, modulo 2^32.
    uint32_t sum32() const { return m_sum32; }
    /// The CRC-32 of IEEE 802.3, as zip, gzip and Ethernet use it.
    uint32_t crc32() const { return m_crc32; }
    /// 64 hexadecimal digits. Nothing may be added after it.
    std::string sha256();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };

    std::unique_ptr<evp_md_ctx_st, Free> m_sha256;
    uint64_t m_length = 0;
    uint32_t m_sum32 = 0;
    uint32_t m_crc32 = 0;
};
