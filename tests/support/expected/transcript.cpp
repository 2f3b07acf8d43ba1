#include "transcript.h"

namespace test_support {

namespace {

// None is shown while the one that was shown last still holds.
class Percentages {
public:
    std::string shown(const std::string& prefix, uint64_t done, uint64_t total) {
        const uint64_t percent = total == 0 ? 100 : done * 100 / total;
        if (percent == m_last)
            return "";
        m_last = percent;
        return redrawn(prefix + std::to_string(percent) + "%");
    }

    std::string all_steps(const std::string& prefix, uint64_t steps) {
        std::string lines;
        for (uint64_t done = 1; done <= steps; ++done)
            lines += shown(prefix, done, steps);
        return lines;
    }

private:
    uint64_t m_last = 0;
};

}  // namespace

std::string line(std::string_view text) {
    return std::string(text).append("\n");
}

std::string error_line(std::string_view text) {
    return std::string("\x1b[30;41m").append(text).append("\x1b[37;40m\n");
}

std::string redrawn(std::string_view text) {
    return std::string("\x1b[1A\x1b[2K").append(text).append("\n");
}

std::string not_created(const std::string& path, int error) {
    return line("failed to create " + path + ",err=" + std::to_string(error));
}

std::string not_written(const std::string& path, int error) {
    return error_line("failed to write " + path + ",err=" + std::to_string(error));
}

std::string progress_lines(const std::string& prefix, uint64_t steps) {
    return Percentages().all_steps(prefix, steps);
}

std::string writing_lines(const std::string& name, uint64_t pages) {
    const std::string announcement = "writing " + name + "...";
    return line(announcement) + progress_lines(announcement, pages) + redrawn(announcement + "OK");
}

std::string table_lines(const std::string& name) {
    return writing_lines(name, 0);
}

// The percentages of the two passes are one sequence.
std::string sparse_lines(const std::string& name, const std::vector<uint64_t>& pieces, uint64_t declared,
                         uint64_t pages, int status) {
    const std::string announcement = "writing " + name + "...";
    std::string text = line(announcement) + line("extracting " + name + "...");
    Percentages percentages;
    uint64_t written = 0;
    for (const uint64_t piece : pieces) {
        written += piece;
        text += percentages.shown("extracting... " + name + "...", written, declared);
    }
    if (status != 0)
        return text + line(status == -4   ? "failed to get sparse chunk"
                           : status == -5 ? "failed to get raw chunk data"
                                          : "failed to get fill chunk data");
    return text + line("") + percentages.all_steps(announcement, pages) + redrawn(announcement + "OK");
}

std::string sparse_lines(const std::string& name, const Bytes& image, uint64_t page_size, uint64_t pages,
                         int status) {
    const SparseExpansion expansion = expand_sparse(image, page_size);
    return sparse_lines(name, expansion.pieces, expansion.declared_size, pages, status);
}

}  // namespace test_support
