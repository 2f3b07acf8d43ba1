#include "QZImage.h"

#include "../common/byte_reader.h"
#include "../common/lower_case.h"
#include "../common/messages.h"
#include "../io/retry.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <sys/stat.h>

namespace {

constexpr uint32_t kImageTag = 0x57465A51;  // "QZFW"
constexpr std::size_t kPathBufferSize = 256;

// Positions in the reserved bytes of the image head.
constexpr std::size_t kOsTypePosition = 4;
constexpr std::size_t kBackupSizePosition = 12;
constexpr std::size_t kPackageSizeMark = 14;  // 'H', 'I': the package size has a high half
constexpr std::size_t kPackageSizeHigh = 16;

constexpr int32_t kMd5Size = 32;
constexpr int32_t kLargestSignature = 256;
// A trailer of up to this many bytes is an MD5 alone; a signature has at least 128 bytes.
constexpr int32_t kLongestTrailerWithoutSignature = 159;

}  // namespace

int CQZImage::ObjectInit(std::string filename, bool /*bDoCheck*/) {
    if (const int code = open_file(filename); code != 0)
        return code;

    if (m_bSingleFlag) {
        m_bootOffset = 0;
        m_bootSize = static_cast<uint32_t>(m_fileSize);  // a container's size has 32 bits
    } else if (const int code = load_head(); code != 0) {
        return code;
    }
    if (const int code = load_boot_container(); code != 0)
        return code;

    if (m_bSingleFlag) {
        m_supportDevice = m_bootObject->SupportDevice;
        std::memset(m_reserved + kOsTypePosition, 0, sizeof(ENUM_OS_TYPE));
        close_file();
    }
    return 0;
}

int CQZImage::open_file(const std::string& filename) {
    if (filename.size() >= kPathBufferSize) {
        put_message("path of firmware is too long\n");
        std::exit(EXIT_FAILURE);
    }

    struct stat status {};
    if (retry_interrupted([&] { return ::stat(filename.c_str(), &status); }) != 0)
        return kNoStatus;
    if (S_ISDIR(status.st_mode))
        return kIsADirectory;
    m_fileSize = static_cast<uint64_t>(status.st_size);
    m_identity = FileIdentity(status);
    m_bSingleFlag = lower_case(filename).find(".bin") != std::string::npos;

    retry_interrupted([&] {
        m_pFile = std::fopen(filename.c_str(), "rb");
        return m_pFile != nullptr ? 0 : -1;
    });
    if (m_pFile == nullptr)
        return kNotOpened;
    m_reader.attach(::fileno(m_pFile));
    return kLoaded;
}

int CQZImage::load_head() {
    STRUCT_QZIMAGE_HEAD head{};
    if (!m_reader.read(0, sizeof(head), reinterpret_cast<uint8_t*>(&head)))
        return kNotRead;
    if (head.uiTag != kImageTag)
        return kWrongTag;

    // The end is a 32-bit sum, or with a high half a 64-bit sum.
    uint64_t package_end = static_cast<uint32_t>(head.dwFWOffset + head.dwFWSize);
    if (head.reserved[kPackageSizeMark] == 'H' && head.reserved[kPackageSizeMark + 1] == 'I') {
        const uint64_t high = little_endian_at<uint32_t>(head.reserved + kPackageSizeHigh);
        package_end = uint64_t{head.dwFWOffset} + head.dwFWSize + (high << 32);
    }
    if (!load_trailer(package_end))
        return kNotRead;

    m_version = head.dwVersion;
    m_mergeVersion = head.dwMergeVersion;
    m_releaseTime = head.stReleaseTime;
    m_supportDevice = head.emSupportChip;
    m_bootOffset = head.dwBootOffset;
    m_bootSize = head.dwBootSize;
    m_fwOffset = head.dwFWOffset;
    m_fwSize = package_end - head.dwFWOffset;
    std::memcpy(m_reserved, head.reserved, sizeof(m_reserved));
    return 0;
}

