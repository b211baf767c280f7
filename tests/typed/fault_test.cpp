#include <tern/typed/basic.h>
#include <tern/typed/fault.h>

#include <limits>

using mwl::Typed::Fault;

namespace {

TEST(Fault, IsEmptyAtFirst) {
    const Fault fault;
    EXPECT_STREQ(fault.text, "");
    EXPECT_STREQ(fault.where, "");
}

TEST(Fault, TellsEachReason) {
    Fault fault;
    EXPECT_EQ(fault.WrongType("s", "u"), -EINVAL);
    EXPECT_STREQ(fault.text, "'s' where 'u' is wanted");
    EXPECT_EQ(fault.WrongCount(2, 3), -EINVAL);
    EXPECT_STREQ(fault.text, "2 elements where 3 are wanted");
    EXPECT_EQ(fault.WrongCount(1, 3), -EINVAL);
    EXPECT_STREQ(fault.text, "1 element where 3 are wanted");
    EXPECT_EQ(fault.WrongCount(0, 1), -EINVAL);
    EXPECT_STREQ(fault.text, "0 elements where 1 is wanted");
    EXPECT_EQ(fault.TooMany(), -EINVAL);
    EXPECT_STREQ(fault.text, "more than 1048576 elements");
    EXPECT_EQ(fault.NotAValue("fast"), -EINVAL);
    EXPECT_STREQ(fault.text, "'fast' is not one of its values");
    EXPECT_EQ(fault.NotAValue(std::numeric_limits<std::int64_t>::min()), -EINVAL);
    EXPECT_STREQ(fault.text, "-9223372036854775808 is not one of its values");
    EXPECT_EQ(fault.NotAValue(std::numeric_limits<std::uint64_t>::max()), -EINVAL);
    EXPECT_STREQ(fault.text, "18446744073709551615 is not one of its values");
    EXPECT_EQ(fault.Missing("Seconds"), -EINVAL);
    EXPECT_STREQ(fault.text, "the key 'Seconds' is missing");
    EXPECT_EQ(fault.Unknown("Seconds"), -EINVAL);
    EXPECT_STREQ(fault.text, "the key 'Seconds' is unknown");
    EXPECT_EQ(fault.Refuse("an odd number", -ERANGE), -ERANGE);
    EXPECT_STREQ(fault.text, "an odd number");
}

TEST(Fault, TellsTheWayFromTheOutside) {
    Fault fault;
    EXPECT_EQ(fault.Below("Name", -EINVAL), -EINVAL);
    EXPECT_EQ(fault.At(3, -ENXIO), -ENXIO);
    EXPECT_EQ(fault.Below("Zones", -EINVAL), -EINVAL);
    EXPECT_STREQ(fault.where, ".Zones[3].Name");
}

TEST(Fault, CutsBetweenCharactersWhatIsTooLong) {
    Fault fault;
    std::string word;
    for (int i = 0; i < 100; ++i) {
        word += "\u20ac";  // three bytes each
    }
    fault.NotAValue(word);
    EXPECT_EQ(fault.text, "'" + word.substr(0, 60) + "' is not one of its values");
    fault.NotAValue("a" + word);
    EXPECT_EQ(fault.text, "'a" + word.substr(0, 57) + "' is not one of its values");

    fault.Below(word, -EINVAL);
    EXPECT_EQ(fault.where, "." + word.substr(0, 60));
    fault.Below("Inner", -EINVAL);
    EXPECT_EQ(fault.where, ".Inner." + word.substr(0, 54));  // the outermost stays
    EXPECT_TRUE(mwl::Typed::IsText(fault.where));

    fault.Refuse(word);
    EXPECT_EQ(fault.text, word.substr(0, 159));
    EXPECT_TRUE(mwl::Typed::IsText(fault.text));
}

TEST(Fault, ShowsNoControlCharacters) {
    Fault fault;
    fault.Unknown("a\nb\x1b[31m\x7f");
    EXPECT_STREQ(fault.text, "the key 'a?b?[31m?' is unknown");
}

}  // namespace
