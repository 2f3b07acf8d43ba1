#include "messages.h"

#include <cstdio>
#include <utility>

namespace {

MessageSink& current_sink() {
    static MessageSink sink;
    return sink;
}

}  // namespace

void put_message(const std::string& text) {
    if (const MessageSink& sink = current_sink()) {
        sink(text);
        return;
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void send_messages_to(MessageSink sink) {
    current_sink() = std::move(sink);
}
