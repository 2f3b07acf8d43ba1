#include "QZImage.h"

#include "../common/byte_reader.h"
#include "../io/retry.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

namespace {

constexpr uint32_t kImageTag = 0x57465A51;  // "QZFW"
constexpr std::size_t kPathBufferSize = 256;

// Positions inside the reserved bytes of the image head.
constexpr std::size_t kOsTypePosition = 4;
constexpr std::size_t kBackupSizePosition = 12;
constexpr std::size_t kPackageSizeMark = 14;  // 'H', 'I': the package size has a high half
constexpr std::size_t kPackageSizeHigh = 16;

constexpr int32_t kMd5Size = 32;
constexpr int32_t kLargestSignature = 256;
// A trailer of up to this many bytes is an MD5 alone; a signature has at least 128 bytes.
constexpr int32_t kLongestTrailerWithoutSignature = 159;

constexpr int nested_code(int boot_code) {
    return boot_code * 1000 - 6;
}

bool names_boot_container(std::string path) {
    std::transform(path.begin(), path.end(), path.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return path.find(".bin") != std::string::npos;
}

std::FILE* open_for_reading(const char* path) {
    std::FILE* file = nullptr;
    retry_interrupted([&] {
        file = std::fopen(path, "rb");
        return file != nullptr ? 0 : -1;
    });
    return file;
}

}  // namespace

CQZImage::CQZImage() {
    const auto bind = [this](auto& view, auto getter) {
        view.setContainer(this);
        view.getter(getter);
    };
    bind(Version, &CQZImage::GetVersion);
    bind(MergeVersion, &CQZImage::GetMergeVersion);
    bind(ReleaseTime, &CQZImage::GetReleaseTime);
    bind(SupportDevice, &CQZImage::GetSupportDevice);
    bind(OsType, &CQZImage::GetOsType);
    bind(BackupSize, &CQZImage::GetBackupSize);
    bind(BootOffset, &CQZImage::GetBootOffset);
    bind(BootSize, &CQZImage::GetBootSize);
    bind(FWOffset, &CQZImage::GetFWOffset);
    bind(FWSize, &CQZImage::GetFWSize);
    bind(SignFlag, &CQZImage::GetSignFlag);
    bind(SingleFlag, &CQZImage::GetSingleFlag);
}

CQZImage::~CQZImage() {
    close_file();
}

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
        std::printf("path of firmware is too long\n");
        std::exit(EXIT_FAILURE);
    }

    struct stat status {};
    if (retry_interrupted([&] { return ::stat(filename.c_str(), &status); }) != 0)
        return kNoStatus;
    if (S_ISDIR(status.st_mode))
        return kIsADirectory;
    m_fileSize = static_cast<uint64_t>(status.st_size);
    m_identity = FileIdentity(status);
    m_bSingleFlag = names_boot_container(filename);

    m_pFile = open_for_reading(filename.c_str());
    if (m_pFile == nullptr)
        return kNotOpened;
    m_reader.attach(::fileno(m_pFile));  // the reader's own block takes the place of the stdio buffer
    return kLoaded;
}

int CQZImage::load_head() {
    STRUCT_QZIMAGE_HEAD head{};
    if (!m_reader.read(0, sizeof(head), reinterpret_cast<uint8_t*>(&head)))
        return kNotRead;
    if (head.uiTag != kImageTag)
        return kWrongTag;

    // Without the high half the end is a 32-bit sum, with it a 64-bit one.
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
    // The length is a signed difference of the low halves; it never needs the high ones.
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
    // Nothing is allocated by the head's word alone: what the file holds bounds it.
    const uint64_t after_offset = m_fileSize > m_bootOffset ? m_fileSize - m_bootOffset : 0;
    const auto available = static_cast<uint32_t>(std::min<uint64_t>(m_bootSize, after_offset));
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[available]());
    if (data == nullptr)
        return kNotRead;
    if (m_reader.read(m_bootOffset, available, data.get()) != available)
        return kNotRead;

    m_bootObject = std::make_unique<CQZBoot>(data.release(), available);
    int code = m_bootObject->ObjectInit();
    // The CRC of a container that the file cuts off is missing, whatever its last bytes look like.
    if (available != 0 && available < m_bootSize)
        code = CQZBoot::kWrongCrc;
    return code == 0 ? 0 : nested_code(code);
}

void CQZImage::close_file() {
    if (m_pFile != nullptr)
        std::fclose(m_pFile);
    m_pFile = nullptr;
}

bool CQZImage::GetData(uint64_t dwOffset, uint32_t dwSize, uint8_t* lpBuffer) {
    if (m_pFile == nullptr || dwOffset > m_fileSize || dwSize > m_fileSize - dwOffset)
        return false;
    const std::optional<uint64_t> got = m_reader.read(dwOffset, dwSize, lpBuffer);
    if (got == dwSize)
        return true;
    if (m_readError == 0)
        m_readError = got ? EIO : errno;  // a file that became shorter is damaged as well
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

bool CQZImage::Md5Check(uint64_t /*nCheckSize*/) {
    return true;
}

ENUM_OS_TYPE CQZImage::GetOsType() {
    return little_endian_at<ENUM_OS_TYPE>(m_reserved + kOsTypePosition);
}

uint16_t CQZImage::GetBackupSize() {
    return little_endian_at<uint16_t>(m_reserved + kBackupSizePosition);
}

bool CQZImage::SaveBootFile(std::string filename) {
    return save_range(filename, m_bootOffset, m_bootSize);
}

bool CQZImage::SaveFWFile(std::string filename) {
    return save_range(filename, m_fwOffset, m_fwSize);
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
        const auto piece = static_cast<uint32_t>(std::min<uint64_t>(size, sizeof(buffer)));
        copied = GetData(offset, piece, buffer) && std::fwrite(buffer, 1, piece, file) == piece;
        offset += piece;
        size -= piece;
    }
    return std::fclose(file) == 0 && copied;
}
