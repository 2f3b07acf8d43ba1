#include "check_bench.h"

#include "support/sparse_builder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace check_test {

Conversion with(Conversion conversion, const std::string& block_kb, const std::string& page_kb,
                const std::string& spare) {
    conversion.block_kb = block_kb;
    conversion.page_kb = page_kb;
    conversion.spare_bytes = spare;
    return conversion;
}

Conversion with_two_kb(Conversion conversion) {
    conversion.two_kilobytes_data = true;
    return conversion;
}

Conversion with_page_list(Conversion conversion) {
    conversion.page_list = true;
    return conversion;
}

UnprivilegedRun unprivileged(const Arguments& arguments) {
#ifdef NANDSMITH_COVERAGE
    return {.why_not = "needs a build without coverage counters"};
#endif
    if (geteuid() != 0)
        return {.program = NANDSMITH_CHECK_PROGRAM, .arguments = arguments};
    const std::string setpriv = find_program("setpriv");
    if (setpriv.empty())
        return {.why_not = "missing tool: setpriv"};
    Arguments as_nobody{"--reuid=65534", "--clear-groups", NANDSMITH_CHECK_PROGRAM, "-v"};
    if (!run_program(setpriv, as_nobody).succeeded())
        return {.why_not = "setpriv cannot run the program as nobody here"};
    as_nobody.pop_back();
    as_nobody.insert(as_nobody.end(), arguments.begin(), arguments.end());
    return {.program = setpriv, .arguments = as_nobody};
}

std::map<std::string, FileState> states_below(const fs::path& directory) {
    std::map<std::string, FileState> states;
    const auto add = [&](const fs::path& path) {
        struct stat now {};
        if (lstat(path.c_str(), &now) != 0)
            throw std::runtime_error("cannot look at " + path.string());
        states[path] = {.inode = now.st_ino,
                        .size = now.st_size,
                        .changed_s = now.st_ctim.tv_sec,
                        .changed_ns = now.st_ctim.tv_nsec,
                        .modified_s = now.st_mtim.tv_sec,
                        .modified_ns = now.st_mtim.tv_nsec,
                        .mode = now.st_mode};
    };
    add(directory);
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        add(entry.path());
    return states;
}

std::string CheckBench::main_file() const {
    std::string name;
    uint64_t most = 0;
    for (const auto& entry : fs::directory_iterator(out_dir()))
        if (entry.file_size() >= most) {
            most = entry.file_size();
            name = entry.path().filename();
        }
    return name;
}

