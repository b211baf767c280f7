#pragma once

#include <array>
#include <cstddef>
#include <cstring>

namespace mw::tern::DBusMessage {

/// A text from a message as it is logged: as it is, or its first LIMIT bytes and "..." when it is longer. A
/// log line with two of them still fits into the logger's own buffer. No character is cut in two. The text is
/// borrowed.
class LoggedText {
public:
    static constexpr std::size_t LIMIT = 1024;

    /// Adds its length to `counted`.
    LoggedText(const char* text, std::size_t& counted) : mText(text) {
        std::size_t length = strnlen(text, LIMIT + 1);
        if (length > LIMIT) {
            length = Cut(text);
        }
        counted += length;
    }
    LoggedText(const LoggedText&) = delete;
    LoggedText& operator=(const LoggedText&) = delete;

    const char* Get() const { return mText; }

private:
    static constexpr const char* MARK = "...";
    static constexpr std::size_t MARK_LENGTH = 3;

    [[gnu::noinline, gnu::cold]] std::size_t Cut(const char* text) {
        std::size_t end = LIMIT;
        // Back to where a character begins, which is three bytes at most: the text is UTF-8.
        for (int i = 0; i < 3 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80U; ++i) {
            --end;
        }
        memcpy(mShortened.data(), text, end);
        memcpy(mShortened.data() + end, MARK, MARK_LENGTH + 1);
        mText = mShortened.data();
        return end + MARK_LENGTH;
    }

    const char* mText;
    std::array<char, LIMIT + MARK_LENGTH + 1> mShortened;  // written only when there is need
};

}  // namespace mw::tern::DBusMessage
