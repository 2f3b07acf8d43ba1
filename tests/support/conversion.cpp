#include "conversion.h"

#include "expected/transcript.h"
#include "storage/storage_impl.h"

#include <cstdlib>
#include <memory>
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

std::unique_ptr<CStorage> storage_for(const Conversion& c, const std::string& firmware,
                                      const std::string& out) {
    const uint32_t block = size_of(c.block_kb);
    const uint32_t page = size_of(c.page_kb);
    const uint32_t spare = size_of(c.spare_bytes);
    const bool two = c.two_kilobytes_data;
    if (c.type == "emmc")
        return std::make_unique<CEmmcStorage>(block, page, spare, firmware, out, two);
    if (c.type == "spinor")
        return std::make_unique<CNorStorage>(block, page, spare, firmware, out, two);
    if (c.type == "spinand")
        return std::make_unique<CSpiStorage>(block, page, spare, firmware, out, two);
    if (c.type == "slc")
        return std::make_unique<CSlcStorage>(block, page, spare, firmware, out, two, c.page_list);
    throw std::invalid_argument(c.type);
}

}  // namespace

int convert_by_call(const Conversion& conversion, const std::filesystem::path& firmware,
                    const std::filesystem::path& out) {
    std::srand(1);
    const std::unique_ptr<CStorage> storage = storage_for(conversion, firmware, out);
    if (!storage->storage_init())
        return -14;
    return storage->create_image() ? 0 : -15;
}

void PrintTo(const Conversion& conversion, std::ostream* out) {
    for (const std::string& argument : conversion.arguments("FIRMWARE", "OUT"))
        *out << argument << ' ';
}

}  // namespace test_support
