#include <tern/typed/codec.h>
#include <tern/typed/variants.h>

#include "round_trip.h"

using namespace mwl::Typed;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::RoundTrip;

namespace {

class Variants : public RoundTrip {};

using Value = std::variant<std::int32_t, std::string, std::vector<std::string>, std::tuple<int, double>>;

TEST_F(Variants, AreOfOneOfTheirTypes) {
    Check(Value(5), "v", "i", 5);
    Check(Value(std::string("text")), "v", "s", "text");
    Check(Value(std::vector<std::string>{"a", "b"}), "v", "as", 2, "a", "b");
    Check(Value(std::tuple<int, double>{1, 2}), "v", "(id)", 1, 2.0);
    Check(std::variant<int>(5), "v", "i", 5);
}

TEST_F(Variants, AreElements) {
    Check(std::vector<Value>{5, std::string("text")}, "av", 2, "i", 5, "s", "text");
    Check(std::map<std::string, Value>{{"a", 5}}, "a{sv}", 1, "a", "i", 5);
    Check(std::variant<int, std::variant<bool, double>>(std::variant<bool, double>(0.5)), "v", "v", "d", 0.5);
}

TEST_F(Variants, OfNoneOfTheirTypesAreRefused) {
    const ReadValue<Value> read = ReadOne<Value>(mMessages.Make("v", "d", 0.5));
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "'d' where 'i' or 's' or 'as' or '(id)' is wanted");
    EXPECT_EQ((ReadOne<std::variant<int>>(mMessages.Make("v", "v", "i", 5)).Text()),
              "'v' where 'i' is wanted");
    EXPECT_EQ(ReadOne<Value>(mMessages.Make("i", 5)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Value>(mMessages.Make("(v)", "i", 5)).result, -ENXIO);
    const ReadValue<std::map<std::string, Value>> map =
        ReadOne<std::map<std::string, Value>>(mMessages.Make("a{sv}", 2, "a", "i", 5, "b", "u", 5));
    EXPECT_EQ(map.result, -EINVAL);
    EXPECT_EQ(map.Where(), "[1]");
}

TEST_F(Variants, OfTwoTypesOfOneSignatureTheFirstTakesIt) {
    using Twice = std::variant<int, std::string, std::string_view>;
    EXPECT_EQ(ReadOne<Twice>(mMessages.Make("v", "s", "text")).value.index(), 1U);
    EXPECT_GE(WriteResult(Twice(std::string_view("text"))), 0);
}

TEST_F(Variants, WhatIsInThemCanBeRefused) {
    EXPECT_EQ(WriteResult(Value(std::string("\xff"))), -EINVAL);
    using Pair = std::variant<int, std::array<int, 2>>;
    const ReadValue<Pair> read = ReadOne<Pair>(mMessages.Make("v", "ai", 1, 5));
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "1 element where 2 are wanted");
}

}  // namespace
