#include "../io/retry.h"
#include "../options/conversion_options.h"
#include "program_options.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <getopt.h>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/// What main returns where options are not refused; the process ends with the value modulo 256.
enum ExitCode : int {
    kSuccess = 0,
    kOutputNotAccessible = -9,
    kOutputNotADirectory = -10,
    kFirmwareNotAccessible = -11,
    kFirmwareNotAFile = -12,
    kNoStorage = -13,
    kInitFailed = -14,
    kCreationFailed = -15,
    kOutOfMemory = -16,
};

/// The code with which the run ends here; nothing when it goes on.
using Ending = std::optional<int>;
constexpr Ending kGoOn;

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

int refuse(const std::string& message, int code) {
    std::printf("%s\n", message.c_str());
    return code;
}

Ending apply_conversion(int code, ConversionOptions& options) {
    const AppliedOption applied = apply_conversion_option(code, optarg, options);
    if (applied.echo.empty())
        std::printf("?? getopt returned character code 0%o ??\n", static_cast<unsigned>(code));
    else
        std::printf("%s\n", applied.echo.c_str());
    if (applied.refusal)
        return refuse(applied.refusal->line, applied.refusal->code);
    return kGoOn;
}

Ending apply_option(int code, const char* long_name, ConversionOptions& options) {
    switch (code) {
    case 0:
        std::printf("long option %s", long_name);
        if (optarg != nullptr)
            std::printf(" with arg %s", optarg);
        std::printf("\n");
        return kGoOn;
    case 1:
        std::printf("regular argument '%s'\n", optarg);
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
        return apply_conversion(code, options);
    }
}

Ending parse_options(int argc, char* argv[], ConversionOptions& options) {
    // With "-" the parser returns arguments that are not options, in order. With ":" it prints nothing.
    const std::string short_options = "-:" + program_letters();
    const std::vector<option> long_options = program_options();
    for (;;) {
        int index = 0;
        const int code = ::getopt_long(argc, argv, short_options.c_str(), long_options.data(), &index);
        if (code == -1)
            return kGoOn;
        if (const Ending ending =
                apply_option(code, long_options[static_cast<std::size_t>(index)].name, options))
            return ending;
    }
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
    ConversionOptions options;
    if (const Ending ending = parse_options(argc, argv, options))
        return *ending;
    if (const std::optional<Refusal> refusal = check_geometry(options))
        return refuse(refusal->line, refusal->code);
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
