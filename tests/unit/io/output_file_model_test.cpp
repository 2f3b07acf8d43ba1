// Random operations on an output file, each sequence beside a model that is a string of bytes in memory.

#include "../storage/partition_fixture.h"
#include "io/output_file.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace storage_test;
using namespace test_support;

class Dice {
public:
    explicit Dice(uint32_t seed) : m_generator(seed) {}

    uint64_t below(uint64_t limit) { return m_generator() % limit; }

    // Around the borders at which blocks are written and zeros are looked for.
    uint64_t position() {
        const uint64_t border = below(3) == 0 ? below(3) << 20 : below(10) * 65536;
        const uint64_t step = below(4) == 0 ? below(65536) : below(3);
        return below(2) == 0 || step > border ? border + step : border - step;
    }
    uint64_t length() {
        switch (below(8)) {
        case 0:
            return 0;
        case 1:
            return 65536 - 1 + below(3);
        case 2:
            return below(4) == 0 ? (1 << 20) - 1 + below(3) : 262144 - 1 + below(3);
        case 3:
            return below(300000);
        default:
            return below(5000);
        }
    }
    uint8_t value() { return below(3) == 0 ? 0xA5 : 0; }

    // Data with long runs of zeros.
    Bytes bytes(uint64_t count) {
        Bytes result(static_cast<std::size_t>(count), value());
        for (int dot = 0; count != 0 && dot < 3 && below(2) == 0; ++dot)
            result[static_cast<std::size_t>(below(count))] = 0x5A;
        return result;
    }

private:
    std::mt19937 m_generator;
};

// The file as it should be.
class Model {
public:
    void write(const Bytes& data) {
        if (data.empty())
            return;
        const auto begin = static_cast<std::size_t>(position);
        bytes.resize(std::max(bytes.size(), begin + data.size()), 0);
        put_bytes_at(bytes, begin, data);
        position += data.size();
    }

    Bytes bytes{};
    uint64_t position = 0;
};

// A file and its model, to which the same is done.
class Pair {
public:
    Pair(OutputFile& file, uint32_t seed) : m_file(file), m_dice(seed) {}

    void write() {
        const Bytes data = m_dice.bytes(m_dice.length());
        m_file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        m_model.write(data);
    }
    void put() {
        const uint8_t value = m_dice.value();
        m_file.put(static_cast<char>(value));
        m_model.write({value});
    }
    void fill() {
        const uint8_t value = m_dice.value();
        const uint64_t size = m_dice.below(3) == 0 ? m_dice.length() : m_dice.below(2048);
        const uint64_t count = m_dice.below(size > 5000 ? 4 : 60);
        m_file.write_fill(value, count, size);
        m_model.write(Bytes(static_cast<std::size_t>(count * size), value));
    }
    void seek() {
        const auto size = static_cast<int64_t>(m_model.bytes.size());
        const auto target = static_cast<int64_t>(m_dice.position());
        switch (m_dice.below(4)) {
        case 0:
            m_file.seekp(target);
            break;
        case 1:
            m_file.seekp(target - static_cast<int64_t>(m_model.position), std::ios_base::cur);
            break;
        case 2:
            m_file.seekp(target - size, std::ios_base::end);
            break;
        default:
            m_file.seekp(0, std::ios_base::end);
            m_model.position = m_model.bytes.size();
            return;
        }
        m_model.position = static_cast<uint64_t>(target);
    }

    // Puts bytes where the file gathers them and writes a part of them from there.
    void write_in_place() {
        const std::span<uint8_t> room = m_file.buffer().room();
        ASSERT_FALSE(room.empty());
        const Bytes data = m_dice.bytes(std::min<uint64_t>(room.size(), m_dice.length()));
        std::copy(data.begin(), data.end(), room.begin());
        const uint64_t used = m_dice.below(3) == 0 ? m_dice.below(data.size() + 1) : data.size();
        m_file.write(reinterpret_cast<const char*>(room.data()), static_cast<std::streamsize>(used));
        m_model.write(slice(data, 0, static_cast<std::size_t>(used)));
    }

    // One operation that a file of any kind takes.
    void append() {
        switch (m_dice.below(7)) {
        case 0:
            put();
            break;
        case 1:
        case 2:
            fill();
            break;
        case 3:
            m_file.flush();
            break;
        case 4:
            write_in_place();
            break;
        default:
            write();
            break;
        }
    }

    // The position and the size that the file claims.
    void expect_same_place() {
        ASSERT_TRUE(m_file.good());
        ASSERT_EQ(m_file.tellp(), static_cast<std::streamoff>(m_model.position));
    }

    Dice& dice() { return m_dice; }
    Model& model() { return m_model; }

private:
    OutputFile& m_file;
    Dice m_dice;
    Model m_model{};
};

class OutputFileModelTest : public ::testing::Test {
protected:
    std::string path() const { return (m_directory / "out.img").string(); }

