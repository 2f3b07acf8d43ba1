#pragma once

#include <optional>
#include <string>
#include <sys/stat.h>

/// Looks at the file of a firmware before the reader of the firmware opens it, and sets status. Why it is not
/// to be opened; nothing when it may be.
std::optional<std::string> refused_firmware(const std::string& path, struct stat& status);
