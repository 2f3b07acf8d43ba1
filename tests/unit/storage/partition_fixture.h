#pragma once

// What the tests of the partition writers share beyond storage_fixture.h.

#include "process_state.h"
#include "storage_fixture.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace storage_test {

// Pages of 1 GB, for tests in which no memory can be had for one.
inline constexpr uint32_t huge_page_kb = 1024 * 1024;

// A recorder whose page writer says that it failed.
template <typename Recorder>
class Refusing : public Recorder {
public:
    using Recorder::Recorder;
    bool write_page(uint8_t* data, uint32_t length) override {
        Recorder::write_page(data, length);
        return false;
    }
};

// A firmware that holds these items only. Nothing is aligned and there is no trailer: the last item's data
// ends the file.
inline test_support::Firmware firmware_with(std::vector<test_support::Item> items) {
    test_support::Firmware firmware = test_support::sample_firmware();
    firmware.items = std::move(items);
    firmware.md5.clear();
    firmware.item_alignment = 1;
    return firmware;
}

// The bytes, filled up to whole units.
inline Bytes padded(Bytes bytes, std::size_t unit, uint8_t fill = 0) {
    bytes.resize(static_cast<std::size_t>(test_support::round_up(bytes.size(), unit)), fill);
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    test_support::put_bytes(left, right);
    return left;
}

// A parameter partition of whole pages: `copies` slots, each starting with the record, and fill bytes
// elsewhere.
inline Bytes parameter_pages(const Bytes& record, std::size_t page_size, std::size_t pages,
                             std::size_t copies, std::size_t slot_pages, uint8_t fill = 0) {
    Bytes expected(pages * page_size, fill);
    const Bytes copy = padded(record, page_size);
    for (std::size_t k = 0; k < copies; ++k)
        test_support::put_bytes_at(expected, k * slot_pages * page_size, copy);
    return expected;
}

// Fails with a short text instead of megabytes of numbers.
inline ::testing::AssertionResult same_bytes(const Bytes& found, const Bytes& expected) {
    if (found == expected)
        return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < found.size() && at < expected.size() && found[at] == expected[at])
        ++at;
    auto result = ::testing::AssertionFailure();
    result << found.size() << " bytes instead of " << expected.size() << ", the first difference at " << at;
    if (at < found.size() && at < expected.size())
        result << ": " << int{found[at]} << " instead of " << int{expected[at]};
    return result;
}

// The names in a directory.
inline std::set<std::string> names_in(const std::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// Enters a directory for the time of its life.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::filesystem::path& path) : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() { std::filesystem::current_path(m_before); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    std::filesystem::path m_before;
};

}  // namespace storage_test
