#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>

/// Why nothing may be created under a name that came from a file; nothing when it may.
std::optional<std::string> refused_name(const std::string& name);

/// A directory that files are created in. It is held open, so that all of them go to the same one.
class ExtractionDirectory {
public:
    ExtractionDirectory() = default;
    ~ExtractionDirectory();
    ExtractionDirectory(const ExtractionDirectory&) = delete;
    ExtractionDirectory& operator=(const ExtractionDirectory&) = delete;

    /// Creates the directory if it is not there, but not those above it. Returns 0 or an errno.
    int open(const std::string& path);
    /// The status of what has this name in the directory; a link is not followed. None when nothing has it.
    /// Returns 0 or an errno.
    int find(const std::string& name, std::optional<struct stat>& status) const;
    /// -1 until it is open.
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor = -1;
};

/// A new file, written from its start to its end. Nothing of it stays unless it is completed.
class ExtractedFile {
public:
    struct Mode {
        bool replace = false;  ///< what has the name already is replaced when the file is complete
        bool holes = true;     ///< long runs of zeros become holes
    };

    /// The directory outlives the file.
    ExtractedFile(const ExtractionDirectory& directory, Mode mode) : m_directory(directory), m_mode(mode) {}
    ~ExtractedFile();
    ExtractedFile(const ExtractedFile&) = delete;
    ExtractedFile& operator=(const ExtractedFile&) = delete;

    /// Follows no link and opens nothing that is there. The name is one that refused_name accepts. Returns 0
    /// or an errno, as do the others.
    int open(const std::string& name);
    int append(const uint8_t* bytes, uint64_t count);
    /// Gives the file its name, if it has not got it yet.
    int complete();
    uint64_t size() const { return m_size; }

private:
    int create();
    int write(const uint8_t* bytes, uint64_t count);
    int set_size() const;

    const ExtractionDirectory& m_directory;
    const Mode m_mode;
    std::string m_name;
    std::string m_created;  // the name that it has now; empty: nothing is there
    int m_descriptor = -1;
    uint64_t m_size = 0;
    uint64_t m_written_end = 0;
};
