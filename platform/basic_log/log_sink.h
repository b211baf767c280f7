#pragma once

#include <cstddef>

namespace mwl::Log {

/// Where messages go; decided once, by the first message or threshold read.
enum class Sink : unsigned char { Stream, Terminal, Journal, Syslog };

/// Decides the sink from TERN_LOG_TARGET, JOURNAL_STREAM and what standard error is.
Sink ChooseSink() noexcept;

/// Bytes to keep free in front of a message and behind it, so that it can be framed in place.
constexpr std::size_t FRAME_ROOM = 64;
/// Room for a message that needs no memory.
constexpr std::size_t STACK_MESSAGE = 4096;

/// Writes one message of `length` bytes. `text` has FRAME_ROOM writable bytes in front of it and behind it.
/// Takes no lock, and no memory unless escapes make more than STACK_MESSAGE of the text. A message that the
/// sink does not take in the time that Patience gives, or refuses, is counted; once the sink takes messages
/// again, a line reports how many, before the next message.
void WriteMessage(Sink sink, int level, char* text, std::size_t length) noexcept;

}  // namespace mwl::Log
