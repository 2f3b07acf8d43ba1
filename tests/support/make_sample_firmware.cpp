// Packs a firmware update image from real parts: an ext4 root file system made by mke2fs, a FAT boot
// partition, boot stages and a parameter text. The same options give the same bytes in every run, for every
// user and on every file system.

#include "bytes.h"
#include "firmware_builder.h"
#include "run_program.h"

#include <charconv>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace test_support;

namespace {

constexpr time_t kBuildTime = 1700000000;  // of every file in the image

// Partition starts in sectors. The boot block copies of an eMMC with large erase blocks reach beyond sector
// 9000, so the first partition after the table starts at sector 0x4000 (8 MiB).
constexpr uint32_t kParameterSectors = 0x2000;
constexpr uint32_t kMiscStart = 0x4000, kMiscSectors = 0x800;
constexpr uint32_t kBootStart = 0x4800, kBootSectors = 0x4000;
constexpr uint32_t kRootfsStart = 0x8800;

struct Arguments {
    fs::path out{};
    fs::path work{};
    bool gpt = false;
    bool sparse = true;
    uint64_t rootfs_mb = 40;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

uint64_t parse_megabytes(const std::string& text) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < 1 || value > 2048)
        throw UsageError("--rootfs-mb takes a number from 1 to 2048");
    return value;
}

Arguments parse_arguments(const std::vector<std::string>& words) {
    Arguments arguments;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const auto value = [&words, &i]() -> const std::string& {
            if (i + 1 == words.size())
                throw UsageError(words[i] + " needs a value");
            return words[++i];
        };
        if (words[i] == "--out")
            arguments.out = value();
        else if (words[i] == "--work")
            arguments.work = value();
        else if (words[i] == "--rootfs-mb")
            arguments.rootfs_mb = parse_megabytes(value());
        else if (words[i] == "--gpt")
            arguments.gpt = true;
        else if (words[i] == "--no-sparse")
            arguments.sparse = false;
        else
            throw UsageError("unknown argument " + words[i]);
    }
    if (arguments.out.empty()) {
        throw UsageError(
            "usage: make_sample_firmware --out FILE [--gpt] [--no-sparse] [--rootfs-mb N] [--work DIR]");
    }
    return arguments;
}

// ---- tools ----

// Runs a tool whose output depends on nothing but its input: fixed clock, fixed time zone.
void run_tool(const std::string& name, const std::vector<std::string>& arguments) {
    const fs::path program = find_program(name);
    if (program.empty())
        throw std::runtime_error("missing tool: " + name);
    const std::string clock = std::to_string(kBuildTime);
    RunOptions options;
    options.environment = {{"E2FSPROGS_FAKE_TIME", clock},
                           {"SOURCE_DATE_EPOCH", clock},
                           {"TZ", "UTC"},
                           {"MKE2FS_CONFIG", "/dev/null"},
                           {"MTOOLS_SKIP_CHECK", "1"}};
    const RunResult result = run_program(program.string(), arguments, options);
    if (!result.succeeded()) {
        const std::string& said = result.err.empty() ? result.out : result.err;
        throw std::runtime_error(name + " failed: " + said.substr(0, said.find('\n')));
    }
}

// ---- contents ----

Bytes text_file(std::size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    std::string text;
    for (uint32_t line = 1; text.size() < size; ++line) {
        text += std::to_string(line) + " sensor" + std::to_string(generator() % 17) +
                " value=" + std::to_string(generator() % 100000) +
                (generator() % 5 == 0 ? " state=warning\n" : " state=ok\n");
    }
    text.resize(size);
    return to_bytes(text);
}

// Mostly zeros, with a block of data every 64 KB.
Bytes zero_heavy_file(std::size_t size, uint32_t seed) {
    Bytes bytes(size, 0);
    const std::size_t step = 64 * kIb;
    for (std::size_t offset = 0; offset + step <= size; offset += step)
        put_bytes_at(bytes, offset, patterned(4 * kIb, seed + static_cast<uint32_t>(offset / step)));
    return bytes;
}

