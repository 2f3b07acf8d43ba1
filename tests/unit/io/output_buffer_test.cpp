// What the gathered bytes ask of their receiver, in order, and what its errors come to.

#include "io/output_buffer.h"

#include "io/file_offset.h"
#include "support/same_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace test_support;

using Log = std::vector<std::string>;

constexpr uint64_t kBlock = OutputBuffer::kBlockSize;
constexpr uint64_t kHole = OutputBuffer::kHoleSize;

// Keeps what it takes in memory and every call by its name; a name with an error fails.
class MemoryReceiver : public OutputReceiver {
public:
    int open(const std::string& path, OpenMode mode, uint64_t& size) override {
        size = mode.truncate ? 0 : kept_size;
        return called("open",
                      path + (mode.readable ? " readable" : "") + (mode.truncate ? " truncated" : ""));
    }
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override {
        if (count == 0)
            return 0;
        contents.resize(std::max<std::size_t>(contents.size(), offset + count), 0);
        std::copy_n(bytes, count, contents.begin() + static_cast<std::ptrdiff_t>(offset));
        return called("bytes", std::to_string(offset) + "+" + std::to_string(count));
    }
    int zeros(uint64_t offset, uint64_t count) override {
        EXPECT_GE(offset, zeros_allowed_from);
        return called("zeros", std::to_string(offset) + "+" + std::to_string(count));
    }
    uint64_t zeros_from() const override { return zeros_allowed_from; }
    int end(uint64_t size) override { return called("end", std::to_string(size)); }
    int close() override { return called("close", ""); }

    int called(const std::string& name, const std::string& how) {
        log.push_back(name + (how.empty() ? "" : " ") + how);
        return errors[name];
    }
    Log log_since() {
        Log calls;
        calls.swap(log);
        return calls;
    }

    std::map<std::string, int> errors{};
    uint64_t kept_size = 0;
    uint64_t zeros_allowed_from = 0;
    Bytes contents{};
    Log log{};
};

class OutputBufferTest : public ::testing::Test {
protected:
    void open() {
        ASSERT_TRUE(m_buffer.open("out.img", {}));
        m_receiver.log.clear();
    }

    bool put(const Bytes& bytes) {
        const auto size = static_cast<std::streamsize>(bytes.size());
        return m_buffer.sputn(reinterpret_cast<const char*>(bytes.data()), size) == size;
    }
    bool put(std::string_view text) { return put(to_bytes(text)); }

    bool seek(uint64_t position) {
        const auto offset = static_cast<std::streamoff>(position);
        return m_buffer.pubseekoff(offset, std::ios_base::beg) == std::streampos(offset);
    }

    MemoryReceiver m_receiver{};
    WriteFailure m_failure{};
    OutputBuffer m_buffer{m_receiver, &m_failure};
};

TEST_F(OutputBufferTest, BytesAreHandedOverByFlushAndClose) {
    EXPECT_TRUE(m_buffer.open("out.img", {}));
    EXPECT_TRUE(put("abcde"));
    EXPECT_EQ(m_receiver.log_since(), Log{"open out.img truncated"});
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+5", "end 5"}));
    EXPECT_TRUE(put("fg"));
    EXPECT_TRUE(m_buffer.close());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 5+2", "end 7", "close"}));
    EXPECT_EQ(m_receiver.contents, to_bytes("abcdefg"));
    EXPECT_FALSE(m_buffer.close());
    EXPECT_FALSE(m_buffer.flush());
    EXPECT_FALSE(put("h"));
    EXPECT_EQ(m_receiver.log_since(), Log());
    EXPECT_EQ(m_failure.error, 0);
}

TEST_F(OutputBufferTest, OpenModeIsPassedOn) {
    EXPECT_TRUE(m_buffer.open("a", {.readable = true, .truncate = true}));
    EXPECT_TRUE(put("one"));
    m_receiver.kept_size = 1000;
    EXPECT_TRUE(m_buffer.open("b", {.readable = false, .truncate = false})) << "closes the one before";
    EXPECT_EQ(m_receiver.log_since(),
              (Log{"open a readable truncated", "bytes 0+3", "end 3", "close", "open b"}));
    EXPECT_EQ(m_buffer.position(), 0U);
    EXPECT_EQ(m_buffer.size(), 1000U);
    EXPECT_TRUE(put("abc"));
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+3", "end 1000"}));
}

TEST_F(OutputBufferTest, BlocksEndAtMultiplesOfTheirSize) {
    open();
    const Bytes data = patterned(kBlock + 100, 1);
    EXPECT_TRUE(seek(50));
    for (std::size_t at = 0; at < data.size(); at += 1024)
        EXPECT_TRUE(put(slice(data, at, std::min<std::size_t>(1024, data.size() - at))));
    EXPECT_EQ(m_receiver.log_since(), Log{"bytes 50+524238"});
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 524288+150", "end 524438"}));
    EXPECT_TRUE(same_bytes(m_receiver.contents, Bytes(50, 0) + data));
}

