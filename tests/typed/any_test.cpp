#include <tern/typed/any.h>
#include <tern/typed/codec.h>

#include <array>
#include <limits>
#include <new>

#include "round_trip.h"
#include "support/allocations.h"
#include "support/process_resources.h"
#include "tests/dbus_message/raw_messages.h"

using namespace mwl::Typed;
using tern::test::Body;
using tern::test::BusMessage;
using tern::test::RawMessages;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;
using tern::test::WireWriter;

namespace {

enum class Speed { Slow, Fast };
constexpr auto DBusEnum(Speed) {
    return std::array{EnumText{Speed::Slow, "slow"}, EnumText{Speed::Fast, "fast"}};
}

struct Point {
    int x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

class AnyValues : public RoundTrip {
protected:
    /// What is read is written again as it was, is the same as what From makes, and given back by As.
    template <class T, class... Arguments>
    void CheckAny(const char* text, const T& value, const char* types, Arguments... arguments) {
        SCOPED_TRACE(text);
        const BusMessage made = mMessages.Make("v", types, arguments...);
        const std::string body = Body(made);
        const ReadValue<Any> read = ReadOne<Any>(made);
        ASSERT_GT(read.result, 0) << read.Text();
        EXPECT_EQ(read.value.GetSignature(), types);
        EXPECT_EQ(read.value.ToText(), text);
        EXPECT_EQ(Body(Written(read.value)), body);
        EXPECT_EQ(Any::From(value), read.value);
        ASSERT_TRUE(read.value.As<T>().has_value());
        EXPECT_TRUE(*read.value.As<T>() == value);
    }
};

TEST_F(AnyValues, KeepsNumbers) {
    CheckAny("255", std::uint8_t{255}, "y", 255);
    CheckAny("-32768", std::int16_t{-32768}, "n", -32768);
    CheckAny("65535", std::uint16_t{65535}, "q", 65535);
    CheckAny("-5", std::int32_t{-5}, "i", -5);
    CheckAny("4294967295", std::uint32_t{4294967295}, "u", 4294967295);
    CheckAny("-9223372036854775808", std::numeric_limits<std::int64_t>::min(), "x",
             std::numeric_limits<std::int64_t>::min());
    CheckAny("18446744073709551615", std::numeric_limits<std::uint64_t>::max(), "t",
             std::numeric_limits<std::uint64_t>::max());
    CheckAny("0.1", 0.1, "d", 0.1);
    CheckAny("true", true, "b", 1);
    CheckAny("false", false, "b", 0);
}

TEST_F(AnyValues, KeepsText) {
    CheckAny("\"text\"", std::string("text"), "s", "text");
    CheckAny("\"\"", std::string(), "s", "");
    const char* const special = "say \"no\" \\ \n\x7f \u00e4";
    CheckAny("\"say \\\"no\\\" \\\\ \\x0a\\x7f \u00e4\"", std::string(special), "s", special);
    CheckAny("\"/path\"", ObjectPath("/path"), "o", "/path");
    CheckAny("\"a{sv}\"", Signature("a{sv}"), "g", "a{sv}");
    CheckAny("\"fast\"", Speed::Fast, "s", "fast");
}

// sd-bus takes an entry outside of an array as a signature: what was received can be passed on.
TEST_F(AnyValues, KeepsWhatSdBusTakesAsASignature) {
    const BusMessage made = mMessages.Make("v", "g", "{sv}");
    const std::string body = Body(made);
    EXPECT_EQ(Body(Written(ReadOne<Any>(made).value)), body);
}

TEST_F(AnyValues, KeepsContainers) {
    CheckAny("[1, 2, 3]", std::vector<std::uint8_t>{1, 2, 3}, "ay", 3, 1, 2, 3);
    CheckAny("[-1, 2]", std::vector<std::int16_t>{-1, 2}, "an", 2, -1, 2);
    CheckAny("[0.5, 1]", std::array<double, 2>{0.5, 1}, "ad", 2, 0.5, 1.0);
    CheckAny("[]", std::vector<std::uint64_t>(), "at", 0);
    CheckAny("[true, false]", std::vector<bool>{true, false}, "ab", 2, 1, 0);
    CheckAny("[\"a\", \"b\"]", std::vector<std::string>{"a", "b"}, "as", 2, "a", "b");
    CheckAny("[[1], []]", std::vector<std::vector<int>>{{1}, {}}, "aai", 2, 1, 1, 0);
    CheckAny("(5, \"text\")", std::tuple<int, std::string>{5, "text"}, "(is)", 5, "text");
    CheckAny("[(1, 0.5), (2, 1.5)]", std::vector<Point>{{1, 0.5}, {2, 1.5}}, "a(id)", 2, 1, 0.5, 2, 1.5);
    CheckAny("{\"a\": 1, \"b\": 2}", std::map<std::string, int>{{"a", 1}, {"b", 2}}, "a{si}", 2, "a", 1, "b",
             2);
    CheckAny("{}", std::map<std::string, Any>(), "a{sv}", 0);
    CheckAny("{\"a\": <5>, \"b\": <\"x\">}",
             std::map<std::string, Any>{{"a", Any::From(5U)}, {"b", Any::From(std::string("x"))}}, "a{sv}", 2,
             "a", "u", 5, "b", "s", "x");
    CheckAny("[<1>, <0.5>]", std::vector<std::variant<int, double>>{1, 0.5}, "av", 2, "i", 1, "d", 0.5);
}

TEST_F(AnyValues, KeepsAVariantWithinAVariant) {
    CheckAny("<5>", Any::From(5U), "v", "u", 5);
    CheckAny("<<5>>", Any::From(Any::From(5U)), "v", "v", "u", 5);
    EXPECT_NE(Any::From(5U), Any::From(Any::From(5U)));
}

TEST_F(AnyValues, GivesItselfBackByExactTypeOnly) {
    const Any number = Any::From(std::uint32_t{5});
    EXPECT_EQ(number.As<std::uint32_t>(), 5U);
    EXPECT_FALSE(number.As<std::int32_t>().has_value());
    EXPECT_FALSE(number.As<std::uint64_t>().has_value());
    EXPECT_FALSE(number.As<std::string>().has_value());
    EXPECT_FALSE(number.As<Any>().has_value());
    EXPECT_FALSE(Any().As<std::uint32_t>().has_value());
    const Any text = Any::From(std::string("text"));
    EXPECT_EQ(text.As<std::string_view>(), "text");
    EXPECT_FALSE(text.As<ObjectPath>().has_value());
    EXPECT_FALSE(text.As<Speed>().has_value());  // of the type, but none of its values
    const Any numbers = Any::From(std::vector<int>{1, 2, 3});
    EXPECT_FALSE((numbers.As<std::array<int, 2>>().has_value()));
    EXPECT_TRUE((numbers.As<std::array<int, 3>>().has_value()));
}

TEST_F(AnyValues, ComparesTypeAndValue) {
    EXPECT_EQ(Any(), Any());
    EXPECT_NE(Any(), Any::From(0U));
    EXPECT_NE(Any::From(std::uint32_t{1}), Any::From(std::uint64_t{1}));
    EXPECT_NE(Any::From(std::string("/a")), Any::From(ObjectPath("/a")));
    EXPECT_NE(Any::From(std::vector<int>{1, 2}), Any::From(std::vector<int>{2, 1}));
    EXPECT_NE(Any::From(std::vector<int>{1}), Any::From(std::vector<int>{1, 1}));
    EXPECT_EQ(Any::From(0.0), Any::From(-0.0));
    EXPECT_EQ(Any::From(std::vector<double>{0.0}), Any::From(std::vector<double>{-0.0}));
    EXPECT_NE(Any::From(std::vector<double>{0.0}), Any::From(std::vector<double>{0.0, 1.0}));
    const double noNumber = std::numeric_limits<double>::quiet_NaN();
    EXPECT_NE(Any::From(noNumber), Any::From(noNumber));
    EXPECT_NE(Any::From(std::vector<double>{noNumber}), Any::From(std::vector<double>{noNumber}));
}

TEST_F(AnyValues, GivesItsElements) {
    const Any numbers = Any::From(std::vector<std::int16_t>{-1, 2});
    EXPECT_EQ(numbers.Size(), 2U);
    EXPECT_EQ(numbers.At(0), Any::From(std::int16_t{-1}));
    EXPECT_TRUE(numbers.At(2).IsEmpty());
    const Any map = Any::From(std::map<std::string, int>{{"a", 1}});
    EXPECT_EQ(map.Size(), 1U);
    EXPECT_EQ(map.At(0).GetSignature(), "{si}");
    EXPECT_EQ(map.At(0).Size(), 2U);
    EXPECT_EQ(map.At(0).At(0).As<std::string>(), "a");
    EXPECT_EQ(map.At(0).At(1).As<int>(), 1);
    EXPECT_EQ(Any::From(Any::From(5U)).At(0).As<std::uint32_t>(), 5U);
    EXPECT_EQ(Any::From(std::string("text")).Size(), 0U);
    EXPECT_EQ(Any::From(5U).Size(), 0U);
    EXPECT_EQ(Any().Size(), 0U);
}

TEST_F(AnyValues, EmptyCannotBeSent) {
    EXPECT_TRUE(Any().IsEmpty());
    EXPECT_EQ(Any().ToText(), "");
    EXPECT_EQ(WriteResult(Any()), -EINVAL);
    EXPECT_EQ(WriteResult(std::map<std::string, Any>{{"a", Any()}}), -EINVAL);
    // A part of something else is a value, but not one complete type.
    EXPECT_LT(WriteResult(Any::From(std::map<std::string, int>{{"a", 1}}).At(0)), 0);
    EXPECT_TRUE(Any::From(Any()).IsEmpty());
}

TEST_F(AnyValues, WhatCannotBeSentIsNotKept) {
    EXPECT_TRUE(Any::From(std::string("\xff")).IsEmpty());
    EXPECT_TRUE(Any::From(std::string_view("a\0b", 3)).IsEmpty());
    EXPECT_TRUE(Any::From(std::vector<std::string>{"\xff"}).IsEmpty());
    EXPECT_TRUE(Any::From(static_cast<Speed>(9)).IsEmpty());
    EXPECT_TRUE(Any::From(std::vector<bool>(MAX_ELEMENTS + 1)).IsEmpty());
}

TEST_F(AnyValues, KeepsNoDescriptors) {
    const std::size_t before = tern::test::CountDescriptors();
    const ReadValue<Any> single = ReadOne<Any>(mMessages.Make("v", "h", 0));
    EXPECT_EQ(single.result, -EINVAL);
    EXPECT_EQ(single.Text(), "a file descriptor where none can be kept");
    EXPECT_EQ(ReadOne<Any>(mMessages.Make("v", "a(uh)", 1, 5, 0)).result, -EINVAL);
    EXPECT_TRUE(single.value.IsEmpty());
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_F(AnyValues, IsOnlyChangedWhenAllWasRead) {
    Any any = Any::From(5U);
    Fault fault;
    EXPECT_EQ(Read(mMessages.Make("v", "(uh)", 7, 0).get(), any, fault), -EINVAL);
    EXPECT_EQ(Read(mMessages.Make("u", 7).get(), any, fault), -ENXIO);
    EXPECT_EQ(any, Any::From(5U));
}

TEST_F(AnyValues, NeedsNoDescriptorsOfItsOwn) {
    const std::size_t before = tern::test::CountDescriptors();
    const Any any = Any::From(std::vector<Point>{{1, 2}});
    EXPECT_EQ(tern::test::CountDescriptors(), before);
    EXPECT_EQ(any.As<std::vector<Point>>(), (std::vector<Point>{{1, 2}}));
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST_F(AnyValues, HasALimitOfNesting) {
    Any any = Any::From(5U);
    for (unsigned depth = 1; depth <= Any::MAX_NESTING; ++depth) {
        any = Any::From(any);
        ASSERT_FALSE(any.IsEmpty()) << depth;
    }
    EXPECT_EQ(any.ToText(), std::string(32, '<') + "5" + std::string(32, '>'));
    EXPECT_TRUE(Any::From(any).IsEmpty());
    const BusMessage asDeep = Written(any);
    EXPECT_EQ(ReadOne<Any>(asDeep).value, any);

    BusMessage deeper = mMessages.New();
    Require(sd_bus_message_open_container(deeper.get(), 'v', "v"), "open");
    Require(Write(deeper.get(), any), "write");
    Require(sd_bus_message_close_container(deeper.get()), "close");
    tern::test::TestMessages::Seal(deeper);
    const ReadValue<Any> read = ReadOne<Any>(deeper);
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "more than 32 containers inside each other");

    const std::string arrays = std::string(30, 'a') + "(v)";
    BusMessage mixed = mMessages.New();
    Require(sd_bus_message_append(mixed.get(), "v", arrays.c_str(), 0), "append");
    tern::test::TestMessages::Seal(mixed);
    EXPECT_EQ(ReadOne<Any>(mixed).value.GetSignature(), arrays);  // deep by type, but empty
}

TEST_F(AnyValues, HasALimitOfElementsInAll) {
    RawMessages raw;
    // 1 outer array with two arrays of so many booleans.
    for (const bool isTooMany : {false, true}) {
        const std::size_t half = (MAX_ELEMENTS - 3) / 2 + (isTooMany ? 1 : 0);
        WireWriter body;
        body.Signature("aab");
        const WireWriter::Array outer = body.BeginArray(4);
        for (int i = 0; i < 2; ++i) {
            const WireWriter::Array inner = body.BeginArray(4);
            for (std::size_t k = 0; k < half; ++k) {
                body.Uint32(1);
            }
            body.EndArray(inner);
        }
        body.EndArray(outer);
        const BusMessage message = raw.Deliver("v", body.Bytes());
        ASSERT_NE(message, nullptr);
        const ReadValue<Any> read = ReadOne<Any>(message);
        if (isTooMany) {
            EXPECT_EQ(read.result, -EINVAL);
            EXPECT_EQ(read.Text(), "more than 1048576 elements");
        } else {
            EXPECT_GT(read.result, 0);
            EXPECT_EQ(read.value.Size(), 2U);
        }
    }
}

TEST_F(AnyValues, KeepsLargeArraysAsTheyAre) {
    const std::vector<std::uint8_t> bytes(MAX_ELEMENTS, 7);
    const Any any = Any::From(bytes);
    EXPECT_EQ(any.Size(), bytes.size());
    EXPECT_TRUE(any.As<std::vector<std::uint8_t>>() == bytes);
    const BusMessage message = mMessages.New();
    Require(sd_bus_message_open_container(message.get(), 'v', "ay"), "open");
    void* space = nullptr;
    Require(sd_bus_message_append_array_space(message.get(), 'y', MAX_ELEMENTS + 1, &space), "append");
    std::memset(space, 0, MAX_ELEMENTS + 1);
    Require(sd_bus_message_close_container(message.get()), "close");
    tern::test::TestMessages::Seal(message);
    const ReadValue<Any> read = ReadOne<Any>(message);
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "more than 1048576 elements");
}

TEST_F(AnyValues, ReadsTheOtherByteOrder) {
    constexpr auto OTHER = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? tern::test::ByteOrder::Big
                                                                     : tern::test::ByteOrder::Little;
    WireWriter body(OTHER);
    body.Signature("(anqat)");
    body.Align(8);
    WireWriter::Array array = body.BeginArray(2);
    body.Number(std::int16_t{-2});
    body.Number(std::int16_t{513});
    body.EndArray(array);
    body.Number(std::uint16_t{7});
    array = body.BeginArray(8);
    body.Number(std::uint64_t{1} << 40);
    body.EndArray(array);
    RawMessages raw;
    const BusMessage message = raw.Deliver("v", body.Bytes(), OTHER);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(ReadOne<Any>(message).value.ToText(), "([-2, 513], 7, [1099511627776])");
}

TEST_F(AnyValues, AreWrittenAndReadAsTheyAre) {
    constexpr const char* TYPES = "uxsaya{sv}v(ib)adog";
    const BusMessage made = mMessages.Make(TYPES, 5, std::int64_t{-1}, "x", 2, 1, 2, 1, "k", "v", "s", "y",
                                           "d", 0.5, 7, 1, 1, 1.5, "/o", "as");
    std::vector<Any> values;
    Fault fault;
    unsigned index = 0;
    ASSERT_EQ(ReadAnyEach(made.get(), values, fault, index), 0);
    std::string signature;
    std::string text;
    for (const Any& value : values) {
        signature += value.GetSignature();
        text += value.ToText() + "; ";
    }
    EXPECT_EQ(signature, TYPES);
    EXPECT_EQ(text, "5; -1; \"x\"; [1, 2]; {\"k\": <<\"y\">>}; <0.5>; (7, true); [1.5]; \"/o\"; \"as\"; ");
    const BusMessage copy = mMessages.New();
    for (const Any& value : values) {
        EXPECT_GE(WriteAnyAs(copy.get(), value.GetSignature(), value, fault), 0) << value.ToText();
    }
    tern::test::TestMessages::Seal(copy);
    EXPECT_EQ(Body(copy), Body(made));
}

TEST_F(AnyValues, AreWrittenAsTheTypeThatIsWanted) {
    const auto write = [this](const char* type, const Any& any) {
        const BusMessage message = mMessages.New();
        Fault fault;
        const int result = WriteAnyAs(message.get(), type, any, fault);
        if (result < 0) {
            EXPECT_EQ(result, -EINVAL);
            return std::string(fault.text);
        }
        tern::test::TestMessages::Seal(message);
        return std::string(sd_bus_message_get_signature(message.get(), 1)) + " " +
               ReadOne<Any>(message).value.ToText();
    };
    EXPECT_EQ(write("u", Any::From(std::int32_t{5})), "'i' where 'u' is wanted");
    EXPECT_EQ(write("as", Any::From(std::vector<int>{5})), "'ai' where 'as' is wanted");
    EXPECT_EQ(write("u", Any::From(Any::From(5U))), "'v' where 'u' is wanted");
    EXPECT_EQ(write("u", Any()), "no value");
    EXPECT_EQ(write("v", Any()), "no value");
    EXPECT_EQ(write("v", Any::From(5U)), "v 5");
    EXPECT_EQ(write("v", Any::From(Any::From(5U))), "v 5");
    EXPECT_EQ(write("v", Any::From(Any::From(Any::From(5U)))), "v <5>");
    EXPECT_EQ(write("v", Any::From(std::map<std::string, int>{{"a", 1}}).At(0)),
              "'{si}' where 'v' is wanted");
}

TEST_F(AnyValues, OfAMessageAreReadAllOrNone) {
    std::vector<Any> values{Any::From(1)};
    Fault fault;
    unsigned index = 0;
    EXPECT_EQ(ReadAnyEach(mMessages.Make("uh(ss)", 1, 0, "a", "b").get(), values, fault, index), -EINVAL);
    EXPECT_STREQ(fault.text, "a file descriptor where none can be kept");
    EXPECT_EQ(index, 1U);
    EXPECT_EQ(values, (std::vector<Any>{Any::From(1)}));
    EXPECT_EQ(ReadAnyEach(mMessages.Make("").get(), values, fault, index), 0);
    EXPECT_TRUE(values.empty());
    // The limit is one for all of them together.
    const BusMessage message = mMessages.New();
    for (int i = 0; i < 2; ++i) {
        Require(sd_bus_message_open_container(message.get(), 'a', "b"), "open");
        for (std::size_t element = 0; element < MAX_ELEMENTS / 2; ++element) {
            Require(sd_bus_message_append(message.get(), "b", 1), "append");
        }
        Require(sd_bus_message_close_container(message.get()), "close");
    }
    tern::test::TestMessages::Seal(message);
    EXPECT_EQ(ReadAnyEach(message.get(), values, fault, index), -EINVAL);
    EXPECT_STREQ(fault.text, "more than 1048576 elements");
    EXPECT_EQ(index, 1U);
}

TEST_F(AnyValues, AreComposedOfParts) {
    const Any one = Any::From(1);
    const Any two = Any::From(2);
    const Any text = Any::From(std::string("x"));
    EXPECT_EQ(Any::Compose("ai", {one, two}), Any::From(std::vector<int>{1, 2}));
    EXPECT_EQ(Any::Compose("ai", {}), Any::From(std::vector<int>{}));
    EXPECT_EQ(Any::Compose("as", {text}), Any::From(std::vector<std::string>{"x"}));
    EXPECT_EQ(Any::Compose("(is)", {one, text}), Any::From(std::tuple<int, std::string>{1, "x"}));
    EXPECT_EQ(Any::Compose("(iai)", {one, Any::Compose("ai", {two})}),
              Any::From(std::tuple<int, std::vector<int>>{1, {2}}));
    EXPECT_EQ(Any::Compose("v", {one}), Any::From(one));
    EXPECT_EQ(Any::Compose("v", {Any::From(one)}), Any::From(Any::From(one)));
    EXPECT_EQ(Any::Compose("av", {one, text, Any::From(two)}), Any::From(std::vector<Any>{one, text, two}));
    EXPECT_EQ(Any::Compose("a{si}", {Any::Compose("{si}", {text, one})}),
              Any::From(std::map<std::string, int>{{"x", 1}}));
    EXPECT_EQ(Any::Compose("a{sv}", {Any::Compose("{sv}", {text, one})}),
              Any::From(std::map<std::string, Any>{{"x", one}}));
    EXPECT_EQ(Any::Compose("{si}", {text, one}), Any::From(std::map<std::string, int>{{"x", 1}}).At(0));
}

TEST_F(AnyValues, AreNotComposedOfPartsThatDoNotFit) {
    const Any one = Any::From(1);
    const Any text = Any::From(std::string("x"));
    for (const char* const signature :
         {"",   "i", "s",     "a",   "ai",   "as",    "(i)",   "(iss)", "(si)", "()", "(is",
          "is", "v", "a{si}", "{is", "{si}", "{iss}", "a(is)", "aiai",  "ah",   "?",  "a?"}) {
        EXPECT_TRUE(Any::Compose(signature, {one, text}).IsEmpty()) << signature;
    }
    EXPECT_TRUE(Any::Compose("v", {}).IsEmpty());
    EXPECT_TRUE(Any::Compose("(i)", {}).IsEmpty());
    EXPECT_TRUE(Any::Compose("v", {Any()}).IsEmpty());
    EXPECT_TRUE(Any::Compose("av", {Any()}).IsEmpty());
    EXPECT_TRUE(Any::Compose("v", {Any::Compose("{si}", {text, one})}).IsEmpty());
    Any deep = one;
    for (unsigned i = 0; i < Any::MAX_NESTING; ++i) {
        deep = Any::Compose("v", {deep});
        EXPECT_FALSE(deep.IsEmpty()) << i;
    }
    EXPECT_TRUE(Any::Compose("v", {deep}).IsEmpty());
}

TEST_F(AnyValues, AreElements) {
    Check(std::vector<Any>{Any::From(1), Any::From(std::string("x"))}, "av", 2, "i", 1, "s", "x");
    Check(std::map<std::string, Any>{{"a", Any::From(true)}}, "a{sv}", 1, "a", "b", 1);
    Check(std::tuple<int, Any>{1, Any::From(2)}, "(iv)", 1, "i", 2);
}

TEST_F(AnyValues, AreCopiedAndMoved) {
    Any first = Any::From(std::vector<std::string>{"a"});
    const Any copy = first;
    const Any moved = std::move(first);
    EXPECT_EQ(copy, moved);
    EXPECT_TRUE(first.IsEmpty());  // NOLINT(bugprone-use-after-move): that is what it is about
    EXPECT_EQ(first.ToText(), "");
    EXPECT_EQ(first.Size(), 0U);
    EXPECT_EQ(WriteResult(first), -EINVAL);
}

/// Fills the place of what comes next on the stack with what is no value.
[[gnu::noinline]] void LitterStack() {
    std::array<char, 4096> litter;
    litter.fill('A');
    asm volatile("" : : "r"(litter.data()) : "memory");
}

TEST_F(AnyValues, AreNotCopiedWithoutMemory) {
    const std::string text(100, 'x');
    const std::vector<std::pair<const char*, Any>> values{
        {"text", Any::From(text)},
        {"texts", Any::From(std::vector<std::string>{text, text})},
        {"dictionary", Any::From(std::map<std::string, std::string>{{"key", text}})},
        {"long signature", Any::From(std::tuple<int, int, int, int, int, int, int, int, int, int, int, int,
                                                int, int, int, int, std::string>{})}};
    for (const auto& [name, value] : values) {
        SCOPED_TRACE(name);
        std::size_t needed = 0;
        {
            const tern::test::AllocationCount count;
            const Any copy = value;
            needed = count.Get();
        }
        ASSERT_GT(needed, 0U);
        for (std::size_t granted = 0; granted < needed; ++granted) {
            bool isCopied = true;
            LitterStack();
            try {
                const tern::test::MemoryShortage shortage(granted);
                const Any copy = value;
            } catch (const std::bad_alloc&) {
                isCopied = false;
            }
            EXPECT_FALSE(isCopied) << granted;
        }
    }
}

TEST_F(AnyValues, KeepTheirValueWhenThereIsNoMemoryForAnotherOne) {
    const std::string text(100, 'x');
    const Any texts = Any::From(std::map<std::string, std::string>{{"key", text}, {"other", text}});
    for (const Any& former : {Any(), Any::From(5), Any::From(std::vector<std::string>{text, "b", "c"})}) {
        SCOPED_TRACE(former.ToText());
        Any value = former;
        for (std::size_t granted = 0;; ++granted) {
            try {
                const tern::test::MemoryShortage shortage(granted);
                value = texts;
                break;
            } catch (const std::bad_alloc&) {
            }
            ASSERT_EQ(value, former) << granted;
            ASSERT_EQ(value.ToText(), former.ToText());
        }
        EXPECT_EQ(value, texts);
    }
}

}  // namespace
