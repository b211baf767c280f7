#pragma once

#include <cstddef>

namespace mwl::Log {

// A text as it goes where lines and terminals are: what a peer sent must neither begin a line of its own nor
// reach the terminal as a command. Control bytes become \n, \t or \xHH (two capital digits): those of ASCII,
// DEL, the second range of them in UTF-8 (U+0080 to U+009F), and every byte that is no valid UTF-8. All other
// UTF-8 stays as it is, and so does a backslash: to distinguish an escape from the same characters sent by a
// peer, read the journal, which gets the text itself.

/// Length of the text when escaped; `length` itself when there is nothing to escape.
std::size_t EscapedLength(const char* text, std::size_t length) noexcept;

/// Writes the escaped text, without a terminating zero, and returns its length. At `room` bytes it is cut,
/// never within an escape or a character.
std::size_t Escape(const char* text, std::size_t length, char* escaped, std::size_t room) noexcept;

}  // namespace mwl::Log
