#include "json.h"

#include <array>
#include <charconv>
#include <cmath>

#include "text.h"

namespace ternctl {

namespace {

unsigned HighSurrogate(char32_t code) {
    return 0xD800U + ((static_cast<unsigned>(code) - 0x10000U) >> 10U);
}

unsigned LowSurrogate(char32_t code) {
    return 0xDC00U + (static_cast<unsigned>(code) & 0x3FFU);
}

}  // namespace

void JsonWriter::Separate() {
    if (!mIsFirst) {
        mText += ',';
    }
    mIsFirst = false;
}

JsonWriter& JsonWriter::Begin(char bracket) {
    Separate();
    mText += bracket;
    mIsFirst = true;
    return *this;
}

JsonWriter& JsonWriter::End(char bracket) {
    mText += bracket;
    mIsFirst = false;
    return *this;
}

JsonWriter& JsonWriter::Key(std::string_view key) {
    Separate();
    Quote(key);
    mText += ':';
    mIsFirst = true;  // nothing stands between a key and its value
    return *this;
}

JsonWriter& JsonWriter::Value(std::string_view text) {
    Separate();
    Quote(text);
    return *this;
}

JsonWriter& JsonWriter::Value(bool value) {
    Separate();
    mText += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::Value(double value) {
    if (!std::isfinite(value)) {
        return Null();
    }
    Separate();
    std::array<char, 32> digits{};
    const std::to_chars_result end = std::to_chars(digits.data(), digits.data() + digits.size(), value);
    mText.append(digits.data(), end.ptr);
    return *this;
}

JsonWriter& JsonWriter::Value(std::uint64_t value) {
    Separate();
    mText += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::Null() {
    Separate();
    mText += "null";
    return *this;
}

void JsonWriter::Quote(std::string_view text) {
    mText += '"';
    while (!text.empty()) {
        const Character next = ReadCharacter(text);
        if (!next.isValid) {
            mText += "\\ufffd";
        } else if (next.code == '"' || next.code == '\\') {
            mText += '\\';
            mText += text[0];
        } else if (SteersTerminals(next.code)) {
            // Not all of it need be escaped, but documents are looked at, too.
            mText += next.code < 0x10000
                         ? Format("\\u%04x", static_cast<unsigned>(next.code))
                         : Format("\\u%04x\\u%04x", HighSurrogate(next.code), LowSurrogate(next.code));
        } else {
            mText += text.substr(0, next.size);
        }
        text.remove_prefix(next.size);
    }
    mText += '"';
}

}  // namespace ternctl
