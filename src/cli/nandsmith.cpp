#include "../io/retry.h"
#include "../storage/storage_types.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// What main returns; the process ends with the value modulo 256.
enum ExitCode : int {
    kSuccess = 0,
    kUnknownFlashType = -1,
    kBlockSizeNotANumber = -2,
    kPageSizeNotANumber = -3,
    kOobSizeNotANumber = -4,
    kNoFlashType = -5,
    kNoBlockSize = -6,
    kNoPageSize = -7,
    kNoOobSize = -8,
    kOutputNotAccessible = -9,
    kOutputNotADirectory = -10,
    kFirmwareNotAccessible = -11,
    kFirmwareNotAFile = -12,
    kNoStorage = -13,
    kInitFailed = -14,
    kCreationFailed = -15,
    kOutOfMemory = -16,
};

struct Options {
    const StorageType* type = nullptr;
    StorageSettings settings;
};

/// The code with which the run ends here; nothing when it goes on.
using Ending = std::optional<int>;
constexpr Ending kGoOn;

const option long_options[] = {
    {"in", required_argument, nullptr, 'i'},
    {"out", required_argument, nullptr, 'o'},
    {"flash_type", required_argument, nullptr, 't'},
    {"block_size", required_argument, nullptr, 'b'},
    {"page_size", required_argument, nullptr, 'p'},
    {"oob_size", required_argument, nullptr, 's'},
    {"2k_data", no_argument, nullptr, '2'},
    {"page_list", no_argument, nullptr, 'l'},
    {"version", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

// With "-" the parser returns arguments that are not options, in order. With ":" it prints nothing. Kept:
// there is no letter l, only the long option switches the page list on.
const char short_options[] = "-:i:o:t:b:p:s:2vh";

void usage() {
    std::printf("NAME\n"
                "\tnandsmith - creating image for programming on flash\n"
                "SYNOPSIS\n"
                "\tnandsmith [-iotbpsvh]\n"
                "DESCRIPTION\n"
                "\tThis tool aims to convert firmware into image for programming\n"
                "\tFrom now on,it can support slc nand(qz)|spi nand|nor|emmc.\n"
                "OPTIONS:\n"
                "\t  -i\tinput firmware\n"
                "\t  -o\toutput directory\n"
                "\t  -t\tstorage type,range in[SLC|SPINAND|SPINOR|EMMC]\n"
                "\t  -b\tblock size,unit KB\n"
                "\t  -p\tpage size,unit KB\n"
                "\t  -s\toob size,unit B\n"
                "\t  -2\t2k data in one page\n"
                "\t  -l\tusing page linked list\n"
                "\t  -v\tshow version\n");
}

Ending parse_flash_type(const char* word, const StorageType*& type) {
    std::printf("flash type is '%s'\n", word);
    const std::span<const StorageType> types = storage_types();
    const auto found = std::find_if(types.begin(), types.end(), [word](const StorageType& candidate) {
        return ::strcasecmp(word, candidate.word) == 0;
    });
    if (found == types.end()) {
        std::printf("flash type is not support.\n");
        return kUnknownFlashType;
    }
    type = &*found;
    return kGoOn;
}

Ending parse_size(const char* what, const char* text, int failure, uint32_t& size) {
    std::printf("%s size is '%s'\n", what, text);
    try {
        size = static_cast<uint32_t>(std::stoi(text));  // kept: a negative number becomes a large one
    } catch (const std::exception& exception) {
        std::printf("exception is '%s'\n", exception.what());
        return failure;
    }
    return kGoOn;
}

Ending apply_option(int code, int option_index, Options& options) {
    switch (code) {
    case 0:
        std::printf("long option %s", long_options[option_index].name);
        if (optarg != nullptr)
            std::printf(" with arg %s", optarg);
        std::printf("\n");
        return kGoOn;
    case 1:
        std::printf("regular argument '%s'\n", optarg);
        return kGoOn;
    case 'i':
        std::printf("input firmware is '%s'\n", optarg);
        options.settings.in_firmware = optarg;
        return kGoOn;
    case 'o':
        std::printf("output directory is '%s'\n", optarg);
        options.settings.out_dir = optarg;
        return kGoOn;
    case 't':
        return parse_flash_type(optarg, options.type);
    case 'b':
        return parse_size("block", optarg, kBlockSizeNotANumber, options.settings.block_size);
    case 'p':
        return parse_size("page", optarg, kPageSizeNotANumber, options.settings.page_size);
    case 's':
        return parse_size("oob", optarg, kOobSizeNotANumber, options.settings.oob_size);
    case '2':
        std::printf("2k data page on.\n");
        options.settings.page_2k = true;
        return kGoOn;
    case 'l':
        std::printf("page linked list on.\n");
        options.settings.page_list = true;
        return kGoOn;
    case 'v':
        std::printf("%s%s\n", "nandsmith ", " v1.0_20210204");
        return kSuccess;
    case 'h':
        usage();
        return kSuccess;
    case ':':
        std::printf("Missing option for %c\n", optopt);
        return kGoOn;
    case '?':
        std::printf("Unknown option %c\n", optopt);
        return kGoOn;
    default:
        std::printf("?? getopt returned character code 0%o ??\n", static_cast<unsigned>(code));
        return kGoOn;
    }
}

Ending parse_options(int argc, char* argv[], Options& options) {
    for (;;) {
        int option_index = 0;
        const int code = ::getopt_long(argc, argv, short_options, long_options, &option_index);
        if (code == -1)
            return kGoOn;
        if (const Ending ending = apply_option(code, option_index, options))
            return ending;
    }
}

int refuse(const std::string& message, int code) {
    std::printf("%s\n", message.c_str());
    return code;
}

Ending check_geometry(const Options& options) {
    if (options.type == nullptr)
        return refuse("flash type is none", kNoFlashType);
    if (options.settings.block_size == 0)
        return refuse("block size is zero", kNoBlockSize);
    if (options.settings.page_size == 0)
        return refuse("page size is zero", kNoPageSize);
    if (options.settings.oob_size == 0 && options.type->needs_spare)
        return refuse("oob size is zero", kNoOobSize);
    return kGoOn;
}

/// Checks the output directory, or takes the current one when none is given.
Ending check_output(std::string& out_dir) {
    if (out_dir.empty()) {
        char szProgramDir[256];
        if (::getcwd(szProgramDir, sizeof(szProgramDir)) == nullptr)
            return refuse("current directory failed to access", kOutputNotAccessible);
        out_dir = szProgramDir;
        return kGoOn;
    }
    struct stat info {};
    if (retry_interrupted([&] { return ::stat(out_dir.c_str(), &info); }) != 0)
        return refuse(out_dir + " failed to access", kOutputNotAccessible);
    if (!S_ISDIR(info.st_mode))
        return refuse(out_dir + " is not a directory", kOutputNotADirectory);
    return kGoOn;
}

Ending check_firmware(const StorageSettings& settings) {
    struct stat info {};
    if (retry_interrupted([&] { return ::stat(settings.in_firmware.c_str(), &info); }) != 0)
        return refuse(settings.in_firmware + " failed to access", kFirmwareNotAccessible);
    if (!S_ISREG(info.st_mode))
        return refuse(settings.out_dir + " is not a file", kFirmwareNotAFile);  // kept: the directory's path
    return kGoOn;
}

int run(int argc, char* argv[]) {
    Options options;
    if (const Ending ending = parse_options(argc, argv, options))
        return *ending;
    if (const Ending ending = check_geometry(options))
        return *ending;
    if (const Ending ending = check_output(options.settings.out_dir))
        return *ending;
    if (const Ending ending = check_firmware(options.settings))
        return *ending;

    // Not destroyed: create_image has closed the output, and the process ends.
    static CStorage* storage_pointer = nullptr;
    storage_pointer = options.type->make(options.settings).release();
    if (storage_pointer == nullptr)
        return refuse("Storage object is NULL.", kNoStorage);
    if (!storage_pointer->storage_init())
        return kInitFailed;
    if (!storage_pointer->create_image())
        return refuse("Failed to create programming image.", kCreationFailed);
    return kSuccess;
}

/// Opens closed standard descriptors. An output file with such a descriptor would get the messages.
void occupy_standard_descriptors() {
    int descriptor = 0;
    do
        descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO)
        ::close(descriptor);
}

int report_out_of_memory() {
    std::printf("out of memory\n");
    std::fflush(stdout);
    return kOutOfMemory;
}

}  // namespace

int main(int argc, char* argv[]) {
    occupy_standard_descriptors();
    // A write beyond the file size limit of the process then fails like any other.
    std::signal(SIGXFSZ, SIG_IGN);
    // Without memory for an exception the handler below is not reached.
    std::set_terminate([] { std::_Exit(report_out_of_memory() & 0xFF); });
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return report_out_of_memory();
    }
}