Arguments CheckBench::arguments_without_target(const Arguments& more) const {
    Arguments all = m_conversion.arguments(firmware(), out_dir());
    const auto option = std::find(all.begin(), all.end(), "-o");
    all.erase(option, option + 2);
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

Json CheckBench::document_as(const Conversion& conversion, const Arguments& more) const {
    Arguments all = arguments_as(conversion, more);
    all.emplace_back("--json");
    const RunResult run = run_check_program(all);
    const Json document = parsed(run);
    EXPECT_EQ(run.err, "");
    return document;
}

void CheckBench::damage(const std::string& name, uint64_t offset, std::size_t count) const {
    Bytes bytes = read_file_at(out(name), offset, count);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(~byte);
    bend(name, offset, bytes);
}

void CheckBench::bend(const std::string& name, uint64_t offset, const Bytes& bytes) const {
    const int file = open(out(name).c_str(), O_WRONLY | O_CLOEXEC);
    const ssize_t written = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (close(file) != 0 || written != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("cannot bend " + name);
}

// ---- all kinds of conversions ----

Firmware with_gpt() {
    return sample_firmware({.gpt = true});
}

Firmware without_gpt() {
    return sample_firmware();
}

Firmware with_scrambled_stages() {
    return sample_firmware({.gpt = true, .scramble_stages = true});
}

Firmware with_sparse_item() {
    Firmware firmware = with_gpt();
    SparseImage image;
    image.chunks = {SparseChunk::raw(patterned(4096, 7)), SparseChunk::dont_care(40),
                    SparseChunk::fill(0x12345678, 3), SparseChunk::raw(patterned(8192, 8))};
    firmware.item("misc").data = image.build();
    firmware.item("misc").part_size = 0x200;
    firmware.item("misc").flash_offset = 0x3000;
    firmware.item("rootfs").flash_offset = 0x4000;
    return firmware;
}

Firmware with_two_of_one_name() {
    Firmware firmware = with_gpt();
    firmware.items.insert(firmware.items.begin() + 3,
                          partition_item("misc", 0x3000, 0x40, patterned(3000, 9)));
    return firmware;
}

Firmware with_overlaps() {
    Firmware firmware = with_gpt();
    firmware.items.push_back(partition_item("late", 0x9000, 0x40, patterned(20000, 3)));
    firmware.items.push_back(partition_item("over", 0x8FF0, 0x20, patterned(9000, 4)));
    firmware.items.push_back(partition_item("early", 0x7000, 0x40, patterned(5000, 5)));
    firmware.items.push_back(partition_item("empty", 0x7800, 0x40, {}));
    return firmware;
}

std::vector<Made> all_made() {
    std::vector<Made> all;
    for (const Conversion& type : kFourTypes) {
        const std::string& word = type.type;
        all.push_back({word, type, with_gpt});
        all.push_back({word + "_parameter", type, without_gpt});
        all.push_back({word + "_scrambled", type, with_scrambled_stages});
        all.push_back({word + "_sparse", type, with_sparse_item});
        all.push_back({word + "_two_of_one_name", type, with_two_of_one_name});
        all.push_back({word + "_overlaps", type, with_overlaps});
        all.push_back({word + "_loader_alone", type, with_gpt, true});
        const std::string spare = type.spare_bytes.empty() ? "" : "512";
        all.push_back({word + "_two_kb", with_two_kb(with(type, type.block_kb, "4", spare)), with_gpt});
        all.push_back({word + "_block_below_page", with(type, "4", "16", spare), with_gpt});
        all.push_back({word + "_block_below_page_parameter", with(type, "4", "16", spare), without_gpt});
        all.push_back({word + "_large_page", with(type, "512", "16", spare), with_gpt});
        all.push_back({word + "_large_page_parameter", with(type, "512", "16", spare), without_gpt});
    }
    all.push_back({"slc_page_list", with_page_list(kSlcNand), with_gpt});
    all.push_back(
        {"slc_page_list_two_kb", with_page_list(with_two_kb(with(kSlcNand, "256", "4", "128"))), with_gpt});
    return all;
}

CheckBench bench_of(const Made& made) {
    if (made.loader_alone)
        return {made.conversion, made.firmware().boot.build(), "loader.bin"};
    return CheckBench(made.conversion, made.firmware());
}

// ---- documents ----

Json parsed(const RunResult& run) {
    EXPECT_TRUE(run.exited) << "ended by signal " << run.signal;
    EXPECT_FALSE(run.timed_out);
    EXPECT_TRUE(run.out.ends_with("}\n")) << run.out << run.err;
    const Json document = Json::parse(run.out, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << run.out;
    if (document.is_discarded())
        return Json::object();
    EXPECT_EQ(document.value("status", -1), run.exit_status);
    EXPECT_EQ(document.value("verdict", ""), run.exit_status == kSame      ? "same"
                                             : run.exit_status == kDiffers ? "differs"
                                                                           : "trouble");
    EXPECT_EQ(document.at("error").is_string(), run.exit_status == kTrouble) << document.at("error");
    return document;
}

Json part_of(const Json& document, const std::string& name) {
    for (const Json& part : document.at("parts"))
        if (part.at("name") == name)
            return part;
    return {};
}

std::string codes_of(const Json& document) {
    std::string codes;
    for (const Json& diagnosis : document.at("diagnoses"))
        codes += (codes.empty() ? "" : " ") + diagnosis.at("code").get<std::string>();
    return codes;
}

uint64_t sum_of(const Json& document, const std::string& key) {
    uint64_t sum = 0;
    for (const Json& part : document.at("parts"))
        sum += part.at(key).get<uint64_t>();
    return sum;
}

}  // namespace check_test
