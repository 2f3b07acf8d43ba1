#include "conversion.h"

#include "expected/transcript.h"
#include "storage/storage_types.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>

namespace test_support {

Arguments Conversion::arguments(const std::filesystem::path& firmware,
                                const std::filesystem::path& out) const {
    Arguments arguments{"-i", firmware, "-o", out, "-t", type, "-b", block_kb, "-p", page_kb};
    if (!spare_bytes.empty())
        arguments.insert(arguments.end(), {"-s", spare_bytes});
    if (two_kilobytes_data)
        arguments.emplace_back("-2");
    if (page_list)
        arguments.emplace_back("--page_list");
    return arguments;
}

std::string Conversion::echo(const std::filesystem::path& firmware, const std::filesystem::path& out) const {
    return line("input firmware is '" + firmware.string() + "'") +
           line("output directory is '" + out.string() + "'") + line("flash type is '" + type + "'") +
           line("block size is '" + block_kb + "'") + line("page size is '" + page_kb + "'") +
           (spare_bytes.empty() ? "" : line("oob size is '" + spare_bytes + "'")) +
           (two_kilobytes_data ? line("2k data page on.") : "") +
           (page_list ? line("page linked list on.") : "");
}

namespace {

uint32_t size_of(const std::string& text) {
    return text.empty() ? 0 : static_cast<uint32_t>(std::stoi(text));
}

}  // namespace

int convert_by_call(const Conversion& c, const std::filesystem::path& firmware,
                    const std::filesystem::path& out, const BchPath* path, OutputReceiver* receiver) try {
    std::srand(1);
    const auto types = storage_types();
    const auto type = std::ranges::find(types, c.type, &StorageType::word);
    if (type == types.end())
        throw std::invalid_argument(c.type);
    const auto storage = type->make({size_of(c.block_kb), size_of(c.page_kb), size_of(c.spare_bytes),
                                     firmware, out, c.two_kilobytes_data, c.page_list});
    if (path != nullptr)
        bch_select_path(*path);
    if (receiver != nullptr)
        storage->send_output_to(*receiver);
    if (!storage->storage_init())
        return kInitFailed;
    return storage->create_image() ? kConverted : kCreationFailed;
} catch (const std::bad_alloc&) {
    return kOutOfMemory;
}

void PrintTo(const Conversion& conversion, std::ostream* out) {
    for (const std::string& argument : conversion.arguments("FIRMWARE", "OUT"))
        *out << argument << ' ';
}

}  // namespace test_support
