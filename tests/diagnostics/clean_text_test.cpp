#include "diagnostics/clean_text.h"

#include <gtest/gtest.h>
#include <tern/typed/basic.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace {

using mwl::Diagnostics::CleanText;
using namespace std::string_view_literals;

/// In as many bytes as asked for, whether that is right or not.
std::string Encode(std::uint32_t code, int length) {
    if (length == 1) {
        return std::string(1, static_cast<char>(code));
    }
    std::string text;
    for (int i = 1; i < length; ++i) {
        text.insert(text.begin(), static_cast<char>(0x80U | (code & 0x3fU)));
        code >>= 6U;
    }
    const unsigned lead = length == 2 ? 0xc0 : length == 3 ? 0xe0 : 0xf0;
    text.insert(text.begin(), static_cast<char>(lead | code));
    return text;
}

TEST(CleanText, EveryCharacterThatMayBeSentStaysButControls) {
    for (std::uint32_t code = 1; code <= 0x10ffff; ++code) {
        const int length = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
        const bool isControl = code < 0x20 || (code >= 0x7f && code < 0xa0);
        const std::string text = Encode(code, length);
        const bool isSent = mwl::Typed::IsText(text);
        const std::string wanted =
            isControl || !isSent ? std::string(static_cast<std::size_t>(length), '?') : text;
        ASSERT_EQ(CleanText("<" + text + ">"), "<" + wanted + ">") << std::hex << code;
        ASSERT_TRUE(isSent || (code >= 0xd800 && code < 0xe000) || (code >= 0xfdd0 && code < 0xfdf0) ||
                    (code & 0xfffeU) == 0xfffeU)
            << std::hex << code;
    }
}

TEST(CleanText, LongerThanNeedBeIsNoCharacter) {
    for (const std::uint32_t code : {0x00U, 0x41U, 0x7fU}) {
        EXPECT_EQ(CleanText(Encode(code, 2)), "??");
        EXPECT_EQ(CleanText(Encode(code, 3)), "???");
        EXPECT_EQ(CleanText(Encode(code, 4)), "????");
    }
    EXPECT_EQ(CleanText(Encode(0x7ff, 3)), "???");
    EXPECT_EQ(CleanText(Encode(0x7ff, 4)), "????");
    EXPECT_EQ(CleanText(Encode(0xffff, 4)), "????");
    EXPECT_EQ(CleanText(Encode(0x110000, 4)), "????");
}

TEST(CleanText, LoneBytesAreReplacedOneByOne) {
    for (unsigned byte = 0x80; byte <= 0xff; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(CleanText(text), "?") << byte;
        EXPECT_EQ(CleanText(text + "a"), "?a") << byte;
        EXPECT_EQ(CleanText(text + "abcd"), "?abcd") << byte;
    }
}

TEST(CleanText, WhatIsCutShortIsReplacedToItsEnd) {
    const std::string_view euro = "\xe2\x82\xac";
    const std::string_view clef = "\xf0\x9d\x84\x9e";
    EXPECT_EQ(CleanText(euro.substr(0, 2)), "??");
    EXPECT_EQ(CleanText(std::string(euro.substr(0, 2)) + "x"), "??x");
    EXPECT_EQ(CleanText(clef.substr(0, 3)), "???");
    EXPECT_EQ(CleanText(std::string(clef.substr(0, 3)) + "x"), "???x");
    EXPECT_EQ(CleanText(std::string(clef.substr(0, 3)) + "\xc3\xa4"), "???\xc3\xa4");
    // A byte too many is one of its own.
    EXPECT_EQ(CleanText(std::string(clef) + "\x80"), std::string(clef) + "?");
}

TEST(CleanText, EndsAtAZero) {
    EXPECT_EQ(CleanText("abc\0def"sv), "abc");
    EXPECT_EQ(CleanText("\0def"sv), "");
    EXPECT_EQ(CleanText(""), "");
}

}  // namespace