bool CQZImage::load_trailer(uint64_t package_end) {
    // Kept: the length is the signed difference of the low halves.
    const auto trailer_size =
        static_cast<int32_t>(static_cast<uint32_t>(m_fileSize) - static_cast<uint32_t>(package_end));
    if (trailer_size > kLongestTrailerWithoutSignature) {
        m_bSignFlag = true;
        m_signMd5Size = std::min(trailer_size - kMd5Size, kLargestSignature);
        return m_reader.read(package_end, sizeof(m_md5), m_md5) &&
               m_reader.read(package_end + kMd5Size, static_cast<uint64_t>(m_signMd5Size), m_signMd5)
                   .has_value();
    }
    if (m_fileSize < sizeof(m_md5))
        return true;
    return m_reader.read(m_fileSize - sizeof(m_md5), sizeof(m_md5), m_md5).has_value();
}

int CQZImage::load_boot_container() {
    // No more is allocated than the file has, whatever the head says.
    const uint64_t after_offset = m_fileSize > m_bootOffset ? m_fileSize - m_bootOffset : 0;
    const auto available = static_cast<uint32_t>(std::min<uint64_t>(m_bootSize, after_offset));
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[available]());
    if (data == nullptr)
        return kNotRead;
    if (m_reader.read(m_bootOffset, available, data.get()) != available)
        return kNotRead;

    m_bootObject = std::make_unique<CQZBoot>(data.release(), available);
    int code = m_bootObject->ObjectInit();
    // A container that the file cuts off has no CRC, whatever its last bytes are.
    if (available != 0 && available < m_bootSize)
        code = CQZBoot::kWrongCrc;
    return code == 0 ? 0 : code * 1000 - 6;
}

void CQZImage::close_file() {
    if (m_pFile != nullptr)
        std::fclose(m_pFile);
    m_pFile = nullptr;
}

bool CQZImage::GetData(uint64_t dwOffset, uint32_t dwSize, uint8_t* lpBuffer) {
    if (m_pFile == nullptr || dwOffset > m_fileSize || dwSize > m_fileSize - dwOffset)
        return false;
    const std::optional<uint64_t> count = m_reader.read(dwOffset, dwSize, lpBuffer);
    if (count == dwSize)
        return true;
    if (m_readError == 0)
        m_readError = count ? EIO : errno;  // EIO: the file has become shorter
    return false;
}

void CQZImage::GetReservedData(uint8_t*& lpData, uint16_t& usSize) {
    lpData = m_reserved;
    usSize = sizeof(m_reserved);
}

int CQZImage::GetMd5Data(uint8_t*& lpMd5, uint8_t*& lpSignMd5) {
    lpMd5 = m_md5;
    lpSignMd5 = m_signMd5;
    return m_signMd5Size;
}

ENUM_OS_TYPE CQZImage::GetOsType() {
    return little_endian_at<ENUM_OS_TYPE>(m_reserved + kOsTypePosition);
}

uint16_t CQZImage::GetBackupSize() {
    return little_endian_at<uint16_t>(m_reserved + kBackupSizePosition);
}

bool CQZImage::save_range(const std::string& filename, uint64_t offset, uint64_t size) {
    if (m_pFile == nullptr)
        return false;
    struct stat status {};
    if (retry_interrupted([&] { return ::stat(filename.c_str(), &status); }) == 0 && m_identity.is(status)) {
        errno = EBUSY;
        return false;
    }
    std::FILE* file = std::fopen(filename.c_str(), "wb+");
    if (file == nullptr)
        return false;

    uint8_t buffer[1024];
    bool copied = true;
    while (copied && size != 0) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(size, sizeof(buffer)));
        copied = GetData(offset, count, buffer) && std::fwrite(buffer, 1, count, file) == count;
        offset += count;
        size -= count;
    }
    return std::fclose(file) == 0 && copied;
}
