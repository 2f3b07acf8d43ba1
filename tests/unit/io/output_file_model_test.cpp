// Random operations on an output file, each sequence beside a model that is a string of bytes in memory.

#include "io/output_file.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace {

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
        const uint64_t lengths[] = {0, 65536 - 1 + below(3),
                                    (below(4) == 0 ? 1 << 20 : 262144) - 1 + below(3), below(300000)};
        const uint64_t kind = below(8);
        return kind < std::size(lengths) ? lengths[kind] : below(5000);
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

// A file and its model, to which the same is done.
class Pair {
public:
    Pair(OutputFile& file, uint32_t seed) : m_file(file), m_dice(seed) {}

    void write() {
        const Bytes data = m_dice.bytes(m_dice.length());
        m_file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        expect_written(data);
    }
    void put() {
        const uint8_t value = m_dice.value();
        m_file.put(static_cast<char>(value));
        expect_written({value});
    }
    void fill() {
        const uint8_t value = m_dice.value();
        const uint64_t size = m_dice.below(3) == 0 ? m_dice.length() : m_dice.below(2048);
        const uint64_t count = m_dice.below(size > 5000 ? 4 : 60);
        m_file.write_fill(value, count, size);
        expect_written(Bytes(static_cast<std::size_t>(count * size), value));
    }
    void flush() { m_file.flush(); }
    // Puts bytes where the file gathers them and writes a part of them from there.
    void write_in_place() {
        const std::span<uint8_t> room = m_file.buffer().room();
        ASSERT_FALSE(room.empty());
        const Bytes data = m_dice.bytes(std::min<uint64_t>(room.size(), m_dice.length()));
        std::copy(data.begin(), data.end(), room.begin());
        const uint64_t used = m_dice.below(3) == 0 ? m_dice.below(data.size() + 1) : data.size();
        m_file.write(reinterpret_cast<const char*>(room.data()), static_cast<std::streamsize>(used));
        expect_written(slice(data, 0, static_cast<std::size_t>(used)));
    }

    // One operation that a file of any kind takes.
    void append() {
        constexpr void (Pair::*operations[])() = {&Pair::put,   &Pair::fill,           &Pair::fill,
                                                  &Pair::flush, &Pair::write_in_place, &Pair::write,
                                                  &Pair::write};
        (this->*operations[m_dice.below(std::size(operations))])();
    }

    void seek() {
        const uint64_t target = m_dice.below(4) == 0 ? m_bytes.size() : m_dice.position();
        const std::pair<uint64_t, std::ios_base::seekdir> origins[] = {
            {0, std::ios_base::beg}, {m_position, std::ios_base::cur}, {m_bytes.size(), std::ios_base::end}};
        const auto& [base, origin] = origins[m_dice.below(std::size(origins))];
        m_file.seekp(static_cast<std::streamoff>(target - base), origin);
        m_position = target;
    }

    // The file keeps its content and starts at its beginning again.
    void reopen(const std::string& path) {
        m_file.open(path, std::ios_base::in | std::ios_base::out | std::ios_base::binary);
        m_position = 0;
    }

    // The position that the file claims.
    void expect_same_place() {
        ASSERT_TRUE(m_file.good());
        ASSERT_EQ(m_file.tellp(), static_cast<std::streamoff>(m_position));
    }

    Dice& dice() { return m_dice; }
    // The file as it should be.
    const Bytes& bytes() const { return m_bytes; }

private:
    void expect_written(const Bytes& data) {
        if (data.empty())
            return;
        m_bytes.resize(std::max<std::size_t>(m_bytes.size(), m_position + data.size()), 0);
        put_bytes_at(m_bytes, m_position, data);
        m_position += data.size();
    }

    OutputFile& m_file;
    Dice m_dice;
    Bytes m_bytes{};
    uint64_t m_position = 0;
};

class OutputFileModelTest : public ::testing::Test {
protected:
    std::string path() const { return (m_directory / "out.img").string(); }

    template <typename Run>
    void run_seeds(uint32_t first, uint32_t count, Run run_one) {
        for (uint32_t seed = first; seed < first + count && !HasFailure(); ++seed) {
            SCOPED_TRACE("seed " + std::to_string(seed));
            run_one(seed);
        }
        EXPECT_EQ(m_failure.error, 0);
    }

    // Operations anywhere in a regular file, now and then with a look at the file or a close in between.
    void run(uint32_t seed) {
        Pair pair(m_file, seed);
        start_afresh(seed);
        m_file.open(path());
        const uint64_t operations = 4 + pair.dice().below(12);
        for (uint64_t i = 0; i < operations; ++i) {
            const uint64_t kind = pair.dice().below(16);
            if (kind < 5)
                pair.seek();
            else if (kind == 5)
                expect_flushed(pair);
            else if (kind == 6)
                pair.reopen(path());
            else
                pair.append();
            pair.expect_same_place();
        }
        m_file.close();
        EXPECT_TRUE(m_file.good());
        ASSERT_TRUE(same_bytes(read_file(path()), pair.bytes()));
    }

    // Mostly without the file of the sequence before: some file systems write a file out when it is emptied
    // and closed again, which costs more than the whole test.
    void start_afresh(uint32_t seed) {
        if (seed % 16 != 0)
            std::filesystem::remove(path());
    }

    void expect_flushed(Pair& pair) {
        pair.flush();
        ASSERT_TRUE(same_bytes(read_file(path()), pair.bytes())) << "after a flush";
    }

    TemporaryDirectory m_directory{};
    WriteFailure m_failure{};
    OutputFile m_file{&m_failure};
};

TEST_F(OutputFileModelTest, RegularFileEqualsItsModel) {
    run_seeds(0, 2500, [this](uint32_t seed) { run(seed); });
}

TEST_F(OutputFileModelTest, FileWithKeptZerosEqualsItsModelWithoutHoles) {
    m_file.file().keep_zero_bytes();
    run_seeds(10000, 500, [this](uint32_t seed) { run(seed); });
}

// Appending alone: what was not seeked over is there as bytes.
TEST_F(OutputFileModelTest, AppendedZeroBytesAreOnTheDiskWhenKept) {
    m_file.file().keep_zero_bytes();
    run_seeds(20000, 100, [this](uint32_t seed) {
        Pair pair(m_file, seed);
        start_afresh(1);
        m_file.open(path());
        for (int i = 0; i < 10; ++i)
            pair.append();
        m_file.close();
        struct stat status {};
        ASSERT_EQ(::stat(path().c_str(), &status), 0);
        EXPECT_GE(static_cast<uint64_t>(status.st_blocks) * 512, pair.bytes().size());
        ASSERT_TRUE(same_bytes(read_file(path()), pair.bytes()));
    });
}

TEST_F(OutputFileModelTest, PipeGetsEveryByteInOrder) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    run_seeds(30000, 200, [this](uint32_t seed) {
        std::future<Bytes> read = std::async(std::launch::async, [pipe = path()] {
            std::ifstream in(pipe, std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            return to_bytes(text.str());
        });
        m_file.open(path());
        Pair pair(m_file, seed);
        for (int i = 0; i < 10; ++i) {
            pair.append();
            m_file.seekp(0, std::ios_base::end);  // it is there already
            pair.expect_same_place();
        }
        m_file.close();
        EXPECT_TRUE(m_file.good());
        ASSERT_TRUE(same_bytes(read.get(), pair.bytes()));
    });
}

}  // namespace
