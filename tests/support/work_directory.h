#pragma once

// A directory with a firmware and an output directory in it, and nothing else.

#include "bytes.h"
#include "firmware_builder.h"

#include <filesystem>
#include <set>
#include <string>

namespace test_support {

namespace fs = std::filesystem;

using Names = std::set<std::string>;

class WorkDirectory {
public:
    explicit WorkDirectory(const fs::path& parent = fs::temp_directory_path()) : m_directory(parent) {
        fs::create_directory(out_dir());
    }

    fs::path directory() const { return m_directory.path(); }
    fs::path firmware() const { return m_directory / m_firmware_name; }
    fs::path out_dir() const { return m_directory / "out"; }
    fs::path out(const std::string& name) const { return out_dir() / name; }

    void pack(const Firmware& packed) const { packed.write(firmware()); }
    void pack(const Bytes& bytes) const { write_file(firmware(), bytes); }
    // Another name, for the names that mean something.
    void name_firmware(const std::string& name) { m_firmware_name = name; }

    Bytes output(const std::string& name) const { return read_file(out(name)); }
    Names output_names() const { return names_in(out_dir()); }
    Files outputs() const { return files_in(out_dir()); }
    void empty_output() const {
        fs::remove_all(out_dir());
        fs::create_directory(out_dir());
    }

    // Empty when the firmware has these bytes and nothing stands beside it and the output directory; else
    // what is wrong.
    std::string damage(const Bytes& packed) const {
        if (read_file(firmware()) != packed)
            return "the firmware was changed";
        for (const auto& entry : fs::directory_iterator(directory()))
            if (entry.path() != firmware() && entry.path() != out_dir())
                return "outside the output directory: " + entry.path().string();
        return {};
    }

private:
    TemporaryDirectory m_directory;
    std::string m_firmware_name = "fw.img";
};

}  // namespace test_support
