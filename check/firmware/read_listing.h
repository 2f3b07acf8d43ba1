#pragma once

#include "listing.h"

#include <optional>
#include <string>

/// Lists what is in a firmware. Nothing on success, else the reason, which is also in listing.error. The
/// listing then holds what could be read: items without entries, or entries without items.
std::optional<std::string> read_listing(const std::string& firmware_path, Listing& listing);
