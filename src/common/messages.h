#pragma once

#include <functional>
#include <string>

/// Takes the text of messages: whole lines, and what redraws a line.
using MessageSink = std::function<void(const std::string& text)>;

/// Writes text to standard output at once, or passes it to the sink.
void put_message(const std::string& text);

/// Passes all messages to this sink from now on. Without one they go to standard output.
void send_messages_to(MessageSink sink);
