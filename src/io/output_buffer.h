#pragma once

#include "byte_buffer.h"
#include "output_receiver.h"

#include <cstdint>
#include <functional>
#include <ios>
#include <span>
#include <streambuf>
#include <string>
#include <utility>

/// The first failure of any output file of a run.
struct WriteFailure {
    std::string path;
    int error = 0;  ///< errno of what failed; 0: nothing has failed

    /// Takes path and error unless there was a failure before.
    void note(const std::string& failed_path, int failed_error);
};

/// Gathers the bytes of an output into blocks and hands each block to a receiver at once. Keeps the first
/// error, and knows position and size itself. Long runs of zeros are handed over as zeros where the receiver
/// takes them. Such a run has 64 KB and starts at a multiple of that, or it ends its block.
class OutputBuffer : public std::streambuf {
public:
    /// Bytes of a block. The kernel puts larger writes into larger pages of its cache. A block of twice this
    /// size and the pages that are copied into it do not stay in the second-level cache of the processor.
    static constexpr uint64_t kBlockSize = 512 * 1024;

    /// The shortest run of zeros inside a block that is handed over as zeros. With shorter ones a file in
    /// which pages of zeros and of data alternate would take many system calls.
    static constexpr uint64_t kHoleSize = 64 * 1024;

    /// receiver outlives the buffer. So does failure, which takes the first error when it is given.
    explicit OutputBuffer(OutputReceiver& receiver, WriteFailure* failure = nullptr)
        : m_receiver(&receiver), m_failure(failure) {}
    ~OutputBuffer() override { close(); }
    OutputBuffer(const OutputBuffer&) = delete;
    OutputBuffer& operator=(const OutputBuffer&) = delete;

    /// Closes the output that is open and starts the one named path. False, with errno set, when the receiver
    /// refuses it or there is no memory for a block.
    bool open(const std::string& path, OutputReceiver::OpenMode mode);
    /// True from a successful open to the next close.
    bool is_open() const { return m_open; }
    /// Flushes and closes. False when anything has failed for this output, or none was open.
    bool close();

    /// Hands the bytes of the outputs that are opened from now on to another receiver, which outlives the
    /// buffer. Closes the output that is open.
    void send_to(OutputReceiver& receiver);
    /// Tells a receiver that takes parts what the bytes from the position on are for.
    void begin_part(const OutputPart& part);

    /// Where the next byte goes, in bytes from the start of the output.
    uint64_t position() const { return m_block_offset + m_block_used; }
    /// Length in bytes, with the bytes that are not handed over yet.
    uint64_t size() const { return m_size; }
    /// True when something failed for the output opened last.
    bool has_failed() const { return m_error != 0; }
    /// Gives the output up, as if handing bytes over had failed with this error.
    void fail(int error);

    /// The free part of the block: where the next bytes are gathered. Bytes that are put there and then
    /// written from there are not copied again. Empty when nothing is open or the output has failed.
    std::span<uint8_t> room();
    /// complete is called before gathered bytes are handed over, in every flush and close, and when a block
    /// is full. It may still change bytes that were put into the room and written from there. It replaces
    /// the one set before; SLC NAND depends on its own.
    void before_leaving(std::function<void()> complete) { m_complete = std::move(complete); }
    /// Writes count bytes of value at the position. False when that failed.
    bool append_fill(uint8_t value, uint64_t count);
    /// Hands all bytes over. False when anything has failed so far.
    bool flush();

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir origin, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;
    int sync() override;

private:
    bool takes(uint64_t count);
    uint64_t block_capacity() const;
    bool append(const uint8_t* bytes, uint64_t count);
    bool move_to(uint64_t position);
    void complete_block();
    bool flush_block();
    bool hand_over(uint64_t offset, const uint8_t* bytes, uint64_t count);
    bool succeeds(int error);

    OutputReceiver* m_receiver;
    WriteFailure* m_failure;
    std::function<void()> m_complete;
    std::string m_path;
    bool m_open = false;
    int m_error = 0;
    ByteBuffer m_block;  // starts with the bytes at m_block_offset that are not handed over yet
    uint64_t m_block_offset = 0;
    uint64_t m_block_used = 0;
    uint64_t m_size = 0;
};
