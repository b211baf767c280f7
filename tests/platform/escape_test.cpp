#include "platform/basic_log/escape.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using mwl::Log::Escape;
using mwl::Log::EscapedLength;

namespace {

std::string Escaped(const std::string& text, std::size_t room = 1000) {
    std::vector<char> buffer(room + 1, '#');
    const std::size_t written = Escape(text.data(), text.size(), buffer.data(), room);
    EXPECT_LE(written, room);
    EXPECT_EQ(buffer[written], '#') << "nothing is written behind the text";
    return std::string(buffer.data(), written);
}

std::string Hex(unsigned byte) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    return std::string("\\x") + DIGITS[byte >> 4] + DIGITS[byte & 0xf];
}

}  // namespace

TEST(Escape, EverySingleByteAtEveryPlaceOfAWord) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        for (std::size_t place = 0; place < 17; ++place) {
            std::string text(17, '~');
            text[place] = static_cast<char>(byte);
            std::string expected(1, static_cast<char>(byte));
            if (byte == '\n') {
                expected = "\\n";
            } else if (byte == '\t') {
                expected = "\\t";
            } else if (byte < 0x20 || byte >= 0x7f) {
                expected = Hex(byte);
            }
            expected = std::string(place, '~') + expected + std::string(16 - place, '~');
            EXPECT_EQ(Escaped(text), expected) << byte << " at " << place;
            EXPECT_EQ(EscapedLength(text.data(), text.size()), expected.size()) << byte << " at " << place;
        }
    }
}

TEST(Escape, ValidUtf8StaysAndTheRestBecomesVisible) {
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"a backslash \\n stays", "a backslash \\n stays"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"\xc2\xa0 first behind the control characters", "\xc2\xa0 first behind the control characters"},
        {"\xc2\x9b", "\\xC2\\x9B"},
        {"\xc2\x80", "\\xC2\\x80"},
        {"\xdf\xbf", "\xdf\xbf"},
        {"\xe0\xa0\x80 \xe2\x82\xac \xef\xbf\xbf", "\xe0\xa0\x80 \xe2\x82\xac \xef\xbf\xbf"},
        {"\xed\x9f\xbf", "\xed\x9f\xbf"},
        {"\xf0\x90\x80\x80 \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf",
         "\xf0\x90\x80\x80 \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"},
        // Longer than need be, surrogates, beyond the last character, not begun, not ended.
        {"\xc0\x8a", "\\xC0\\x8A"},
        {"\xc1\xbf", "\\xC1\\xBF"},
        {"\xe0\x9f\xbf", "\\xE0\\x9F\\xBF"},
        {"\xf0\x8f\xbf\xbf", "\\xF0\\x8F\\xBF\\xBF"},
        {"\xed\xa0\x80", "\\xED\\xA0\\x80"},
        {"\xf4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"\xf5\x80\x80\x80", "\\xF5\\x80\\x80\\x80"},
        {"\x80", "\\x80"},
        {"\xe2\x82", "\\xE2\\x82"},
        {"\xe2\x82z", "\\xE2\\x82z"},
        {"\xf0\x9f\x98\n", "\\xF0\\x9F\\x98\\n"},
        {"\xc3\xc3\xa9", "\\xC3\xc3\xa9"},
        {std::string("nul\0nul", 7), "nul\\x00nul"},
        {"12345678\xc3\xa9\n2345678", "12345678\xc3\xa9\\n2345678"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(Escaped(text), expected);
        EXPECT_EQ(EscapedLength(text.data(), text.size()), expected.size()) << expected;
    }
}

TEST(Escape, IsCutBetweenCharactersAndEscapes) {
    const std::string text = "a\n\x01\xe2\x82\xac!";
    const std::string whole = "a\\n\\x01\xe2\x82\xac!";
    const std::size_t lengths[] = {0, 1, 1, 3, 3, 3, 3, 7, 7, 7, 10, 11, 11};
    for (std::size_t room = 0; room < std::size(lengths); ++room) {
        EXPECT_EQ(Escaped(text, room), whole.substr(0, lengths[room])) << room;
    }
}
