#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/utilities/string_utils.h>

#include <climits>

#include "support/child.h"

using mwl::Utilities::StringUtils;
using testing::ElementsAre;

namespace {

struct ReplaceRow {
    std::string text;
    std::string from;
    std::string to;
    std::string first;  ///< result of replacing the first occurrence
    std::string all;
};

const ReplaceRow REPLACE_ROWS[] = {
    {"abcb", "b", "c", "accb", "accc"},
    {"abc", "x", "y", "abc", "abc"},
    {"", "x", "y", "", ""},
    {"abc", "abcd", "y", "abc", "abc"},
    {"abc", "abc", "", "", ""},
    {"a.b.c", ".", "::", "a::b.c", "a::b::c"},
    {"one two one", "one", "1", "1 two one", "1 two 1"},
    // The search goes on one character after the start of the replacement:
    {"aaa", "aa", "ba", "baa", "bba"},
    {"aaaa", "a", "", "aaa", "aa"},
    {"a", "a", "ab", "ab", "ab"},
    {"aa", "a", "ab", "aba", "abab"},
    // An empty pattern is before every character and at the end.
    {"abc", "", "-", "-abc", "-a-b-c-"},
    {"", "", "-", "-", "-"},
    {"abc", "", "xyz", "xyzabc", "xyzaxyzbxyzcxyz"},
    {"abc", "", "", "abc", "abc"},
};

struct Utf8Row {
    std::string text;
    bool valid;
    unsigned int length;
};

const Utf8Row UTF8_ROWS[] = {
    {"a", true, 1},
    {std::string(1, '\0'), true, 1},
    {"\x7f", true, 1},
    {"\x80", false, 1},
    {"\xbf", false, 1},
    {"\xc3\xa9", true, 2},
    {"\xc3", false, 2},
    {"\xc3g", false, 2},
    {"\xc3\xc3", false, 2},
    {"\xdf\xbf", true, 2},
    {"\xe2\x82\xac", true, 3},
    {"\xe2\x82", false, 3},
    {"\xe2", false, 3},
    {"\xe2\x82z", false, 3},
    {"\xe2z\xac", false, 3},
    {"\xef\xbf\xbf", true, 3},
    {"\xf0\x9f\x98\x80", true, 4},
    {"\xf0\x9f\x98", false, 4},
    {"\xf0\x9f\x98z", false, 4},
    {"\xf8\x88\x80\x80\x80", false, 1},
    {"\xff", false, 1},
    // Not looked at: overlong forms, surrogates, what is beyond the last code point.
    {"\xc0\x80", true, 2},
    {"\xc1\xbf", true, 2},
    {"\xe0\x80\x80", true, 3},
    {"\xed\xa0\x80", true, 3},
    {"\xf5\x80\x80\x80", true, 4},
    {"\xf7\xbf\xbf\xbf", true, 4},
};

struct NumberRow {
    std::string text;
    unsigned int number;
};

constexpr unsigned int DEFAULT = 777;

const NumberRow NUMBER_ROWS[] = {
    {"42", 42},
    {"0", 0},
    {"007", 7},
    {"+5", 5},
    {" \t\n\v\f\r42", 42},
    {"12ab", 12},
    {"12 34", 12},
    {"0x10", 0},
    {std::string("12\0"
                 "34",
                 5),
     12},
    {"4294967295", UINT_MAX},
    {"0000000000004294967295", UINT_MAX},
    // A negative number wraps.
    {"-1", UINT_MAX},
    {" -2x", UINT_MAX - 1},
    {"-0", 0},
    {"-4294967295", 1},
    // Beyond 32 bits.
    {"4294967296", DEFAULT},
    {"99999999999", DEFAULT},
    {"18446744073709551615", DEFAULT},
    {"99999999999999999999999", DEFAULT},
    {"-4294967296", DEFAULT},
    {"-18446744073709551615", DEFAULT},
    // No number.
    {"", DEFAULT},
    {" ", DEFAULT},
    {"abc", DEFAULT},
    {"-", DEFAULT},
    {"+", DEFAULT},
    {"+-1", DEFAULT},
    {"--1", DEFAULT},
    {"- 1", DEFAULT},
    {".5", DEFAULT},
    {"\xb2", DEFAULT},
};

}  // namespace

TEST(StringUtils, ReplacesTheFirstOrEveryOccurrence) {
    for (const ReplaceRow& row : REPLACE_ROWS) {
        std::string text = row.text;
        std::string& result = StringUtils::Replace(text, row.from, row.to, false);
        EXPECT_EQ(&result, &text);
        EXPECT_EQ(text, row.first) << row.text << ", " << row.from << " by " << row.to;
        text = row.text;
        EXPECT_EQ(&StringUtils::Replace(text, row.from, row.to, true), &text);
        EXPECT_EQ(text, row.all) << row.text << ", every " << row.from << " by " << row.to;
    }
}

TEST(StringUtils, ReplacingByWhatHoldsThePatternBehindItsStartNeverEnds) {
    const tern::test::ChildResult child = tern::test::RunInChild(
        [] {
            std::string text = "a";
            StringUtils::Replace(text, "a", "aa", true);
            return 0;
        },
        std::chrono::milliseconds(300));
    EXPECT_TRUE(child.timedOut);
}

