#include "json_text.h"

#include "../base/words.h"

#include <algorithm>

namespace {

std::string hex_digits(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string digits;
    for (const char byte : bytes) {
        digits += kDigits[static_cast<uint8_t>(byte) >> 4];
        digits += kDigits[static_cast<uint8_t>(byte) & 15];
    }
    return digits;
}

}  // namespace

std::string json_string(const std::string& text) {
    return is_utf8(text) ? text : escaped(text);
}

void add_name(Json& object, const std::string& key, const std::string& name) {
    object[key] = json_string(name);
    if (!is_utf8(name))
        object[key + "_hex"] = hex_digits(name);
}

void add_names(Json& object, const std::string& key, const std::vector<std::string>& names) {
    object[key] = json_strings(names);
    if (std::all_of(names.begin(), names.end(), is_utf8))
        return;
    Json list = Json::array();
    for (const std::string& name : names)
        list.push_back(is_utf8(name) ? Json() : Json(hex_digits(name)));
    object[key + "_hex"] = std::move(list);
}

Json json_strings(const std::vector<std::string>& texts) {
    Json list = Json::array();
    for (const std::string& text : texts)
        list.push_back(json_string(text));
    return list;
}

std::string document_text(const Json& document) {
    constexpr int kIndent = 2;
    constexpr bool kAscii = true;
    return document.dump(kIndent, ' ', kAscii, Json::error_handler_t::replace) + '\n';
}
