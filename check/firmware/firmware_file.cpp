#include "firmware_file.h"

#include "../../src/io/retry.h"

#include <cerrno>
#include <system_error>

namespace {

constexpr std::size_t kLongestPath = 255;  // with a longer one the reader of the firmware ends the program

}  // namespace

std::optional<std::string> refused_firmware(const std::string& path, struct stat& status) {
    if (path.size() > kLongestPath)
        return "path of firmware is too long";
    if (retry_interrupted([&] { return ::stat(path.c_str(), &status); }) != 0)
        return path + " failed to access: " + std::generic_category().message(errno);
    if (!S_ISREG(status.st_mode))
        return path + " is not a file";
    return std::nullopt;
}
