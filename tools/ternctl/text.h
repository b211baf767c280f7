#pragma once

/// Text for people: what came from elsewhere made harmless, figures in human units, columns.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ternctl {

/// The character at the beginning of `text` and how many bytes it takes; {0xFFFD, 1} where there is none of
/// UTF-8. REQUIRES: not empty.
struct Character {
    char32_t code;
    std::size_t size;
    bool isValid;
};
Character ReadCharacter(std::string_view text);

/// Control characters, and those that turn the direction of writing, break lines or take no room.
bool SteersTerminals(char32_t code);

/// `text` as it may be written to a terminal, in one line: what steers a terminal (control characters,
/// those that turn the direction of writing or break lines) is escaped, as is what is not UTF-8: "\x1b",
/// "\u{202e}". Without `isUtf8` everything but ASCII is.
std::string Printable(std::string_view text, bool isUtf8);

/// Columns that it takes on a terminal. REQUIRES: Printable.
std::size_t Width(std::string_view text);
/// The beginning that fits `width` columns; `more` stands for what is cut.
std::string FitBegin(std::string_view text, std::size_t width, std::string_view more);
/// The end that fits, likewise.
std::string FitEnd(std::string_view text, std::size_t width, std::string_view more);
/// Filled with blanks on the right, or on the left, up to `width` columns; never cut.
std::string PadRight(std::string text, std::size_t width);
std::string PadLeft(const std::string& text, std::size_t width);

/// Whether the locale's characters are UTF-8, as setlocale(3) has set it.
bool IsUtf8();

/// As of printf(3).
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

/// "350 us", "12.3 ms", "4.21 s", "3 min 12 s", "5 h 7 min", "12 d 4 h".
std::string Duration(std::uint64_t us);
/// "512 B", "64.0 KiB", "5.2 MiB".
std::string Bytes(std::uint64_t bytes);
/// "12345", "1.23 M", "45.6 G".
std::string Count(std::uint64_t number);
/// Of a time of day in microseconds, in the local zone: "2026-11-22 18:14:18".
std::string DateTime(std::uint64_t us);
/// The same with microseconds.
std::string ExactDateTime(std::uint64_t us);

}  // namespace ternctl