    // Operations anywhere in a regular file, now and then with a look at the file or a close in between.
    void run(OutputFile& file, uint32_t seed) {
        Pair pair(file, seed);
        start_afresh(seed);
        file.open(path());
        const uint64_t operations = 4 + pair.dice().below(12);
        for (uint64_t i = 0; i < operations; ++i) {
            const uint64_t kind = pair.dice().below(16);
            if (kind < 5)
                pair.seek();
            else if (kind == 5)
                expect_flushed(file, pair.model());
            else if (kind == 6)
                reopen(file, pair.model());
            else
                pair.append();
            pair.expect_same_place();
        }
        file.close();
        EXPECT_TRUE(file.good());
        ASSERT_TRUE(same_bytes(read_file(path()), pair.model().bytes));
    }

    // Mostly without the file of the sequence before: some file systems write a file out when it is emptied
    // and closed again, which costs more than the whole test.
    void start_afresh(uint32_t seed) {
        if (seed % 16 != 0)
            std::filesystem::remove(path());
    }

    void expect_flushed(OutputFile& file, const Model& model) {
        file.flush();
        ASSERT_TRUE(same_bytes(read_file(path()), model.bytes)) << "after a flush";
    }

    // The file keeps its content and starts at its beginning again.
    void reopen(OutputFile& file, Model& model) {
        file.open(path(), std::ios_base::in | std::ios_base::out | std::ios_base::binary);
        model.position = 0;
    }

    TemporaryDirectory m_directory{};
    WriteFailure m_failure{};
    OutputFile m_file{&m_failure};
};

TEST_F(OutputFileModelTest, RegularFileEqualsItsModel) {
    for (uint32_t seed = 0; seed < 2500 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        run(m_file, seed);
    }
    EXPECT_EQ(m_failure.error, 0);
}

TEST_F(OutputFileModelTest, FileWithKeptZerosEqualsItsModelWithoutHoles) {
    m_file.file().keep_zero_bytes();
    for (uint32_t seed = 0; seed < 500 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        run(m_file, 10000 + seed);
    }
    EXPECT_EQ(m_failure.error, 0);
}

// Appending alone: what was not seeked over is there as bytes.
TEST_F(OutputFileModelTest, AppendedZeroBytesAreOnTheDiskWhenKept) {
    m_file.file().keep_zero_bytes();
    for (uint32_t seed = 0; seed < 100 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Pair pair(m_file, 20000 + seed);
        start_afresh(1);
        m_file.open(path());
        for (int i = 0; i < 10; ++i)
            pair.append();
        m_file.close();
        struct stat status {};
        ASSERT_EQ(::stat(path().c_str(), &status), 0);
        EXPECT_GE(static_cast<uint64_t>(status.st_blocks) * 512, pair.model().bytes.size());
        ASSERT_TRUE(same_bytes(read_file(path()), pair.model().bytes));
    }
}

// ---- files that take bytes in order only ----

// A named pipe whose other end is read to its end.
class Pipe {
public:
    explicit Pipe(const std::string& path) {
        std::filesystem::remove(path);
        if (::mkfifo(path.c_str(), 0600) != 0)
            throw std::runtime_error("mkfifo");
        m_reader = std::thread([this, path] { read_all(path); });
    }
    ~Pipe() {
        if (m_reader.joinable())
            m_reader.join();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    // What came through until the writer closed.
    const Bytes& bytes() {
        m_reader.join();
        return m_bytes;
    }

private:
    void read_all(const std::string& path) {
        const int descriptor = ::open(path.c_str(), O_RDONLY);
        Bytes buffer(65536);
        ssize_t got = 0;
        while ((got = ::read(descriptor, buffer.data(), buffer.size())) > 0)
            m_bytes.insert(m_bytes.end(), buffer.begin(), buffer.begin() + got);
        ::close(descriptor);
    }

    Bytes m_bytes{};
    std::thread m_reader{};
};

TEST_F(OutputFileModelTest, PipeGetsEveryByteInOrder) {
    for (uint32_t seed = 0; seed < 200 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Pipe pipe(path());
        m_file.open(path());
        Pair pair(m_file, 30000 + seed);
        for (int i = 0; i < 10; ++i) {
            pair.append();
            m_file.seekp(0, std::ios_base::end);  // it is there already
            pair.expect_same_place();
        }
        m_file.close();
        EXPECT_TRUE(m_file.good());
        ASSERT_TRUE(same_bytes(pipe.bytes(), pair.model().bytes));
    }
    EXPECT_EQ(m_failure.error, 0);
}

TEST_F(OutputFileModelTest, PipeCannotGoBack) {
    Pipe pipe(path());
    m_file.open(path());
    m_file.write("abcdef", 6);
    m_file.seekp(2);
    m_file.write("XY", 2);
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, ESPIPE);
    EXPECT_EQ(to_text(pipe.bytes()), "abcdef");
}

TEST_F(OutputFileModelTest, PipeCannotLeaveAGap) {
    Pipe pipe(path());
    m_file.open(path());
    m_file.write("abc", 3);
    m_file.seekp(10);
    m_file.write("X", 1);
    m_file.close();
    EXPECT_TRUE(m_file.fail());
    EXPECT_EQ(m_failure.error, ESPIPE);
    EXPECT_EQ(to_text(pipe.bytes()), "abc");
}

}  // namespace
