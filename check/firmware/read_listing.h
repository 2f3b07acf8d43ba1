#pragma once

#include "listing.h"

#include <optional>
#include <string>
#include <vector>

/// Lists what is in a firmware. Nothing on success, else the reason, which is also in listing.error. The
/// listing then holds what could be read: items without entries, or entries without items.
std::optional<std::string> read_listing(const std::string& firmware_path, Listing& listing);

/// Names of the items that a conversion writes: those with a place and data. Nothing when the firmware cannot
/// be listed.
std::optional<std::vector<std::string>> names_of_written_items(const std::string& firmware_path);
