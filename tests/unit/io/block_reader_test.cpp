#include "io/block_reader.h"

#include "io/file_offset.h"
#include "support/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>

namespace {

using namespace test_support;

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File opened(const std::filesystem::path& path) {
    return {std::fopen(path.c_str(), "rb"), std::fclose};
}

class BlockReaderTest : public ::testing::Test {
protected:
    BlockReaderTest() : m_content(patterned(1000003, 1)) {
        test_support::write_file(m_directory / "file", m_content);
        m_file = opened(m_directory / "file");
        m_reader.attach(::fileno(m_file.get()));
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
    File m_file{nullptr, std::fclose};
    BlockReader m_reader;
};

TEST_F(BlockReaderTest, ReadsPiecesOfAnySizeFromAnywhere) {
    for (const std::size_t size : {1U, 2U, 511U, 2048U, 4097U, 65536U, 262143U, 262144U, 262145U, 700000U})
        for (const uint64_t offset : {0U, 1U, 4095U, 4096U, 4097U, 262143U, 262144U, 300001U, 524287U})
            ASSERT_EQ(read(offset, size), expected(offset, size)) << size << " bytes at " << offset;
}

TEST_F(BlockReaderTest, ReadsAFilePageByPageAndBackwards) {
    for (const std::size_t page : {1000U, 2048U, 4096U, 100000U}) {
        Bytes all;
        for (uint64_t offset = 0; offset < m_content.size(); offset += page)
            test_support::put_bytes(all, read(offset, page));
        ASSERT_TRUE(all == m_content) << page;
    }
    for (uint64_t offset = m_content.size(); offset >= 50000; offset -= 50000)
        ASSERT_EQ(read(offset - 100, 300), expected(offset - 100, 300)) << offset;
}

TEST_F(BlockReaderTest, GivesFewerBytesOnlyAtTheEndOfTheFile) {
    const uint64_t end = m_content.size();
    EXPECT_EQ(read(end - 1, 1), expected(end - 1, 1));
    for (const std::size_t size : {2U, 400000U})
        EXPECT_EQ(read(end - 1, size), expected(end - 1, 1));
    for (const uint64_t offset :
         {end, end + 1, end + 100000000, uint64_t{1} << 40, kLargestOffset - 300000, kLargestOffset - 4096,
          kLargestOffset - 1, kLargestOffset, kLargestOffset + 1, UINT64_MAX - 1, UINT64_MAX})
        for (const std::size_t size : {1U, 32U, 400000U})
            EXPECT_EQ(read(offset, size).size(), 0U) << size << " bytes at " << offset;
    for (const uint64_t offset : {uint64_t{0}, end + 5})
        EXPECT_EQ(m_reader.read(offset, 0, nullptr), 0U) << "asked for nothing";
}

TEST_F(BlockReaderTest, TakesFollowingPiecesOutOfItsBlock) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    m_file.reset();  // no system call can succeed any more
    EXPECT_EQ(read(100, 100), expected(100, 100));
    EXPECT_EQ(read(100000, 2048), expected(100000, 2048));
    EXPECT_EQ(read(0, 100), expected(0, 100));
}

TEST_F(BlockReaderTest, ForgetsItsBlockWhenItIsAttachedAnew) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    const Bytes other = patterned(5000, 2);
    test_support::write_file(m_directory / "other", other);
    const File other_file = opened(m_directory / "other");
    m_reader.attach(::fileno(other_file.get()));
    EXPECT_EQ(read(0, 5001), other);
}

TEST_F(BlockReaderTest, ReadsBytesBeyond4GiB) {
    const uint64_t far = (uint64_t{1} << 32) + 12345;
    std::filesystem::resize_file(m_directory / "file", far);
    const Bytes tail = patterned(100, 3);
    std::ofstream(m_directory / "file", std::ios::binary | std::ios::app) << test_support::to_text(tail);
    EXPECT_EQ(read(far, 200), tail);
    EXPECT_EQ(read(far - 50, 200), Bytes(50, 0) + tail);
    EXPECT_EQ(read(12345, 200), expected(12345, 200));
}

// ---- failures ----

TEST_F(BlockReaderTest, FailsWithTheErrorOfTheSystem) {
    const File directory = opened(m_directory.path());
    Bytes out(400000);
    for (const auto& [descriptor, error] : {std::pair{-1, EBADF}, {::fileno(directory.get()), EISDIR}}) {
        m_reader.attach(descriptor);
        for (const uint64_t size : {1U, 400000U}) {
            errno = 0;
            EXPECT_EQ(m_reader.read(0, size, out.data()), std::nullopt);
            EXPECT_EQ(errno, error);
        }
    }
    EXPECT_EQ(BlockReader().read(0, 1, out.data()), std::nullopt) << "without a file";
}

TEST_F(BlockReaderTest, KeepsNoBlockOfAReadThatFailed) {
    ASSERT_EQ(read(0, 100), expected(0, 100));
    m_file.reset();
    Bytes out(100);
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);  // not in the block
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);  // nor after a failed read
    EXPECT_EQ(m_reader.read(0, 100, out.data()), std::nullopt);       // was, but is not any more
    EXPECT_EQ(m_reader.read(600000, 100, out.data()), std::nullopt);
}

TEST_F(BlockReaderTest, FailsWhereOnlyTheFirstPartIsInItsBlock) {
    ASSERT_EQ(read(0, 1), expected(0, 1));
    m_file.reset();
    Bytes out(1000);
    EXPECT_EQ(m_reader.read(262144 - 500, 1000, out.data()), std::nullopt);
}

}  // namespace