// Fills `root` with about `size` bytes: logs, libraries, databases with much empty space, small settings
// files in directories of their own, and symbolic links.
void make_root_tree(const fs::path& root, uint64_t size) {
    for (const char* directory : {"bin", "etc/conf.d", "lib", "usr/share/doc", "var/log", "var/lib/data"})
        fs::create_directories(root / directory);
    write_file(root / "etc/hostname", to_bytes("sample\n"));
    write_file(root / "etc/empty", {});
    write_file(root / "bin/init", patterned(180 * kIb + 77, 11));
    fs::create_symlink("../bin/init", root / "lib/init");
    fs::create_symlink("/var/log", root / "usr/logs");

    uint64_t written = 180 * kIb;
    for (uint32_t i = 0; written < size; ++i) {
        const auto add = [&](const std::string& path, const Bytes& bytes) {
            write_file(root / path, bytes);
            written += bytes.size();
        };
        const std::string number = std::to_string(i);
        add("lib/lib" + number + ".so.1", patterned(200 * kIb + i * 7919 % (300 * kIb), 1000 + i));
        fs::create_symlink("lib" + number + ".so.1", root / ("lib/lib" + number + ".so"));
        add("var/log/service" + number + ".log", text_file(100 * kIb + i * 104729 % (150 * kIb), 2000 + i));
        add("var/lib/data/table" + number + ".db", zero_heavy_file(256 * kIb, 3000 + i));
        fs::create_directory(root / ("etc/conf.d/service" + number));
        add("etc/conf.d/service" + number + "/settings.conf", text_file(10 + i * 31 % 4000, 4000 + i));
    }
}

void set_build_time(const fs::path& path) {
    const timespec both[2] = {{kBuildTime, 0}, {kBuildTime, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), both, AT_SYMLINK_NOFOLLOW) != 0)
        throw std::runtime_error("cannot set the time of " + path.string());
}

// Modes and times as they shall stand in the image, whatever the umask of the caller is.
void set_modes_and_times(const fs::path& tree) {
    for (const auto& entry : fs::recursive_directory_iterator(tree)) {
        if (!entry.is_symlink()) {
            const bool executable = entry.is_directory() || entry.path().parent_path().filename() == "bin";
            fs::permissions(entry.path(), executable ? fs::perms(0755) : fs::perms(0644));
        }
        set_build_time(entry.path());
    }
    fs::permissions(tree, fs::perms(0755));
    set_build_time(tree);
}

// Some fields cannot be given to the files of the tree, so they are set inside the image. mke2fs copies the
// owner, which is the user who runs this program. Reading a file may move its access time, and no call sets a
// change time. The count of written kilobytes depends on the file system that holds the image.
void fix_owners_and_times(const fs::path& tree, const fs::path& image, const fs::path& script) {
    std::vector<std::string> inside{"/", "/lost+found"};
    for (const auto& entry : fs::recursive_directory_iterator(tree))
        inside.push_back((fs::path("/") / entry.path().lexically_relative(tree)).string());
    std::string commands = "set_super_value kbytes_written 0\n";
    for (const std::string& path : inside) {
        for (const std::string owner : {"uid", "gid"})
            commands += "set_inode_field " + path + " " + owner + " 0\n";
        for (const std::string time : {"atime", "ctime"}) {
            commands += "set_inode_field " + path + " " + time + " @" + std::to_string(kBuildTime) + "\n";
            commands += "set_inode_field " + path + " " + time + "_extra 0\n";
        }
    }
    write_file(script, to_bytes(commands));
    run_tool("debugfs", {"-w", "-f", script.string(), image.string()});
}

void make_ext4(const Arguments& arguments, const fs::path& scratch, const fs::path& image) {
    const fs::path tree = scratch / "root";
    make_root_tree(tree, arguments.rootfs_mb * kMib);
    set_modes_and_times(tree);
    const uint64_t image_mb = arguments.rootfs_mb * 3 / 2 + 8;  // journal and inode tables take their share
    std::vector<std::string> options =
        split("-q -F -t ext4 -b 4096 -I 256 -m 1 -L rootfs -O has_journal,extent,"
              "64bit,flex_bg,metadata_csum,sparse_super,large_file,dir_index",
              ' ');
    const std::string uuid = kSampleUuid;
    options.insert(options.end(), {"-U", uuid, "-E", "root_owner=0:0,hash_seed=" + uuid, "-d", tree, image,
                                   std::to_string(image_mb) + "M"});
    run_tool("mke2fs", options);
    fix_owners_and_times(tree, image, scratch / "owners_and_times.debugfs");
}

