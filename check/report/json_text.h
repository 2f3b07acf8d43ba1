#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

/// What the JSON documents have in common. A JSON text is UTF-8, a name from a firmware can be any bytes.

using Json = nlohmann::ordered_json;

/// A text that people read: as it is, or escaped when it is not UTF-8.
std::string json_string(const std::string& text);

/// Adds a name. One that is not UTF-8 is escaped, and its bytes follow as hexadecimal digits in KEY_hex.
void add_name(Json& object, const std::string& key, const std::string& name);

/// Adds a list of names. If any of them is not UTF-8, KEY_hex follows: an entry for each name, which is null
/// for a name that is UTF-8.
void add_names(Json& object, const std::string& key, const std::vector<std::string>& names);

/// A list of texts that people read.
Json json_strings(const std::vector<std::string>& texts);

/// The document in ASCII, with a line feed at its end.
std::string document_text(const Json& document);
