#include "chip_bench.h"

#include "parse.h"

#include <stdexcept>

namespace check_test {

Firmware chip_firmware() {
    Firmware firmware = sample_firmware({.gpt = true});
    firmware.item("boot").data = patterned(30000, 11);
    firmware.item("boot").part_size = 0x100;
    firmware.item("rootfs").data = patterned(190000, 12);
    firmware.item("rootfs").part_size = 0x400;
    return firmware;
}

ChipBench::ChipBench(const Conversion& conversion, const Firmware& packed, std::size_t blocks)
    : CheckBench(conversion, packed),
      m_page(conversion.page_size() +
             (conversion.type == "slc" ? std::stoul(conversion.spare_bytes) : std::size_t{0})),
      m_block(conversion.block_size() / conversion.page_size() * m_page), m_bytes(blocks * m_block, 0xFF) {}

Bytes ChipBench::block_of(const std::string& file, std::size_t number) const {
    return slice(output(file), number * m_block, m_block);
}

void ChipBench::put(std::size_t block, const Bytes& bytes) {
    put_bytes_at(m_bytes, block * m_block, bytes);
}

std::vector<uint64_t> ChipBench::place(const std::string& file, std::size_t first,
                                       const std::vector<std::size_t>& bad) {
    std::vector<uint64_t> blocks;
    std::size_t block = first;
    for (std::size_t number = 0; number < blocks_of(file); ++number, ++block) {
        while (std::find(bad.begin(), bad.end(), block) != bad.end())
            ++block;
        put(block, block_of(file, number));
        blocks.push_back(block);
    }
    return blocks;
}

void ChipBench::place_all() {
    std::size_t block = 0;
    for (const std::string file : {"idblock.img", "gpt.img", "boot.img", "misc.img", "rootfs.img"})
        block = place(file, block).back() + 1;
}

void ChipBench::flip(std::size_t block, std::size_t page, std::size_t unit, std::size_t count,
                     std::size_t first) {
    const std::size_t start = block * m_block + page * m_page + unit * (m_page >= 2112 ? 1056 : 1024);
    for (std::size_t bit = first; bit < first + 2 * count; bit += 2)
        m_bytes.at(start + bit / 8) ^= static_cast<uint8_t>(1U << bit % 8);
}

void ChipBench::ruin(std::size_t block, uint32_t seed) {
    put(block, patterned(m_block, seed));
}

CheckResult ChipBench::result(const ChipOptions& chip, const Arguments& more) const {
    write_file(dump(), m_bytes);
    Arguments all = arguments_without_target(more);
    all.push_back(dump());
    CheckOptions options = parse(all);
    if (options.error)
        throw std::runtime_error(*options.error);
    options.chip = chip;
    return run_check(options, {});
}

RunResult ChipBench::run(const Arguments& more) const {
    write_file(dump(), m_bytes);
    Arguments all = arguments_without_target(more);
    all.push_back(dump());
    return run_check_program(all);
}

const PartResult& part_of(const CheckResult& result, const std::string& file) {
    for (const PartResult& part : result.parts)
        if (part.file == file)
            return part;
    throw std::runtime_error("no part " + file);
}

void expect_same(const CheckResult& result) {
    EXPECT_EQ(result.error, std::nullopt);
    EXPECT_EQ(result.verdict, Verdict::kSame);
    for (const PartResult& part : result.parts) {
        EXPECT_EQ(part.verdict, Verdict::kSame) << part.file;
        EXPECT_EQ(part.compared, part.bytes) << part.file;
        EXPECT_EQ(part.differing, 0U) << part.file;
    }
    EXPECT_EQ(result.opinion.findings, std::vector<std::string>());
    EXPECT_EQ(codes_of(result), "");
}

std::vector<uint64_t> skipped_blocks(const PartResult& part) {
    std::vector<uint64_t> blocks;
    for (const SkippedBlock& skipped : part.skipped)
        blocks.push_back(skipped.block);
    return blocks;
}

std::string codes_of(const CheckResult& result) {
    std::string codes;
    for (const Diagnosis& diagnosis : result.diagnoses)
        codes += (codes.empty() ? "" : " ") + diagnosis.code;
    return codes;
}

}  // namespace check_test
