#include "options.h"

#include "../base/strict_number.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

/// Codes of the options that have no letter.
enum OwnCode : int {
    kOnly = 256,
    kIgnore,
    kStrict,
    kMaxDifferences,
    kJson,
    kColor,
    kProgress,
    kNoSecondOpinion,
    kVerbose,
    kList,
    kEcc,
    kExtract,
    kForce,
    kHoles,
    kManifest,
};

constexpr char kOwnLetters[] = "lqvh";

std::vector<option> long_options() {
    return with_conversion_options({
        {"only", required_argument, nullptr, kOnly},
        {"ignore", required_argument, nullptr, kIgnore},
        {"strict", no_argument, nullptr, kStrict},
        {"max-differences", required_argument, nullptr, kMaxDifferences},
        {"json", optional_argument, nullptr, kJson},
        {"color", optional_argument, nullptr, kColor},
        {"progress", optional_argument, nullptr, kProgress},
        {"no-second-opinion", no_argument, nullptr, kNoSecondOpinion},
        {"verbose", no_argument, nullptr, kVerbose},
        {"quiet", no_argument, nullptr, 'q'},
        {"list", no_argument, nullptr, kList},
        {"ecc", no_argument, nullptr, kEcc},
        {"extract", required_argument, nullptr, kExtract},
        {"force", no_argument, nullptr, kForce},
        {"holes", optional_argument, nullptr, kHoles},
        {"manifest", required_argument, nullptr, kManifest},
        {"at", required_argument, nullptr, kAt},
        {"layout", required_argument, nullptr, kLayout},
        {"bad-blocks", required_argument, nullptr, kBadBlocks},
        {"max-bad-blocks", required_argument, nullptr, kMaxBadBlocks},
        {"max-flips", required_argument, nullptr, kMaxFlips},
        {"warn-flips", required_argument, nullptr, kWarnFlips},
        {"dump-spare", required_argument, nullptr, kDumpSpare},
        {"skip", required_argument, nullptr, kSkip},
        {"version", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        // nandsmith takes these beginnings of its options. Here other options begin with them too.
        {"b", required_argument, nullptr, 'b'},
        {"f", required_argument, nullptr, 't'},
        {"h", no_argument, nullptr, 'h'},
        {"i", required_argument, nullptr, 'i'},
        {"v", no_argument, nullptr, 'v'},
        {"ve", no_argument, nullptr, 'v'},
        {"ver", no_argument, nullptr, 'v'},
    });
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

bool only_digits(std::string_view text) {
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// True when a number begins the text, after blanks and a sign. If it was refused, it is out of range.
bool begins_with_number(std::string_view text) {
    std::size_t position = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    if (position < text.size() && (text[position] == '+' || text[position] == '-'))
        ++position;
    return position < text.size() && only_digits(text.substr(position, 1));
}

std::string type_words() {
    std::string words;
    for (const StorageType& type : storage_types())
        words += (words.empty() ? "" : ", ") + std::string(type.word);
    return words;
}

/// Reads the command line into CheckOptions. After the first error it goes on, because a later option may say
/// where the error is reported.
class Parser {
public:
    Parser(int argc, char* argv[]) : m_argc(argc), m_argv(argv) {}

    CheckOptions parse() {
        const std::string letters = "-:" + check_letters();
        ::opterr = 0;
        ::optind = 0;  // the parser starts again, also in the middle of a group of letters
        while (!m_ended) {
            int index = -1;
            const int code = ::getopt_long(m_argc, m_argv, letters.c_str(), m_long_options.data(), &index);
            if (code == -1)
                break;
            take(code, index == -1);
        }
        if (!m_ended) {
            for (int i = ::optind; i < m_argc; ++i)
                take_target(m_argv[i]);
            decide_target();
            check_chip_options();
            check_completeness();
        }
        return std::move(m_options);
    }

private:
    void fail(const std::string& reason) {
        if (!m_options.error)
            m_options.error = reason;
    }

    void take(int code, bool letter) {
        if (code >= kFirstChipOption && code <= kLastChipOption)
            return take_chip_option(code);
        if (code >= kOnly && code <= kVerbose && code != kProgress)
            note_own(name_of(code), m_of_reports);
        switch (code) {
        case 1:
            return take_target(::optarg);
        case kOnly:
            return take_names("--only", m_options.only);
        case kIgnore:
            return take_names("--ignore", m_options.ignore);
        case kStrict:
            m_options.strict = true;
            return;
        case kMaxDifferences:
            return take_max_differences();
        case kJson:
            return take_json();
        case kColor:
            return take_when("--color", m_options.color);
        case kProgress:
            return take_when("--progress", m_options.progress);
        case kNoSecondOpinion:
            m_options.second_opinion = false;
            return;
        case kVerbose:
            m_options.verbose = true;
            return;
        case 'q':
            m_options.quiet = true;
            return;
        case kList:
            return act(Action::kList);
        case kEcc:
            return act(Action::kEcc);
        case kExtract:
            m_options.chip.extract_directory = ::optarg;
            if (*::optarg == '\0')
                fail("--extract= names no directory");
            return act(Action::kExtract);
        case kForce:
            m_options.chip.force = true;
            return note_own("--force", m_of_extraction);
        case kHoles:
            take_when("--holes", m_options.chip.holes);
            return note_own("--holes", m_of_extraction);
        case kManifest:
            take_manifest_form();
            return act(Action::kManifest);
        case 'v':
            return end_with(Action::kVersion);
        case 'h':
            return end_with(Action::kHelp);
        case ':':
            return fail("option " + name_of(::optopt) + " needs a value");
        case '?':
            return fail(unknown_option());
        default:
            return take_conversion_option(code, letter);
        }
    }

    void act(Action action) {
        if (m_options.action != Action::kCheck && m_options.action != action)
            fail("--list, --ecc, --extract and --manifest exclude each other");
        m_options.action = action;
    }

    static void note_own(const std::string& name, std::string& first) {
        if (first.empty())
            first = name;
    }

    void take_chip_option(int code) {
        if (const auto wrong = m_chip.take(code, ::optarg))
            return fail(*wrong);
        note_own(name_of(code), m_of_chips);
        if (code != kMaxFlips && code != kWarnFlips && code != kSkip && code != kBadBlocks)
            note_own(name_of(code), m_of_placed_dumps);
    }

    /// Options that would be of no use are refused, so that nobody takes them for heard.
    void check_chip_options() {
        if (const auto wrong = m_chip.finish())
            fail(*wrong);
        const StorageType* type = m_options.conversion.type;
        const std::string word = type != nullptr ? type->word : "";
        if (!m_of_extraction.empty() && m_options.action != Action::kExtract)
            fail(m_of_extraction + " is for --extract");
        if (!m_of_placed_dumps.empty() && m_options.action == Action::kEcc)
            fail(m_of_placed_dumps + " is of no use with --ecc");
        if (!m_of_chips.empty() && type != nullptr && word != "slc" && word != "spinand")
            fail(m_of_chips + " is for slc and spinand");
        if (m_options.chip.dump_spare != 0 && type != nullptr && word != "spinand")
            fail("--dump-spare is for spinand");
        if (m_options.action == Action::kEcc && type != nullptr && word != "slc")
            fail("--ecc is for slc: only its pages hold parity");
        if (m_options.action == Action::kManifest)
            for (const std::string& name : {m_of_reports, m_of_chips})
                if (!name.empty())
                    fail(name + " is of no use with --manifest");
    }

    /// As in nandsmith, later options are then not read and earlier errors count.
    void end_with(Action action) {
        if (m_options.error)
            return;
        m_options.action = action;
        m_ended = true;
    }

    void take_conversion_option(int code, bool letter) {
        if (code == 'l' && letter) {
            m_options.warnings.emplace_back("-l is ignored, as by nandsmith; the option is --page_list");
            return;
        }
        if (code == 'o')
            m_output = ::optarg;
        const AppliedOption applied = apply_conversion_option(code, ::optarg, m_options.conversion);
        if (code == 't' && applied.refusal)
            return fail("flash type " + quoted(::optarg) + " is not supported; the types are " +
                        type_words());
        const StorageSettings& settings = m_options.conversion.settings;
        if (code == 'b')
            note_size("block size", applied, settings.block_size);
        if (code == 'p')
            note_size("page size", applied, settings.page_size);
        if (code == 's')
            note_size("oob size", applied, settings.oob_size);
    }

    void note_size(const std::string& what, const AppliedOption& applied, uint32_t size) {
        if (applied.refusal)
            fail(what + (begins_with_number(::optarg) ? " is out of range: " : " is not a number: ") +
                 quoted(::optarg));
        else if (!only_digits(::optarg))
            m_options.warnings.push_back(what + " " + quoted(::optarg) + " is read as " +
                                         std::to_string(size));
    }

    /// Appends the names between commas, each once.
    void take_names(const std::string& name, std::vector<std::string>& names) {
        std::string_view text = ::optarg;
        for (;;) {
            const std::size_t end = std::min(text.find(','), text.size());
            const std::string_view piece = text.substr(0, end);
            if (piece.empty())
                return fail(name + " has an empty name: " + quoted(::optarg));
            if (std::find(names.begin(), names.end(), piece) == names.end())
                names.emplace_back(piece);
            if (end == text.size())
                return;
            text.remove_prefix(end + 1);
        }
    }

    void take_max_differences() {
        const std::optional<uint64_t> number = strict_number(::optarg);
        if (!number)
            return fail("--max-differences is not a number: " + quoted(::optarg));
        m_options.max_differences = *number == 0 ? UINT64_MAX : *number;
    }

    void take_json() {
        m_options.json = true;
        m_options.json_file = ::optarg != nullptr ? ::optarg : "";
        if (::optarg != nullptr && *::optarg == '\0')
            fail("--json= names no file");
    }

    void take_when(const std::string& name, When& when) {
        const std::string_view word = ::optarg != nullptr ? ::optarg : "always";
        if (word == "auto")
            when = When::kAuto;
        else if (word == "always")
            when = When::kAlways;
        else if (word == "never")
            when = When::kNever;
        else
            fail(name + " takes auto, always or never, not " + quoted(word));
    }

    void take_manifest_form() {
        const std::string_view word = ::optarg;
        if (word == "csv")
            m_options.manifest_form = ManifestForm::kCsv;
        else if (word == "json")
            m_options.manifest_form = ManifestForm::kJson;
        else if (word == "sums")
            m_options.manifest_form = ManifestForm::kSums;
        else
            fail("--manifest takes csv, json or sums, not " + quoted(word));
    }

    void take_target(const char* target) {
        if (m_target)
            fail("more than one target: " + quoted(*m_target) + " and " + quoted(target));
        m_target = target;
    }

    void decide_target() {
        const auto named = [](const std::string& path) { return path.empty() ? "." : path; };
        if (m_target == "-" && m_output)
            fail("standard input and -o " + quoted(*m_output) + " are two targets");
        else if (m_target && m_output && named(*m_target) != named(*m_output))
            fail(quoted(*m_target) + " and -o " + quoted(*m_output) + " are two targets");
        if (m_target)
            m_options.target = named(*m_target);
        else if (m_output == "-")
            m_options.target = "./-";  // for -o it is a directory of that name
        else
            m_options.target = named(m_output.value_or(""));
        m_options.has_target = m_target || m_output;
    }

    void check_completeness() {
        for (const std::string& name : m_options.only)
            if (std::find(m_options.ignore.begin(), m_options.ignore.end(), name) != m_options.ignore.end())
                fail(quoted(name) + " is in --only and in --ignore");
        const bool list = m_options.action == Action::kList;
        if (const auto refusal = check_geometry(m_options.conversion); refusal && !list)
            fail(refusal->line);
        const bool firmware = !m_options.conversion.settings.in_firmware.empty();
        if (m_options.action == Action::kEcc) {
            if (firmware)
                fail("--ecc takes no firmware");
            if (!m_target && !m_output)
                fail("--ecc needs the file or the device to read");
        } else if (!firmware && m_options.action != Action::kExtract) {
            fail("firmware is none; give it with -i");
        }
    }

    std::string name_of(int code) const {
        if (code < kOnly)
            return std::string("-") + static_cast<char>(code);
        return "--" + std::string(row_of(code)->name);
    }

    const option* row_of(int code) const {
        const auto row = std::find_if(m_long_options.begin(), m_long_options.end(),
                                      [code](const option& candidate) { return candidate.val == code; });
        return row != m_long_options.end() ? &*row : nullptr;
    }

    /// What the parser's '?' is about. It leaves a letter that it does not know, 0 for a long option that it
    /// does not know, or the code of a long option that takes no value. All known letters have a row or are
    /// l.
    std::string unknown_option() const {
        if (::optopt != 0 && row_of(::optopt) == nullptr)
            return "unknown option " + quoted(name_of(::optopt));
        const std::string_view argument = m_argv[::optind - 1];
        const std::string_view name = argument.substr(0, argument.find('='));
        if (::optopt != 0)
            return "option " + quoted(name) + " takes no value";
        const bool ambiguous =
            std::any_of(m_long_options.begin(), m_long_options.end(), [&](const option& row) {
                return row.name != nullptr && std::string_view(row.name).starts_with(name.substr(2));
            });
        return (ambiguous ? "ambiguous option " : "unknown option ") + quoted(name);
    }

    const int m_argc;
    char** const m_argv;
    const std::vector<option> m_long_options = long_options();
    CheckOptions m_options;
    ChipOptionReader m_chip{m_options.chip};
    std::string m_of_chips;         // the first option of this kind
    std::string m_of_placed_dumps;  // likewise
    std::string m_of_extraction;    // likewise
    std::string m_of_reports;       // likewise, of what is compared and how it is reported
    std::optional<std::string> m_target;
    std::optional<std::string> m_output;  // of -o
    bool m_ended = false;                 // by --help or --version
};

}  // namespace

std::string check_letters() {
    return std::string(kConversionLetters) + kOwnLetters;
}

std::vector<option> check_long_options() {
    return long_options();
}

CheckOptions parse_check_options(int argc, char* argv[]) {
    return Parser(argc, argv).parse();
}

std::string check_help() {
    return R"(Usage: nandsmith-check -i FIRMWARE -t TYPE -b KB -p KB [-s BYTES] [OPTION]... [TARGET]
       nandsmith-check --ecc -t slc -b KB -p KB -s BYTES [OPTION]... DUMP
       nandsmith-check --extract=DIR [-i FIRMWARE] -t TYPE -b KB -p KB [-s BYTES] [OPTION]... TARGET
       nandsmith-check --manifest=FORMAT -i FIRMWARE -t TYPE -b KB -p KB [-s BYTES] [TARGET]
       nandsmith-check --list -i FIRMWARE [--json[=FILE]]

Says whether TARGET holds what nandsmith makes of FIRMWARE with the same options. Writes nothing to it.
TARGET is the output directory of a conversion, an image, a block device, or - for standard input.
For slc and spinand a file, a device or - is the dump of a chip.
Without TARGET and -o it is the current directory.

The conversion, as nandsmith takes it:
  -i, --in=FIRMWARE        firmware update image
  -o, --out=DIR            output directory; the same as TARGET
  -t, --flash_type=TYPE    slc, spinand, spinor or emmc
  -b, --block_size=KB      size of an erase block
  -p, --page_size=KB       size of a page
  -s, --oob_size=BYTES     size of the spare area of a page; needed for slc
  -2, --2k_data            2 KB of data in a page
      --page_list          list indexes of a page linked list

What is compared:
      --only=NAMES         these parts alone, with commas between them
      --ignore=NAMES       not these parts; they are counted and do not matter
                           names: those of items, idblock, gpt, parameter, gaps, rest
      --strict             extra files, a rest that is not empty and warnings are differences too
      --no-second-opinion  compare only; the formats are not judged by themselves

The dump of a chip:
      --at=NAME=BLOCK      the erase block at which a file begins; without it the file is searched
      --layout=CSV         table of windows: name,first block,last block
      --bad-blocks=LIST    blocks that the programmer passed over, with commas between them
      --max-bad-blocks=N   most that are passed over in a file (2 % of its blocks, at least 2)
      --max-flips=N        most flipped bits of a unit that count as the same (16)
      --warn-flips=N       from more flipped bits on there is a warning (three quarters of that)
      --dump-spare=BYTES   spare area after each page of a spinand dump
      --skip=BYTES         header of the dump, before its first block
      --ecc                what the parity says, without a firmware

Back to plain data:
      --extract=DIR        the items of TARGET, without spare areas, corrected, into DIR
      --force              existing files are replaced
      --holes[=WHEN]       auto or always: holes in place of long runs of zeros; never

For who programs the chips:
      --manifest=FORMAT    sizes, places and checksums of the files, as csv, json or sums;
                           without TARGET those that the conversion would give

What is reported:
      --max-differences=N  places listed for each part (10); 0 lists all, and all are always counted
      --json[=FILE]        one JSON document, on standard output or in FILE
      --verbose            every part and every place
  -q, --quiet              nothing; the exit status is the answer
      --color[=WHEN]       auto, always (without WHEN) or never
      --progress[=WHEN]    auto, always (without WHEN) or never; on standard error
      --list               what is in FIRMWARE; needs -i alone
  -v, --version            show the version
  -h, --help               show this text

N may begin with 0x and end with K, M or G (1024, 1024^2, 1024^3).

Exit status: 0 the same, 1 different, 2 there is no answer.

Examples:
  nandsmith-check -i fw.img -t slc -b 128 -p 2 -s 64 -o out
  nandsmith-check -i fw.img -t emmc -b 512 -p 2 --ignore=userdata,rest out_image.img
  nandsmith-check -i fw.img -t spinor -b 64 -p 2 --json - < out_image.img
  nandsmith-check --list -i fw.img
)";
}
