#include "io/block_reader.h"

#include "io/file_offset.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <unistd.h>

namespace {

using test_support::Bytes;
using test_support::patterned;
using test_support::slice;

class OpenFile {
public:
    explicit OpenFile(const std::filesystem::path& path) : m_descriptor(::open(path.c_str(), O_RDONLY)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { close(); }

    int descriptor() const { return m_descriptor; }
    void close() {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor;
};

class BlockReaderTest : public ::testing::Test {
protected:
    BlockReaderTest() : m_content(patterned(1000003, 1)) {
        test_support::write_file(m_directory / "file", m_content);
        m_file = std::make_unique<OpenFile>(m_directory / "file");
        m_reader.attach(m_file->descriptor());
    }

    // The bytes that a read of `size` at `offset` gives; the ones after them stay as they are.
    Bytes read(uint64_t offset, std::size_t size) {
        Bytes out(size, 0xEE);
        const std::optional<uint64_t> count = m_reader.read(offset, size, out.data());
        EXPECT_TRUE(count) << offset;
        const uint64_t got = count.value_or(0);
        EXPECT_LE(got, size);
        for (std::size_t i = got; i < size && size < 262144; ++i)  // a large read goes straight to the caller
            EXPECT_EQ(out[i], 0xEE);
        out.resize(got);
        return out;
    }

    Bytes expected(uint64_t offset, std::size_t size) const {
        if (offset >= m_content.size())
            return {};
        return slice(m_content, offset, std::min<std::size_t>(size, m_content.size() - offset));
    }

    test_support::TemporaryDirectory m_directory;
    Bytes m_content;
    std::unique_ptr<OpenFile> m_file;
    BlockReader m_reader;
};

TEST_F(BlockReaderTest, ReadsPiecesOfAnySizeFromAnywhere) {
    for (const std::size_t size : {1U, 2U, 511U, 2048U, 4097U, 65536U, 262143U, 262144U, 262145U, 700000U})
        for (const uint64_t offset : {0U, 1U, 4095U, 4096U, 4097U, 262143U, 262144U, 300001U, 524287U})
            ASSERT_EQ(read(offset, size), expected(offset, size)) << size << " bytes at " << offset;
}

TEST_F(BlockReaderTest, ReadsAFilePageByPage) {
    for (const std::size_t page : {1000U, 2048U, 4096U, 100000U}) {
        Bytes all;
        for (uint64_t offset = 0; offset < m_content.size(); offset += page)
            test_support::put_bytes(all, read(offset, page));
        ASSERT_TRUE(all == m_content) << page;
    }
}

TEST_F(BlockReaderTest, ReadsBackwards) {
    for (uint64_t offset = m_content.size(); offset >= 50000; offset -= 50000)
        ASSERT_EQ(read(offset - 100, 300), expected(offset - 100, 300)) << offset;
}

TEST_F(BlockReaderTest, GivesFewerBytesOnlyAtTheEndOfTheFile) {
    const uint64_t end = m_content.size();
    EXPECT_EQ(read(end - 1, 1), expected(end - 1, 1));
    EXPECT_EQ(read(end - 1, 2).size(), 1U);
    EXPECT_EQ(read(end - 1, 400000).size(), 1U);
    EXPECT_EQ(read(end, 1).size(), 0U);
    EXPECT_EQ(read(end, 400000).size(), 0U);
    EXPECT_EQ(read(end + 1, 10).size(), 0U);
    EXPECT_EQ(read(end + 100000000, 10).size(), 0U);
}

TEST_F(BlockReaderTest, ReadsNothingWhenAskedForNothing) {
    EXPECT_EQ(m_reader.read(0, 0, nullptr), 0U);
    EXPECT_EQ(m_reader.read(m_content.size() + 5, 0, nullptr), 0U);
}

TEST_F(BlockReaderTest, FindsNoByteAtOffsetsThatNoFileHas) {
    for (const uint64_t offset :
         {uint64_t{1} << 40, kLargestOffset - 300000, kLargestOffset - 4096, kLargestOffset - 1,
          kLargestOffset, kLargestOffset + 1, std::numeric_limits<uint64_t>::max() - 1,
          std::numeric_limits<uint64_t>::max()})
        for (const std::size_t size : {1U, 32U, 300000U})
            EXPECT_EQ(read(offset, size).size(), 0U) << size << " bytes at " << offset;
}

TEST_F(BlockReaderTest, TakesFollowingPiecesOutOfItsBlock) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    m_file->close();  // no system call can succeed any more
    EXPECT_EQ(read(100, 100), expected(100, 100));
    EXPECT_EQ(read(100000, 2048), expected(100000, 2048));
    EXPECT_EQ(read(0, 100), expected(0, 100));
}

TEST_F(BlockReaderTest, ForgetsItsBlockWhenItIsAttachedAnew) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    const Bytes other = patterned(5000, 2);
    test_support::write_file(m_directory / "other", other);
    const OpenFile other_file(m_directory / "other");
    m_reader.attach(other_file.descriptor());
    EXPECT_EQ(read(0, 5001), other);
}

TEST_F(BlockReaderTest, ReadsBytesBeyond4GiB) {
    const uint64_t far = (uint64_t{1} << 32) + 12345;
    std::filesystem::resize_file(m_directory / "file", far);
    Bytes tail = patterned(100, 3);
    {
        std::ofstream out(m_directory / "file", std::ios::binary | std::ios::app);
        out.write(reinterpret_cast<const char*>(tail.data()), 100);
    }
    EXPECT_EQ(read(far, 200), tail);
    tail.insert(tail.begin(), 50, uint8_t{0});
    EXPECT_EQ(read(far - 50, 200), tail);
    EXPECT_EQ(read(12345, 200), expected(12345, 200));
}

// ---- failures ----

TEST_F(BlockReaderTest, FailsWithTheErrorOfTheSystem) {
    m_reader.attach(-1);
    Bytes out(400000);
    for (const uint64_t size : {uint64_t{1}, uint64_t{400000}}) {
        errno = 0;
        EXPECT_EQ(m_reader.read(0, size, out.data()), std::nullopt);
        EXPECT_EQ(errno, EBADF);
    }
}

TEST_F(BlockReaderTest, FailsWhereADirectoryIsRead) {
    const OpenFile opened(m_directory.path());
    m_reader.attach(opened.descriptor());
    uint8_t byte = 0;
    errno = 0;
    EXPECT_EQ(m_reader.read(0, 1, &byte), std::nullopt);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(BlockReaderTest, KeepsNoBlockOfAReadThatFailed) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    m_file->close();
    Bytes out(100);
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);  // not in the block
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);  // nor after a failed read
    EXPECT_EQ(m_reader.read(0, 100, out.data()), std::nullopt);       // was, but is not any more
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);
}

TEST_F(BlockReaderTest, FailsWhereOnlyTheFirstPartIsInItsBlock) {
    ASSERT_EQ(read(0, 1), expected(0, 1));
    m_file->close();
    Bytes out(1000);
    EXPECT_EQ(m_reader.read(262144 - 500, 1000, out.data()), std::nullopt);
}

TEST(BlockReader, WithoutAFileFails) {
    BlockReader reader;
    uint8_t byte = 0;
    EXPECT_EQ(reader.read(0, 1, &byte), std::nullopt);
}

}  // namespace