TEST_F(OutputBufferTest, RoomTakesBytesThatAreWrittenFromThere) {
    const auto write_from_room = [this](std::size_t count) {
        return m_buffer.sputn(reinterpret_cast<const char*>(m_buffer.room().data()),
                              static_cast<std::streamsize>(count));
    };
    EXPECT_TRUE(m_buffer.room().empty()) << "nothing is open";
    open();
    EXPECT_TRUE(put("abc"));
    ASSERT_EQ(m_buffer.room().size(), kBlock - 3);
    const Bytes data = patterned(kBlock - 3, 5);
    std::copy(data.begin(), data.end(), m_buffer.room().begin());
    EXPECT_EQ(m_buffer.position(), 3U) << "nothing is written yet";
    EXPECT_EQ(write_from_room(1000), 1000);
    EXPECT_EQ(write_from_room(kBlock - 1003), std::streamsize{kBlock - 1003});
    ASSERT_EQ(m_buffer.room().size(), kBlock) << "a fresh block";
    std::fill_n(m_buffer.room().begin(), 100, uint8_t{0xEE});  // not written
    EXPECT_TRUE(put("def"));
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_TRUE(same_bytes(m_receiver.contents, to_bytes("abc") + data + to_bytes("def")));
}

TEST_F(OutputBufferTest, SeekHandsOverWhatWasGathered) {
    open();
    EXPECT_TRUE(put("abcdef"));
    EXPECT_TRUE(seek(6)) << "it is there already";
    EXPECT_EQ(m_receiver.log_since(), Log());
    EXPECT_TRUE(seek(2));
    EXPECT_TRUE(put("XY"));
    EXPECT_EQ(m_buffer.position(), 4U);
    EXPECT_EQ(m_buffer.size(), 6U);
    EXPECT_TRUE(m_buffer.close());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+6", "bytes 2+2", "end 6", "close"}));
    EXPECT_EQ(m_receiver.contents, to_bytes("abXYef"));
}

// ---- zeros ----

TEST_F(OutputBufferTest, LongZerosInABlockAreNotBytes) {
    open();
    // From 100 on: data, 64 KB of zeros at a multiple of them, data, zeros up to the end of the gathered.
    EXPECT_TRUE(seek(100));
    EXPECT_TRUE(put(Bytes(kHole - 100, 1) + Bytes(kHole, 0) + Bytes(3, 2) + Bytes(kHole - 3, 0) +
                    Bytes(kHole - 1, 0) + Bytes(1, 3) + Bytes(kHole + 7, 0)));
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 100+65436", "zeros 65536+65536", "bytes 131072+131072",
                                           "zeros 262144+65536", "zeros 327680+7", "end 327687"}));
}

TEST_F(OutputBufferTest, ZerosBeforeTheReceiversPlaceAreBytes) {
    open();
    m_receiver.zeros_allowed_from = kHole + 1;
    EXPECT_TRUE(put(Bytes(3 * kHole, 0)));
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+131072", "zeros 131072+65536", "end 196608"}));
    m_receiver.zeros_allowed_from = OutputReceiver::kNoZeros;
    EXPECT_TRUE(put(Bytes(2 * kHole, 0)));
    EXPECT_TRUE(m_buffer.append_fill(0, 2 * kHole));
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 196608+262144", "end 458752"}));
}

TEST_F(OutputBufferTest, LongFillOfZerosIsOneCall) {
    open();
    EXPECT_TRUE(put("abc"));
    EXPECT_TRUE(m_buffer.append_fill(0, uint64_t{1} << 40));
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+3", "zeros 3+1099511627776"}));
    EXPECT_EQ(m_buffer.position(), (uint64_t{1} << 40) + 3);
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), Log{"end 1099511627779"});
}

TEST_F(OutputBufferTest, ShortOrOtherFillIsGathered) {
    open();
    EXPECT_TRUE(m_buffer.append_fill(0, kHole - 1));
    EXPECT_TRUE(m_buffer.append_fill(0xA5, kHole));
    EXPECT_EQ(m_receiver.log_since(), Log());
    EXPECT_TRUE(m_buffer.flush());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+131071", "end 131071"}));
    EXPECT_TRUE(same_bytes(m_receiver.contents, Bytes(kHole - 1, 0) + Bytes(kHole, 0xA5)));
}

// ---- before the bytes leave ----

