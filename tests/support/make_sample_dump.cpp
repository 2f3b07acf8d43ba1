// Makes the dump of a NAND chip that somebody programmed and used: places the files of a conversion, with bad
// blocks and flipped bits that a seed decides, and prints what a checker of the dump has to find. The same
// options give the same bytes in every run.

#include "chip_simulator.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <set>

namespace fs = std::filesystem;
using namespace test_support;

namespace {

const std::string kHelp =
    R"(Usage: make_sample_dump --from DIR --page BYTES --pages-per-block N --blocks N --out FILE [OPTION]...

Makes the dump of a NAND chip to which the files DIR/*.img of a conversion were written: idblock.img first, then the
others by name, each in a window of blocks of its own. Prints what is in the dump, as a table. Blocks, pages, units
and bytes count from 0.

  --from DIR             the output of nandsmith for slc or spinand
  --page BYTES           a page of the dump, with its spare area
  --data BYTES           of them data; without it the largest power of two that is not more
  --spinand              the files have no spare areas; without it they are those of slc
  --pages-per-block N, --blocks N
  --out FILE             the dump; an existing file is replaced
  --layout FILE          writes the windows too, as lines NAME,FIRST BLOCK,LAST BLOCK
  --reserve N            blocks in a window more than the file has; without it 2 %, but at least 2
  --seed N               of all that is random; 1 without it

  --bad WHICH            blocks that are bad from the factory
  --fail WHICH           blocks that fail when they are programmed
  --ber RATE             bit error rate of written pages
  --erased-ber RATE      of erased pages
  --set-share SHARE      of flips from 0 to 1, where as many bits are 0 as 1; 0.5 without it
  --flips N              so many single bits more, in written pages
  --ruin N               units of written pages with 17 to 64 flips
  --unwritten LIST       blocks of files that stay erased
  --over LIST            blocks of files that were not erased before
  --stale LIST           blocks of files that hold another block of their file
  --help

A LIST has block numbers of the dump with commas between them: 9,40,41. WHICH is a LIST or, with a point, the rate
for each block: 0.02. A RATE is from 0 to 1, such as 1e-5.

Example:
  make_sample_dump --from slc --page 2112 --pages-per-block 64 --blocks 1024 --out chip.bin --bad 0.01 --ber 1e-6
)";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Arguments {
    fs::path from{};
    fs::path out{};
    fs::path layout{};
    std::optional<uint64_t> page{};
    std::optional<uint64_t> data{};
    std::optional<uint64_t> reserve{};
    ChipGeometry geometry{.pages_per_block = 0, .blocks = 0};
    ChipFaults faults{};
    uint64_t flips = 0;
    uint64_t ruined = 0;
    std::vector<std::pair<uint64_t, WriteFault>> write_faults{};
    bool help = false;
};

// ---- options ----

template <typename Number>
Number parse_number(const std::string& option, const std::string& text, Number most) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || !(value >= 0 && value <= most))
        throw UsageError(option + " takes a number from 0 to " + std::to_string(most) + ", not '" + text +
                         "'");
    return value;
}

double parse_rate(const std::string& option, const std::string& text) {
    double value = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || !(value >= 0 && value <= 1))
        throw UsageError(option + " takes a rate from 0 to 1, not '" + text + "'");
    return value;
}

uint32_t parse_count(const std::string& option, const std::string& text) {
    return parse_number<uint32_t>(option, text, 1U << 30);
}

std::vector<uint64_t> parse_list(const std::string& option, const std::string& text) {
    std::vector<uint64_t> blocks;
    for (const std::string& word : split(text, ','))
        blocks.push_back(parse_count(option, word));
    return blocks;
}

bool is_rate(const std::string& text) {
    return text.find_first_of(".e") != std::string::npos;
}

class ArgumentParser {
public:
    explicit ArgumentParser(const std::vector<std::string>& words) : m_words(words) {}

    Arguments run() {
        for (; m_next < m_words.size(); ++m_next) {
            m_option = m_words[m_next];
            if (!(take_file() || take_size() || take_fault() || take_damage()))
                throw UsageError("unknown argument " + m_option);
        }
        if (!m_arguments.help)
            complete();
        return std::move(m_arguments);
    }

private:
    const std::string& value() {
        if (m_next + 1 == m_words.size())
            throw UsageError(m_option + " needs a value");
        return m_words[++m_next];
    }
    uint32_t count() { return parse_count(m_option, value()); }
    double rate() { return parse_rate(m_option, value()); }

    bool take_file() {
        if (m_option == "--from")
            m_arguments.from = value();
        else if (m_option == "--out")
            m_arguments.out = value();
        else if (m_option == "--layout")
            m_arguments.layout = value();
        else if (m_option == "--help")
            m_arguments.help = true;
        else
            return false;
        return true;
    }

    bool take_size() {
        if (m_option == "--page")
            m_arguments.page = count();
        else if (m_option == "--data")
            m_arguments.data = count();
        else if (m_option == "--spinand")
            m_arguments.geometry.kind = ChipKind::spi_nand;
        else if (m_option == "--pages-per-block")
            m_arguments.geometry.pages_per_block = count();
        else if (m_option == "--blocks")
            m_arguments.geometry.blocks = count();
        else if (m_option == "--reserve")
            m_arguments.reserve = count();
        else
            return false;
        return true;
    }

    bool take_fault() {
        ChipFaults& faults = m_arguments.faults;
        if (m_option == "--seed")
            faults.seed = parse_number<uint64_t>(m_option, value(), UINT64_MAX);
        else if (m_option == "--bad")
            take_blocks(faults.factory_bad_rate,
                        [&](uint64_t block) { faults.factory_bad.push_back({block}); });
        else if (m_option == "--fail")
            take_blocks(faults.failure_rate,
                        [&](uint64_t block) { faults.failures.push_back({.block = block}); });
        else if (m_option == "--ber")
            faults.bit_error_rate = rate();
        else if (m_option == "--erased-ber")
            faults.erased_bit_error_rate = rate();
        else if (m_option == "--set-share")
            faults.share_of_sets = rate();
        else
            return false;
        return true;
    }

    template <typename Add>
    void take_blocks(double& rate, Add add) {
        const std::string& text = value();
        if (is_rate(text)) {
            rate = parse_rate(m_option, text);
            return;
        }
        for (const uint64_t block : parse_list(m_option, text))
            add(block);
    }

    bool take_damage() {
        if (m_option == "--flips")
            m_arguments.flips = count();
        else if (m_option == "--ruin")
            m_arguments.ruined = count();
        else if (m_option == "--unwritten")
            take_write_faults(WriteFault::unwritten);
        else if (m_option == "--over")
            take_write_faults(WriteFault::over_random);
        else if (m_option == "--stale")
            take_write_faults(WriteFault::other_block);
        else
            return false;
        return true;
    }

    void take_write_faults(WriteFault fault) {
        for (const uint64_t block : parse_list(m_option, value()))
            m_arguments.write_faults.emplace_back(block, fault);
    }

    void complete() {
        ChipGeometry& geometry = m_arguments.geometry;
        for (const auto& [name, given] : {std::pair<std::string, bool>{"--from", !m_arguments.from.empty()},
                                          {"--page", m_arguments.page.value_or(0) != 0},
                                          {"--pages-per-block", geometry.pages_per_block != 0},
                                          {"--blocks", geometry.blocks != 0},
                                          {"--out", !m_arguments.out.empty()}})
            if (!given)
                throw UsageError(name + " is needed; --help shows all options");
        const uint64_t page = *m_arguments.page;
        const uint64_t data = m_arguments.data.value_or(std::bit_floor(page));
        if (data > page)
            throw UsageError("--data is more than --page");
        geometry.page_data = static_cast<uint32_t>(data);
        geometry.spare = static_cast<uint32_t>(page - data);
    }

    const std::vector<std::string>& m_words;
    std::size_t m_next = 0;
    std::string m_option{};
    Arguments m_arguments{};
};

// ---- the chip ----

// The files DIR/*.img, idblock.img first, then by name.
std::vector<ChipFile> files_of(const fs::path& directory) {
    std::vector<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(directory))
        if (entry.is_regular_file() && entry.path().extension() == ".img")
            paths.push_back(entry.path());
    if (paths.empty())
        throw ChipError("no .img files in " + directory.string());
    const auto place = [](const fs::path& path) {
        return std::pair(path.filename() != "idblock.img", path.filename().string());
    };
    std::sort(paths.begin(), paths.end(), [&](const auto& a, const auto& b) { return place(a) < place(b); });
    std::vector<ChipFile> files;
    for (const fs::path& path : paths)
        files.push_back(chip_file(path));
    return files;
}

void give_windows(std::vector<ChipFile>& files, const Arguments& arguments) {
    uint64_t next = 0;
    for (ChipFile& file : files) {
        const uint64_t blocks = blocks_of(file, arguments.geometry);
        const uint64_t reserve = arguments.reserve.value_or(std::max<uint64_t>(2, (blocks + 49) / 50));
        const BlockWindow window{next, next + blocks + reserve - 1};
        if (window.last >= arguments.geometry.blocks)
            throw ChipError(file.name + " needs the blocks " + std::to_string(window.first) + " to " +
                            std::to_string(window.last) + ", and the chip has " +
                            std::to_string(arguments.geometry.blocks));
        file.window = window;
        next = window.last + 1;
    }
}

// Damage at written places that the seed chooses.
class RandomDamage {
public:
    RandomDamage(ChipSimulator& chip, const Arguments& arguments)
        : m_chip(chip), m_geometry(arguments.geometry),
          m_dice(arguments.faults.seed, DicePurpose::choice, UINT64_MAX) {
        for (const FileTruth& file : chip.placement().files)
            for (const uint64_t block : file.blocks) {
                m_blocks.push_back(block);
                m_pages += chip.pages_used(block);
            }
    }

    void flip(uint64_t bits) {
        const uint64_t page_bits = uint64_t{8} * m_geometry.units_per_page() * m_geometry.unit_bytes();
        if (bits > m_pages * page_bits / 2)
            throw ChipError("--flips is more than half of the written bits");
        std::set<std::tuple<uint64_t, uint32_t, uint64_t>> done;
        while (done.size() < bits) {
            const auto [block, page] = any_page();
            const uint64_t bit = m_dice.below(page_bits);
            if (done.emplace(block, page, bit).second)
                m_chip.flip(block, page, bit);
        }
    }

    void ruin(uint64_t units) {
        if (units > m_pages * m_geometry.units_per_page() / 2)
            throw ChipError("--ruin is more than half of the written units");
        std::set<std::tuple<uint64_t, uint32_t, uint32_t>> done;
        while (done.size() < units) {
            const auto [block, page] = any_page();
            const auto unit = static_cast<uint32_t>(m_dice.below(m_geometry.units_per_page()));
            if (done.emplace(block, page, unit).second)
                m_chip.flip_in_unit(block, page, unit, static_cast<uint32_t>(17 + m_dice.below(48)));
        }
    }

private:
    std::pair<uint64_t, uint32_t> any_page() {
        const uint64_t block = m_blocks[static_cast<std::size_t>(m_dice.below(m_blocks.size()))];
        return {block, static_cast<uint32_t>(m_dice.below(m_chip.pages_used(block)))};
    }

    ChipSimulator& m_chip;
    const ChipGeometry& m_geometry;
    ChipDice m_dice;
    std::vector<uint64_t> m_blocks{};
    uint64_t m_pages = 0;
};

// ---- what is printed ----

std::string part_name(const FileTruth& file) {
    return fs::path(file.file).stem().string();
}

std::string list_of(const std::vector<uint64_t>& blocks) {
    std::string text;
    for (const uint64_t block : blocks)
        text += ' ' + std::to_string(block);
    return text.empty() ? " -" : text;
}

void print_skipped(const char* title, const std::vector<SkipTruth>& skipped) {
    if (skipped.empty())
        return;
    std::printf("  %s:", title);
    for (const SkipTruth& skip : skipped)
        std::printf(" %ju%s", uintmax_t{skip.block},
                    skip.reason == SkipTruth::Reason::factory ? "" : " (failed)");
    std::printf("\n");
}

void print_files(const ChipTruth& truth) {
    std::size_t width = 12;
    for (const FileTruth& file : truth.files)
        width = std::max(width, part_name(file).size());
    std::printf("%-*s   found at   blocks   skipped     flips   worst unit   beyond   window\n",
                static_cast<int>(width), "file");
    for (const FileTruth& file : truth.files) {
        std::printf("%-*s   %8ju   %6zu   %7zu   %7ju   %10u   %6ju   %ju to %ju\n", static_cast<int>(width),
                    part_name(file).c_str(), uintmax_t{file.found_at}, file.blocks.size(),
                    file.skipped.size(), uintmax_t{file.units.flipped_bits()}, file.units.worst(),
                    uintmax_t{file.units.beyond}, uintmax_t{file.window.first}, uintmax_t{file.window.last});
        print_skipped("before it", file.skipped_before);
        print_skipped("skipped", file.skipped);
    }
}

void print_units(const ChipTruth& truth, const ChipGeometry& geometry) {
    const UnitTruth& units = truth.units;
    std::printf("flips per unit  ");
    for (uint32_t n = 0; n <= kCorrectableUnitFlips; ++n)
        if (n == 0 || units.flips[n] != 0)
            std::printf(" %u: %ju  ", n, uintmax_t{units.flips[n]});
    std::printf(" beyond: %ju\n", uintmax_t{units.beyond});
    const double bits = 8.0 * geometry.unit_bytes() * static_cast<double>(units.units - units.beyond);
    std::printf("1 to 0: %ju   0 to 1: %ju   bit error rate %.1e\n", uintmax_t{units.cleared},
                uintmax_t{units.set}, bits == 0 ? 0 : static_cast<double>(units.flipped_bits()) / bits);
    std::printf("erased units in files: %ju   erased blocks of the chip: %ju\n", uintmax_t{units.erased},
                uintmax_t{truth.erased_blocks});
}

const char* name_of(UnitClass what) {
    switch (what) {
    case UnitClass::erased:
        return "erased";
    case UnitClass::foreign:
        return "other valid data";
    case UnitClass::ruined:
        break;
    }
    return "ruined";
}

// A line for the units of one class in a block.
void print_lost(const ChipTruth& truth) {
    std::map<std::pair<uint64_t, UnitClass>, std::vector<LostUnit>> groups;
    for (const LostUnit& lost : truth.lost)
        groups[{lost.block, lost.what}].push_back(lost);
    for (const auto& [key, units] : groups) {
        const LostUnit& first = units.front();
        std::printf("  block %ju, page %u, unit %u: %s, %u bits differ", uintmax_t{first.block}, first.page,
                    first.unit, name_of(first.what), first.flips);
        if (units.size() > 1)
            std::printf("; %zu more in this block", units.size() - 1);
        std::printf("\n");
    }
}

void print_truth(const ChipTruth& truth, const ChipGeometry& geometry) {
    print_files(truth);
    print_units(truth, geometry);
    print_lost(truth);
    std::printf("bad from the factory:%s\n", list_of(truth.factory_bad).c_str());
    std::printf("failed while programmed:%s\n", list_of(truth.failed).c_str());
}

void write_layout(const fs::path& path, const ChipTruth& truth) {
    std::string text;
    for (const FileTruth& file : truth.files)
        text += part_name(file) + ',' + std::to_string(file.window.first) + ',' +
                std::to_string(file.window.last) + '\n';
    write_file(path, to_bytes(text));
}

// Nothing of what is read may be written.
void protect(const fs::path& out, const fs::path& directory) {
    for (const auto& entry : fs::directory_iterator(directory))
        if (fs::exists(out) && fs::equivalent(out, entry.path()))
            throw ChipError(out.string() + " is one of the files in " + directory.string());
}

void run(const Arguments& arguments) {
    arguments.geometry.check();
    std::vector<ChipFile> files = files_of(arguments.from);
    protect(arguments.out, arguments.from);
    protect(arguments.layout, arguments.from);
    give_windows(files, arguments);
    ChipSimulator chip(arguments.geometry, std::move(files), arguments.faults);
    for (const auto& [block, fault] : arguments.write_faults)
        chip.spoil(block, fault);
    RandomDamage damage(chip, arguments);
    damage.flip(arguments.flips);
    damage.ruin(arguments.ruined);
    const ChipTruth truth = chip.write(arguments.out);
    if (!arguments.layout.empty())
        write_layout(arguments.layout, truth);
    print_truth(truth, arguments.geometry);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        const Arguments arguments = ArgumentParser(words).run();
        if (arguments.help)
            std::cout << kHelp;
        else
            run(arguments);
    } catch (const UsageError& error) {
        std::cerr << "make_sample_dump: " << error.what() << '\n';
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "make_sample_dump: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