TEST(StringUtils, RemovesEveryTrailingCharacterOfAKind) {
    const std::pair<std::string, std::string> rows[] = {
        {"x//", "x"}, {"///", ""}, {"", ""}, {"x", "x"}, {"/x", "/x"}, {"a/b/", "a/b"}, {"x/ /", "x/ "}};
    for (const auto& [given, expected] : rows) {
        std::string text = given;
        EXPECT_EQ(&StringUtils::Rtrim(text, '/'), &text);
        EXPECT_EQ(text, expected) << given;
    }
    std::string zeros("x\0\0", 3);
    EXPECT_EQ(StringUtils::Rtrim(zeros, '\0'), "x");
}

TEST(StringUtils, JoinsWithTheSeparatorBetweenNeighboursOnly) {
    EXPECT_EQ(StringUtils::Join({}, ", "), "");
    EXPECT_EQ(StringUtils::Join({"a"}, ", "), "a");
    EXPECT_EQ(StringUtils::Join({"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(StringUtils::Join({"", "", ""}, "-"), "--");
    EXPECT_EQ(StringUtils::Join({"", "a"}, "-"), "-a");
    EXPECT_EQ(StringUtils::Join({"a", "b"}, ""), "ab");
}

TEST(StringUtils, SplitsIntoOnePartMoreThanThereAreDelimiters) {
    EXPECT_THAT(StringUtils::Split("", ','), ElementsAre(""));
    EXPECT_THAT(StringUtils::Split("a", ','), ElementsAre("a"));
    EXPECT_THAT(StringUtils::Split("a,b,", ','), ElementsAre("a", "b", ""));
    EXPECT_THAT(StringUtils::Split(",a,,b", ','), ElementsAre("", "a", "", "b"));
    EXPECT_THAT(StringUtils::Split(",", ','), ElementsAre("", ""));
    EXPECT_THAT(StringUtils::Split("a;b", ','), ElementsAre("a;b"));
    EXPECT_THAT(StringUtils::Split(std::string("a\0b", 3), '\0'), ElementsAre("a", "b"));
}

TEST(StringUtils, ASequenceIsALeadByteAndTheContinuationsItAnnounces) {
    for (const Utf8Row& row : UTF8_ROWS) {
        unsigned int index = 0;
        unsigned int length = 99;
        EXPECT_EQ(StringUtils::IsValidUtf8(row.text, index, length), row.valid)
            << testing::PrintToString(row.text);
        EXPECT_EQ(length, row.length) << testing::PrintToString(row.text);
        EXPECT_EQ(index, 0U);
    }
}

TEST(StringUtils, ASequenceIsLookedAtFromItsIndexOnly) {
    const std::string text =
        "\xff"
        "a\xc3\xa9\xc3";
    const std::pair<bool, unsigned int> expected[] = {
        {false, 1}, {true, 1}, {true, 2}, {false, 1}, {false, 2}};
    for (unsigned int position = 0; position < text.size(); ++position) {
        unsigned int index = position;
        unsigned int length = 99;
        EXPECT_EQ(StringUtils::IsValidUtf8(text, index, length), expected[position].first) << position;
        EXPECT_EQ(length, expected[position].second) << position;
        EXPECT_EQ(index, position);
    }
}

TEST(StringUtils, NoSequenceBeginsBehindTheText) {
    for (unsigned int position : {1U, 2U, UINT_MAX}) {
        unsigned int length = 99;
        EXPECT_FALSE(StringUtils::IsValidUtf8("a", position, length));
        EXPECT_EQ(length, 1U);
    }
}

TEST(StringUtils, ATextIsValidWhenEverySequenceIs) {
    EXPECT_TRUE(StringUtils::ValidateUTF8Sequence(""));
    EXPECT_TRUE(StringUtils::ValidateUTF8Sequence(std::string("a\0b", 3)));
    EXPECT_TRUE(StringUtils::ValidateUTF8Sequence("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80."));
    EXPECT_FALSE(StringUtils::ValidateUTF8Sequence("gr\xfc\xdf"));
    EXPECT_FALSE(
        StringUtils::ValidateUTF8Sequence("\x80"
                                          "abc"));
    EXPECT_FALSE(StringUtils::ValidateUTF8Sequence("abc\xc3"));
    EXPECT_FALSE(StringUtils::ValidateUTF8Sequence("\xc3\xa9\xa9"));
    for (const Utf8Row& row : UTF8_ROWS) {
        EXPECT_EQ(StringUtils::ValidateUTF8Sequence("a" + row.text), row.valid)
            << testing::PrintToString(row.text);
    }
}

TEST(StringUtils, NumbersAreReadUpToTheFirstOtherCharacterAndWithin32Bits) {
    for (const NumberRow& row : NUMBER_ROWS) {
        EXPECT_EQ(StringUtils::ToUint32(row.text, DEFAULT), row.number) << testing::PrintToString(row.text);
    }
}

TEST(StringUtils, ATextStartsWithItsPrefixes) {
    EXPECT_TRUE(StringUtils::StartsWith("abc", ""));
    EXPECT_TRUE(StringUtils::StartsWith("", ""));
    EXPECT_TRUE(StringUtils::StartsWith("abc", "ab"));
    EXPECT_TRUE(StringUtils::StartsWith("abc", "abc"));
    EXPECT_FALSE(StringUtils::StartsWith("abc", "bc"));
    EXPECT_FALSE(StringUtils::StartsWith("abc", "abcd"));
    EXPECT_FALSE(StringUtils::StartsWith("", "a"));
    EXPECT_FALSE(StringUtils::StartsWith("xab", "ab"));
}
