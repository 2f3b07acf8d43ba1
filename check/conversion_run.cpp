#include "conversion_run.h"

#include "../src/common/messages.h"
#include "../src/io/output_receiver.h"

#include <cstdlib>

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

private:
    std::string m_before;
    std::string m_last;
    std::string m_refused;
};

}  // namespace

ConversionRun run_conversion(const ConversionOptions& options, OutputReceiver& receiver) {
    Reason reason;
    send_messages_to([&reason](const std::string& text) { reason.take(text); });
    std::srand(1);  // the conversion does not seed it, so that its GUIDs are those of a fresh process
    ConversionRun run;
    {
        StorageSettings settings = options.settings;
        settings.out_dir.clear();
        const std::unique_ptr<CStorage> storage = options.type->make(settings);
        storage->send_output_to(receiver);
        run.done = storage->storage_init() && storage->create_image();
    }
    send_messages_to({});
    if (run.done && !reason.refused().empty()) {
        run.done = false;
        run.reason = reason.refused();
    } else if (!run.done) {
        run.reason = reason.text();
    }
    return run;
}
