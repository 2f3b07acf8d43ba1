#include "conversion_run.h"

#include "../../src/common/messages.h"
#include "../../src/io/output_receiver.h"
#include "../../src/storage/console.h"
#include "comparison.h"

#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

std::string without_escapes(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033') {
            i = text.find_first_of("mAK", i);
            if (i == std::string::npos)
                break;
        } else if (text[i] != '\n') {
            plain += text[i];
        }
    }
    return plain;
}

/// Keeps those messages that can be the reason of a failure.
class Reason {
public:
    void take(const std::string& text) {
        m_last_message = text;
        const std::string line = without_escapes(text);
        if (line == "size of oob is not enough")
            m_refused = line;
        if (line.empty())
            return;
        m_before = m_last;
        m_last = line;
    }
    /// The last line, after the one before it unless that says what was being done.
    std::string text() const {
        const bool progress = m_before.empty() || m_before.find("...") != std::string::npos ||
                              m_before.starts_with("preparing ");
        return progress ? m_last : m_before + "; " + m_last;
    }
    /// The line with which pages were refused. The conversion goes on after it and ends in success.
    const std::string& refused() const { return m_refused; }
    const std::string& last_message() const { return m_last_message; }

private:
    std::string m_before;
    std::string m_last;
    std::string m_refused;
    std::string m_last_message;
};

/// Takes the messages as long as it lives, which may end by an exception.
class MessagesTo {
public:
    explicit MessagesTo(Reason& reason) {
        send_messages_to([&reason](const std::string& text) { reason.take(text); });
    }
    ~MessagesTo() { send_messages_to({}); }
    MessagesTo(const MessagesTo&) = delete;
    MessagesTo& operator=(const MessagesTo&) = delete;
};

/// Passes all on to a receiver that may throw for want of memory. The conversion then ends as after a failed
/// write, and its files, which hand over their last bytes while they are destroyed, are not listened to.
class Guarded : public OutputReceiver {
public:
    explicit Guarded(OutputReceiver& receiver) : m_receiver(receiver) {}

    int open(const std::string& path, OpenMode mode, uint64_t& size) override {
        return guard([&] { return m_receiver.open(path, mode, size); });
    }
    int bytes(uint64_t offset, const uint8_t* bytes, uint64_t count) override {
        return guard([&] { return m_receiver.bytes(offset, bytes, count); });
    }
    int zeros(uint64_t offset, uint64_t count) override {
        return guard([&] { return m_receiver.zeros(offset, count); });
    }
    uint64_t zeros_from() const override { return m_receiver.zeros_from(); }
    int end(uint64_t size) override {
        return guard([&] { return m_receiver.end(size); });
    }
    int close() override {
        return guard([&] { return m_receiver.close(); });
    }
    bool takes_parts() const override { return m_receiver.takes_parts(); }
    void begin_part(const OutputPart& part) override {
        guard([&] {
            m_receiver.begin_part(part);
            return 0;
        });
    }

private:
    template <typename Operation>
    int guard(Operation operation) {
        if (m_failed)
            return ENOMEM;
        try {
            return operation();
        } catch (const std::bad_alloc&) {
            m_failed = true;
            return ENOMEM;
        }
    }

    OutputReceiver& m_receiver;
    bool m_failed = false;
};

}  // namespace

ConversionRun run_conversion(const ConversionOptions& options, OutputReceiver& receiver) {
    Reason reason;
    std::srand(1);  // the conversion does not seed it, so that its GUIDs are those of a fresh process
    ConversionRun run;
    {
        const MessagesTo messages(reason);
        Guarded guarded(receiver);
        StorageSettings settings = options.settings;
        settings.out_dir.clear();
        const std::unique_ptr<CStorage> storage = options.type->make(settings);
        storage->send_output_to(guarded);
        run.done = storage->storage_init() && storage->create_image();
    }
    run.last_message = reason.last_message();
    if (run.done && !reason.refused().empty()) {
        run.done = false;
        run.reason = reason.refused();
    } else if (!run.done) {
        run.reason = reason.text();
    }
    return run;
}

bool failed_to_write(const ConversionRun& run, const std::string& file, int error) {
    // The reason is of no use here: it drops bytes of names that have line feeds or escape sequences.
    return !run.done && run.last_message == error_message("failed to write " + file + error_suffix(error));
}

ConversionRun compare_conversion(const ConversionOptions& options, Comparison& comparison) {
    ConversionRun run = run_conversion(options, comparison);
    // What was written before a file was given up is perhaps written again as well.
    const bool given_up = failed_to_write(run, comparison.given_up_file(), ENOSPC);
    if ((!run.done && !given_up) || !comparison.needs_second_pass())
        return run;
    comparison.start_second_pass();
    const ConversionRun second = run_conversion(options, comparison);
    return comparison.finish_second_pass() ? run : second;
}
