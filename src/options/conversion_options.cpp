#include "conversion_options.h"

#include <algorithm>
#include <exception>
#include <span>
#include <strings.h>

namespace {

constexpr option kLongOptions[] = {
    {"in", required_argument, nullptr, 'i'},         {"out", required_argument, nullptr, 'o'},
    {"flash_type", required_argument, nullptr, 't'}, {"block_size", required_argument, nullptr, 'b'},
    {"page_size", required_argument, nullptr, 'p'},  {"oob_size", required_argument, nullptr, 's'},
    {"2k_data", no_argument, nullptr, '2'},          {"page_list", no_argument, nullptr, 'l'},
};

std::string quoted(const std::string& what, const char* argument) {
    return what + " is '" + argument + "'";
}

AppliedOption apply_flash_type(const char* word, const StorageType*& type) {
    AppliedOption applied{quoted("flash type", word)};
    const std::span<const StorageType> types = storage_types();
    const auto found = std::find_if(types.begin(), types.end(), [word](const StorageType& candidate) {
        return ::strcasecmp(word, candidate.word) == 0;
    });
    if (found != types.end())
        type = &*found;
    else
        applied.refusal = Refusal{"flash type is not support.", kUnknownFlashType};
    return applied;
}

AppliedOption apply_size(const char* what, const char* text, RefusalCode failure, uint32_t& size) {
    AppliedOption applied{quoted(what, text)};
    try {
        size = static_cast<uint32_t>(std::stoi(text));  // kept: a negative number becomes a large one
    } catch (const std::exception& exception) {
        applied.refusal = Refusal{quoted("exception", exception.what()), failure};
    }
    return applied;
}

}  // namespace

std::vector<option> with_conversion_options(std::initializer_list<option> own) {
    std::vector<option> table(std::begin(kLongOptions), std::end(kLongOptions));
    table.insert(table.end(), own);
    table.push_back({nullptr, 0, nullptr, 0});
    return table;
}

AppliedOption apply_conversion_option(int code, const char* argument, ConversionOptions& options) {
    StorageSettings& settings = options.settings;
    switch (code) {
    case 'i':
        settings.in_firmware = argument;
        return {quoted("input firmware", argument)};
    case 'o':
        settings.out_dir = argument;
        return {quoted("output directory", argument)};
    case 't':
        return apply_flash_type(argument, options.type);
    case 'b':
        return apply_size("block size", argument, kBlockSizeNotANumber, settings.block_size);
    case 'p':
        return apply_size("page size", argument, kPageSizeNotANumber, settings.page_size);
    case 's':
        return apply_size("oob size", argument, kOobSizeNotANumber, settings.oob_size);
    case '2':
        settings.page_2k = true;
        return {"2k data page on."};
    case 'l':
        settings.page_list = true;
        return {"page linked list on."};
    default:
        return {};
    }
}

std::optional<Refusal> check_geometry(const ConversionOptions& options) {
    if (options.type == nullptr)
        return Refusal{"flash type is none", kNoFlashType};
    if (options.settings.block_size == 0)
        return Refusal{"block size is zero", kNoBlockSize};
    if (options.settings.page_size == 0)
        return Refusal{"page size is zero", kNoPageSize};
    if (options.settings.oob_size == 0 && options.type->needs_spare)
        return Refusal{"oob size is zero", kNoOobSize};
    return std::nullopt;
}