TEST_F(OutputBufferTest, BytesMayBeCompletedBeforeTheyLeave) {
    const struct {
        const char* name;
        bool (*leave)(OutputBuffer&);
    } ways[] = {
        {"flush", [](OutputBuffer& buffer) { return buffer.flush(); }},
        {"close", [](OutputBuffer& buffer) { return buffer.close(); }},
        {"seek", [](OutputBuffer& buffer) { return buffer.pubseekpos(0) == std::streampos(0); }},
        {"hole", [](OutputBuffer& buffer) { return buffer.append_fill(0, kHole); }},
        {"full block", [](OutputBuffer& buffer) { return buffer.append_fill(1, kBlock); }},
    };
    for (const auto& way : ways) {
        open();
        m_receiver.contents.clear();
        const std::span<uint8_t> room = m_buffer.room();
        m_buffer.before_leaving([&] { room[1] = '!'; });
        std::copy_n("abc", 3, room.begin());
        m_buffer.sputn(reinterpret_cast<const char*>(room.data()), 3);
        EXPECT_TRUE(way.leave(m_buffer)) << way.name;
        m_buffer.before_leaving({});
        EXPECT_EQ(slice(m_receiver.contents, 0, 3), to_bytes("a!c")) << way.name;
    }
}

TEST_F(OutputBufferTest, FailedOutputIsCompletedToo) {
    open();
    int completed = 0;
    m_buffer.before_leaving([&] { ++completed; });
    EXPECT_TRUE(put("abc"));
    m_buffer.fail(EIO);
    EXPECT_FALSE(m_buffer.close());
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(m_receiver.log_since(), Log{"close"});
}

// ---- errors ----

TEST_F(OutputBufferTest, RefusedOpenLeavesNothingOpen) {
    m_receiver.errors["open"] = ENOENT;
    errno = 0;
    EXPECT_FALSE(m_buffer.open("out.img", {}));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(m_buffer.is_open());
    EXPECT_FALSE(m_buffer.has_failed());
    EXPECT_TRUE(m_buffer.room().empty());
    EXPECT_FALSE(put("a"));
    EXPECT_FALSE(m_buffer.close());
    EXPECT_EQ(m_receiver.log, Log{"open out.img truncated"});
    EXPECT_EQ(m_failure.error, 0);
}

TEST_F(OutputBufferTest, FailureEndsAllButTheClose) {
    const struct {
        const char* name;
        Log asked;
    } cases[] = {{"bytes", {"bytes 0+5"}},
                 {"zeros", {"bytes 0+5", "zeros 5+65536"}},
                 {"end", {"bytes 0+5", "zeros 5+65536", "end 65541"}}};
    for (const auto& wanted : cases) {
        SCOPED_TRACE(wanted.name);
        m_failure = {};
        open();
        m_receiver.errors = {{wanted.name, ENOSPC}};
        EXPECT_TRUE(put("abcde"));
        const bool filled = m_buffer.append_fill(0, kHole);
        EXPECT_FALSE(filled && m_buffer.flush());
        EXPECT_EQ(m_receiver.log_since(), wanted.asked);
        EXPECT_TRUE(m_buffer.has_failed());
        EXPECT_EQ(m_failure.path, "out.img");
        EXPECT_EQ(m_failure.error, ENOSPC);

        m_receiver.errors.clear();  // it stays failed
        EXPECT_FALSE(put("fgh"));
        EXPECT_FALSE(m_buffer.append_fill(0, kHole));
        EXPECT_FALSE(seek(0));
        EXPECT_FALSE(m_buffer.flush());
        EXPECT_TRUE(m_buffer.room().empty());
        EXPECT_FALSE(m_buffer.close());
        EXPECT_EQ(m_receiver.log_since(), Log{"close"});
    }
}

TEST_F(OutputBufferTest, FailedCloseIsKept) {
    open();
    m_receiver.errors["close"] = EIO;
    EXPECT_TRUE(put("abc"));
    EXPECT_FALSE(m_buffer.close());
    EXPECT_FALSE(m_buffer.is_open());
    EXPECT_EQ(m_receiver.log_since(), (Log{"bytes 0+3", "end 3", "close"}));
    EXPECT_EQ(m_failure.path, "out.img");
    EXPECT_EQ(m_failure.error, EIO);
}

TEST_F(OutputBufferTest, FirstOfTwoErrorsIsKept) {
    open();
    m_receiver.errors = {{"bytes", ENOSPC}, {"close", EIO}};
    EXPECT_TRUE(put("abc"));
    EXPECT_FALSE(m_buffer.close());
    EXPECT_EQ(m_failure.error, ENOSPC);
    m_receiver.errors.clear();
    open();
    EXPECT_FALSE(m_buffer.has_failed());
    EXPECT_TRUE(m_buffer.close());
}

TEST_F(OutputBufferTest, BytesBeyondTheLargestOffsetFail) {
    open();
    EXPECT_TRUE(seek(kLargestOffset - 2));
    EXPECT_TRUE(put("ab"));
    EXPECT_FALSE(put("c"));
    EXPECT_EQ(m_failure.error, EFBIG);
    EXPECT_EQ(m_receiver.log_since(), Log());
    m_failure = {};
    open();
    EXPECT_TRUE(put("abc"));
    EXPECT_FALSE(m_buffer.append_fill(0, kLargestOffset - 2));
    EXPECT_EQ(m_failure.error, EFBIG);
    EXPECT_EQ(m_receiver.log_since(), Log());
}

}  // namespace
