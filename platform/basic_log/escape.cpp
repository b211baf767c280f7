#include "escape.h"

#include <string.h>

#include <cstdint>

namespace mwl::Log {

namespace {

constexpr char DIGITS[] = "0123456789ABCDEF";
constexpr std::size_t HEX_ESCAPE = 4;

constexpr std::size_t WORD = sizeof(std::uint64_t);
constexpr std::uint64_t ONES = 0x0101010101010101;

/// Of eight bytes the top bits of those that are no printable ASCII: each term finds some of them, those
/// below 0x20, DEL, those above 0x7F. A borrow only adds a wrong alarm next to a right one.
std::uint64_t Suspects(const char* eight) noexcept {
    std::uint64_t bytes = 0;
    memcpy(&bytes, eight, sizeof bytes);
    const std::uint64_t deletes = bytes ^ ONES * 0x7f;
    return ((bytes - ONES * 0x20) | (deletes - ONES) | bytes) & ONES * 0x80;
}

/// Whether all of the text is printable ASCII, which most messages are: without a branch for each word.
bool IsPlain(const char* text, std::size_t length) noexcept {
    if (length < WORD) {
        return false;
    }
    std::uint64_t suspects = Suspects(text + length - WORD);
    for (std::size_t i = 0; i + WORD <= length; i += WORD) {
        suspects |= Suspects(text + i);
    }
    return suspects == 0;
}

/// Length of the printable character that the text begins with; 0 when its first byte is to be escaped.
std::size_t PrintableLength(const unsigned char* text, std::size_t length) noexcept {
    const unsigned char first = text[0];
    if (first < 0x80) {
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    }
    // UTF-8 in its shortest form only, without surrogates, up to U+10FFFF: so the second byte's range depends
    // on the first. That of C2 begins behind the control characters.
    struct Range {
        unsigned char first;
        unsigned char last;
        unsigned char length;
        unsigned char secondFirst;
        unsigned char secondLast;
    };
    static constexpr Range RANGES[] = {
        {0xc2, 0xc2, 2, 0xa0, 0xbf}, {0xc3, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
        {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
        {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f}};
    for (const Range& range : RANGES) {
        if (first < range.first || first > range.last) {
            continue;
        }
        if (length < range.length || text[1] < range.secondFirst || text[1] > range.secondLast) {
            return 0;
        }
        for (std::size_t i = 2; i < range.length; ++i) {
            if ((text[i] & 0xc0) != 0x80) {
                return 0;
            }
        }
        return range.length;
    }
    return 0;
}

std::size_t EscapeLength(unsigned char byte) noexcept {
    return byte == '\n' || byte == '\t' ? 2 : HEX_ESCAPE;
}

void WriteEscape(unsigned char byte, char* escape) noexcept {
    escape[0] = '\\';
    if (EscapeLength(byte) == 2) {
        escape[1] = byte == '\n' ? 'n' : 't';
        return;
    }
    escape[1] = 'x';
    escape[2] = DIGITS[byte >> 4];
    escape[3] = DIGITS[byte & 0xf];
}

}  // namespace

std::size_t EscapedLength(const char* text, std::size_t length) noexcept {
    if (IsPlain(text, length)) {
        return length;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t escaped = 0;
    for (std::size_t i = 0; i < length;) {
        std::size_t step = WORD;
        std::size_t printed = WORD;
        if (length - i < WORD || Suspects(text + i) != 0) {
            const std::size_t printable = PrintableLength(bytes + i, length - i);
            step = printable != 0 ? printable : 1;
            printed = printable != 0 ? printable : EscapeLength(bytes[i]);
        }
        i += step;
        escaped += printed;
    }
    return escaped;
}

std::size_t Escape(const char* text, std::size_t length, char* escaped, std::size_t room) noexcept {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t written = 0;
    for (std::size_t i = 0; i < length;) {
        const std::size_t printable = PrintableLength(bytes + i, length - i);
        const std::size_t size = printable != 0 ? printable : EscapeLength(bytes[i]);
        if (size > room - written) {
            break;
        }
        if (printable != 0) {
            memcpy(escaped + written, text + i, printable);
            i += printable;
        } else {
            WriteEscape(bytes[i], escaped + written);
            ++i;
        }
        written += size;
    }
    return written;
}

}  // namespace mwl::Log