Bytes rootfs_image(const Arguments& arguments, const fs::path& scratch, uint64_t& flat_size) {
    const fs::path flat = (arguments.work.empty() ? scratch : arguments.work) / "rootfs.ext4";
    fs::remove(flat);
    make_ext4(arguments, scratch, flat);
    flat_size = fs::file_size(flat);
    if (!arguments.sparse)
        return read_file(flat);
    const fs::path sparse = scratch / "rootfs.sparse";
    run_tool("img2simg", {flat.string(), sparse.string(), "4096"});
    return read_file(sparse);
}

Bytes kernel_blob() {
    Bytes kernel = to_bytes("KERNEL  ");
    put_bytes(kernel, patterned(3 * kMib + 1234, 21));
    return kernel;
}

// A FAT file system with a kernel and a text in it, or the kernel alone where the FAT tools are missing.
Bytes boot_image(const fs::path& scratch) {
    if (find_program("mkfs.fat").empty() || find_program("mcopy").empty())
        return kernel_blob();
    const fs::path image = scratch / "boot.fat";
    const fs::path kernel = scratch / "KERNEL.IMG";
    const fs::path settings = scratch / "BOOT.TXT";
    write_file(kernel, kernel_blob());
    write_file(settings, to_bytes("console=ttyS0,115200 root=PARTLABEL=rootfs\n"));
    set_build_time(kernel);
    set_build_time(settings);
    const uint64_t image_kib = kBootSectors * uint64_t{kSectorSize} / kIb;
    run_tool("mkfs.fat", {"--invariant", "-F", "16", "-s", "1", "-n", "BOOT", "-C", image.string(),
                          std::to_string(image_kib)});
    run_tool("mcopy", {"-m", "-i", image.string(), kernel.string(), settings.string(), "::/"});
    return read_file(image);
}

Bytes misc_image() {
    Bytes misc(16 * kIb, 0);
    put_text_at(misc, 0, "boot-normal", 32);
    put_bytes(misc, text_file(5000, 31));
    return misc;
}

// ---- firmware ----

Firmware make_firmware(const Arguments& arguments, const fs::path& scratch) {
    uint64_t rootfs_bytes = 0;
    Bytes rootfs = rootfs_image(arguments, scratch, rootfs_bytes);
    const auto rootfs_sectors = static_cast<uint32_t>(round_up(rootfs_bytes + 2 * kMib, kMib) / kSectorSize);
    const uint32_t userdata_start = kRootfsStart + rootfs_sectors;
    const std::string text = parameter_text({{"misc", kMiscStart, kMiscSectors},
                                             {"boot:bootable", kBootStart, kBootSectors},
                                             {"rootfs", kRootfsStart, rootfs_sectors},
                                             {"userdata:grow", userdata_start, std::nullopt}},
                                            arguments.gpt, {{"rootfs", kSampleUuid}});
    Firmware firmware;
    firmware.boot.rc4_flag = 1;
    firmware.boot.entries_471.entries = {{.name = "MemoryInit", .data = patterned(24003, 41), .delay = 1}};
    firmware.boot.entries_472.entries = {{.name = "UsbLoader", .data = patterned(150001, 42), .delay = 0}};
    firmware.boot.loader.entries = {{.name = "FlashData", .data = patterned(61003, 43)},
                                    {.name = "FlashBoot", .data = patterned(283451, 44)}};
    firmware.items = {
        {.name = "notes",
         .file = "notes.txt",
         .flash_offset = kNotPlaced,
         .data = to_bytes("Sample firmware.\n")},
        parameter_item(text, kParameterSectors),
        partition_item("misc", kMiscStart, kMiscSectors, misc_image()),
        partition_item("boot", kBootStart, kBootSectors, boot_image(scratch)),
        partition_item("rootfs", kRootfsStart, rootfs_sectors, std::move(rootfs)),
        partition_item("userdata", userdata_start, kGrowsToEnd, text_file(700001, 51)),
    };
    return firmware;
}

void run(const Arguments& arguments) {
    const TemporaryDirectory scratch;
    if (!arguments.work.empty())
        fs::create_directories(arguments.work);
    make_firmware(arguments, scratch.path()).write(arguments.out);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(parse_arguments(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const UsageError& error) {
        std::cerr << error.what() << '\n';
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "make_sample_firmware: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
