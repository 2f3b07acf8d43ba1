#include "manifest_sums.h"

#include <algorithm>
#include <libdeflate.h>
#include <new>
#include <openssl/evp.h>
#include <stdexcept>

namespace {

// Each sum is made of a piece of this size while it lies in the cache of the processor.
constexpr uint64_t kPiece = 64 * 1024;

constexpr uint8_t kZeros[kPiece] = {};

uint32_t plain_sum(const uint8_t* bytes, uint64_t count) {
    uint32_t sum = 0;
    for (uint64_t i = 0; i < count; ++i)
        sum += bytes[i];
    return sum;
}

void require(int result) {
    if (result != 1)
        throw std::runtime_error("libcrypto failed to make a SHA-256");
}

}  // namespace

void ManifestSums::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

ManifestSums::ManifestSums() : m_sha256(EVP_MD_CTX_new()) {
    if (!m_sha256)
        throw std::bad_alloc();
    require(EVP_DigestInit_ex(m_sha256.get(), EVP_sha256(), nullptr));
}

void ManifestSums::add(const uint8_t* bytes, uint64_t count) {
    m_length += count;
    while (count != 0) {
        const uint64_t part = std::min(count, kPiece);
        m_sum32 += plain_sum(bytes, part);
        m_crc32 = libdeflate_crc32(m_crc32, bytes, part);
        require(EVP_DigestUpdate(m_sha256.get(), bytes, part));
        bytes += part;
        count -= part;
    }
}

void ManifestSums::add_zeros(uint64_t count) {
    while (count != 0) {
        const uint64_t part = std::min(count, kPiece);
        add(kZeros, part);
        count -= part;
    }
}

std::string ManifestSums::sha256() {
    constexpr char kDigits[] = "0123456789abcdef";
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    require(EVP_DigestFinal_ex(m_sha256.get(), digest, &size));
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}
