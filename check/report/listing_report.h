#pragma once

#include "../firmware/listing.h"

#include <string>

/// The list for people. Ends with a line feed.
std::string text_listing(const Listing& listing, bool color);

/// The list for programs: one JSON document and a line feed.
std::string json_listing(const Listing& listing);
