#include <tern/typed/codec.h>
#include <tern/typed/containers.h>

#include <numeric>

#include "round_trip.h"
#include "tests/dbus_message/raw_messages.h"

using namespace mwl::Typed;
using tern::test::Body;
using tern::test::BusMessage;
using tern::test::ByteOrder;
using tern::test::RawMessages;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;
using tern::test::WireWriter;

namespace {

class Containers : public RoundTrip {
protected:
    template <class T>
    void CheckNumbers(const char* type) {
        const std::string signature = std::string("a") + type;
        const T numbers[] = {T{0}, T{1}, std::numeric_limits<T>::max(), std::numeric_limits<T>::min()};
        const BusMessage made =
            mMessages.Make(signature.c_str(), 4, numbers[0], numbers[1], numbers[2], numbers[3]);
        const std::vector<T> values(std::begin(numbers), std::end(numbers));
        EXPECT_EQ(Body(Written(values)), Body(made));
        EXPECT_EQ(Body(Written(std::to_array(numbers))), Body(made));
        EXPECT_EQ(Body(Written(std::span<const T>(numbers))), Body(made));
        EXPECT_EQ(ReadOne<std::vector<T>>(made).value, values);
        Require(sd_bus_message_rewind(made.get(), 1), "rewind");
        EXPECT_EQ((ReadOne<std::array<T, 4>>(made).value), std::to_array(numbers));
        Require(sd_bus_message_rewind(made.get(), 1), "rewind");
        const std::span<const T> span = ReadOne<std::span<const T>>(made).value;
        EXPECT_TRUE(std::equal(span.begin(), span.end(), values.begin(), values.end()));
    }
};

TEST_F(Containers, NumbersAreWhatSdBusMakesOfThem) {
    CheckNumbers<std::uint8_t>("y");
    CheckNumbers<std::int16_t>("n");
    CheckNumbers<std::uint16_t>("q");
    CheckNumbers<std::int32_t>("i");
    CheckNumbers<std::uint32_t>("u");
    CheckNumbers<std::int64_t>("x");
    CheckNumbers<std::uint64_t>("t");
    CheckNumbers<double>("d");
}

TEST_F(Containers, OtherArraysGoByElement) {
    Check(std::vector<bool>{true, false, true}, "ab", 3, 1, 0, 1);
    Check(std::vector<std::string>{"one", "", "three"}, "as", 3, "one", "", "three");
    Check(std::vector<std::string_view>{"one", "two"}, "as", 2, "one", "two");
    Check(std::vector<ObjectPath>{ObjectPath("/a"), ObjectPath("/b")}, "ao", 2, "/a", "/b");
    Check(std::array<std::string, 2>{"one", "two"}, "as", 2, "one", "two");
    Check(std::array<bool, 2>{true, false}, "ab", 2, 1, 0);
}

TEST_F(Containers, EmptyOnesAreEmpty) {
    Check(std::vector<std::uint8_t>(), "ay", 0);
    Check(std::vector<std::uint64_t>(), "at", 0);
    Check(std::vector<std::string>(), "as", 0);
    Check(std::vector<bool>(), "ab", 0);
    Check(std::array<double, 0>(), "ad", 0);
    Check(std::map<std::string, int>(), "a{si}", 0);
    EXPECT_EQ(ReadOne<std::span<const double>>(mMessages.Make("ad", 0)).value.size(), 0U);
    EXPECT_EQ(Body(Written(std::span<const double>())), Body(mMessages.Make("ad", 0)));
}

TEST_F(Containers, WhatWasThereBeforeIsReplaced) {
    std::vector<int> numbers = {1, 2, 3};
    std::vector<std::string> texts = {"one"};
    std::map<std::string, int> map = {{"old", 1}};
    const BusMessage message = mMessages.Make("aiasa{si}", 1, 7, 0, 1, "new", 2);
    Fault fault;
    EXPECT_GT(Read(message.get(), numbers, fault), 0);
    EXPECT_GT(Read(message.get(), texts, fault), 0);
    EXPECT_GT(Read(message.get(), map, fault), 0);
    EXPECT_EQ(numbers, std::vector<int>{7});
    EXPECT_TRUE(texts.empty());
    EXPECT_EQ(map, (std::map<std::string, int>{{"new", 2}}));
}

TEST_F(Containers, NestInEachOther) {
    Check(std::vector<std::vector<int>>{{1, 2}, {}, {3}}, "aai", 3, 2, 1, 2, 0, 1, 3);
    Check(std::vector<std::vector<std::string>>{{"one"}, {}}, "aas", 2, 1, "one", 0);
    Check(std::vector<std::array<std::uint8_t, 2>>{{1, 2}, {3, 4}}, "aay", 2, 2, 1, 2, 2, 3, 4);
    Check(std::map<std::string, std::vector<int>>{{"a", {1}}, {"b", {}}}, "a{sai}", 2, "a", 1, 1, "b", 0);
    Check(std::vector<std::map<int, bool>>{{{1, true}}, {}}, "aa{ib}", 2, 1, 1, 1, 0);
    const auto message = mMessages.Make("aai", 3, 1, 5, 0, 2, 6, 7);  // what the spans point into
    const ReadValue<std::vector<std::span<const int>>> read =
        ReadOne<std::vector<std::span<const int>>>(message);
    ASSERT_EQ(read.value.size(), 3U);
    EXPECT_EQ(read.value[1].size(), 0U);
    EXPECT_EQ(read.value[2][1], 7);
}

TEST_F(Containers, DictionariesTakeEveryBasicKey) {
    Check(std::map<std::string, int>{{"a", 1}, {"b", 2}}, "a{si}", 2, "a", 1, "b", 2);
    Check(std::map<std::uint8_t, std::string>{{1, "x"}}, "a{ys}", 1, 1, "x");
    Check(std::map<bool, double>{{false, 0.5}}, "a{bd}", 1, 0, 0.5);
    Check(std::map<ObjectPath, std::string>{{ObjectPath("/a"), "x"}}, "a{os}", 1, "/a", "x");
    Check(std::unordered_map<std::string, int>{{"a", 1}}, "a{si}", 1, "a", 1);
    Check(std::unordered_map<ObjectPath, std::map<std::string, bool>>{{ObjectPath("/a"), {{"x", true}}}},
          "a{oa{sb}}", 1, "/a", 1, "x", 1);
    Check(std::map<std::string, int, std::greater<>>{{"b", 2}, {"a", 1}}, "a{si}", 2, "b", 2, "a", 1);
}

TEST_F(Containers, OfAKeyThatComesTwiceTheLastIsKept) {
    const BusMessage message = mMessages.Make("a{si}", 3, "a", 1, "b", 2, "a", 3);
    EXPECT_EQ((ReadOne<std::map<std::string, int>>(message).value),
              (std::map<std::string, int>{{"a", 3}, {"b", 2}}));
}

TEST_F(Containers, ArrayWantsItsCount) {
    const auto text = [&](const auto& read) {
        EXPECT_EQ(read.result, -EINVAL);
        return read.Text();
    };
    EXPECT_EQ(text(ReadOne<std::array<int, 3>>(mMessages.Make("ai", 2, 1, 2))),
              "2 elements where 3 are wanted");
    EXPECT_EQ(text(ReadOne<std::array<int, 3>>(mMessages.Make("ai", 4, 1, 2, 3, 4))),
              "4 elements where 3 are wanted");
    EXPECT_EQ(text(ReadOne<std::array<int, 3>>(mMessages.Make("ai", 0))), "0 elements where 3 are wanted");
    EXPECT_EQ(text(ReadOne<std::array<std::string, 2>>(mMessages.Make("as", 1, "one"))),
              "1 element where 2 are wanted");
    EXPECT_EQ(text(ReadOne<std::array<std::string, 1>>(mMessages.Make("as", 3, "1", "2", "3"))),
              "3 elements where 1 is wanted");
    EXPECT_EQ(text(ReadOne<std::array<double, 0>>(mMessages.Make("ad", 1, 0.5))),
              "1 element where 0 are wanted");
}

TEST_F(Containers, FaultTellsTheElement) {
    using Rows = std::vector<std::array<int, 2>>;
    const ReadValue<Rows> rows = ReadOne<Rows>(mMessages.Make("aai", 2, 2, 1, 2, 1, 3));
    EXPECT_EQ(rows.result, -EINVAL);
    EXPECT_EQ(rows.Text(), "1 element where 2 are wanted");
    EXPECT_EQ(rows.Where(), "[1]");
    using Map = std::map<std::string, std::vector<std::array<int, 2>>>;
    const ReadValue<Map> map = ReadOne<Map>(mMessages.Make("a{saai}", 1, "key", 3, 2, 1, 2, 2, 1, 2, 0));
    EXPECT_EQ(map.Text(), "0 elements where 2 are wanted");
    EXPECT_EQ(map.Where(), "[0][2]");
}

TEST_F(Containers, OfAnotherTypeAreRefused) {
    EXPECT_EQ(ReadOne<std::vector<int>>(mMessages.Make("au", 1, 1)).result, -ENXIO);
    EXPECT_EQ(ReadOne<std::vector<std::string>>(mMessages.Make("ao", 1, "/a")).result, -ENXIO);
    EXPECT_EQ((ReadOne<std::array<int, 1>>(mMessages.Make("au", 1, 1)).result), -ENXIO);
    EXPECT_EQ(ReadOne<std::span<const int>>(mMessages.Make("au", 1, 1)).result, -ENXIO);
    EXPECT_EQ((ReadOne<std::map<std::string, int>>(mMessages.Make("a{su}", 1, "a", 1)).result), -ENXIO);
    EXPECT_EQ((ReadOne<std::map<std::string, int>>(mMessages.Make("as", 1, "a")).result), -ENXIO);
    EXPECT_EQ(ReadOne<std::vector<bool>>(mMessages.Make("i", 1)).result, -ENXIO);
}

TEST_F(Containers, BadTextIsRefusedWhereverItIs) {
    EXPECT_EQ(WriteResult(std::vector<std::string>{"good", "\xff"}), -EINVAL);
    EXPECT_EQ(WriteResult(std::map<std::string, int>{{"\xff", 1}}), -EINVAL);
    EXPECT_EQ(WriteResult(std::map<int, std::string>{{1, "\xff"}}), -EINVAL);
    EXPECT_EQ(WriteResult(std::tuple<int, std::string>{1, "\xff"}), -EINVAL);
}

TEST_F(Containers, SpanPointsIntoTheMessage) {
    const BusMessage message = mMessages.Make("at", 2, std::uint64_t{1}, std::uint64_t{2});
    const void* inMessage = nullptr;
    std::size_t size = 0;
    Require(sd_bus_message_read_array(message.get(), 't', &inMessage, &size), "read_array");
    Require(sd_bus_message_rewind(message.get(), 1), "rewind");
    EXPECT_EQ(ReadOne<std::span<const std::uint64_t>>(message).value.data(), inMessage);
}

TEST_F(Containers, LargeOnesArrive) {
    for (const std::size_t size : {std::size_t{65} * 1024, MAX_ELEMENTS}) {
        std::vector<std::uint8_t> bytes(size);
        std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
        EXPECT_TRUE(ReadOne<std::vector<std::uint8_t>>(Written(bytes)).value == bytes);
        const std::string text(size, 'x');
        EXPECT_TRUE(ReadOne<std::string>(Written(text)).value == text);
    }
    std::vector<std::string> texts(20000, "a text that is longer than what a string keeps in itself");
    EXPECT_TRUE(ReadOne<std::vector<std::string>>(Written(texts)).value == texts);
    std::vector<double> numbers(100000, 0.5);
    EXPECT_TRUE(ReadOne<std::vector<double>>(Written(numbers)).value == numbers);
}

TEST_F(Containers, HaveALimitWhenSent) {
    const std::vector<std::uint8_t> bytes(MAX_ELEMENTS + 1);
    EXPECT_EQ(WriteResult(bytes), -E2BIG);
    EXPECT_EQ(WriteResult(std::span<const std::uint8_t>(bytes)), -E2BIG);
    EXPECT_EQ(WriteResult(std::vector<bool>(MAX_ELEMENTS + 1)), -E2BIG);
    EXPECT_GE(WriteResult(std::vector<bool>(MAX_ELEMENTS)), 0);
    std::map<std::uint32_t, std::uint8_t> map;
    for (std::uint32_t i = 0; i <= MAX_ELEMENTS; ++i) {
        map.emplace_hint(map.end(), i, std::uint8_t{0});
    }
    EXPECT_EQ(WriteResult(map), -E2BIG);
}

TEST_F(Containers, HaveALimitWhenRead) {
    const auto refused = [](const auto& read) {
        EXPECT_EQ(read.result, -EINVAL);
        return read.Text() == "more than 1048576 elements";
    };
    const BusMessage bytes = mMessages.New();
    void* space = nullptr;
    Require(sd_bus_message_append_array_space(bytes.get(), 'y', MAX_ELEMENTS + 1, &space), "append");
    std::memset(space, 0, MAX_ELEMENTS + 1);
    tern::test::TestMessages::Seal(bytes);
    EXPECT_TRUE(refused(ReadOne<std::vector<std::uint8_t>>(bytes)));
    Require(sd_bus_message_rewind(bytes.get(), 1), "rewind");
    EXPECT_TRUE(refused(ReadOne<std::span<const std::uint8_t>>(bytes)));
    Require(sd_bus_message_rewind(bytes.get(), 1), "rewind");
    EXPECT_TRUE(refused(ReadOne<std::array<std::uint8_t, 4>>(bytes)));

    // Over a socket, as sd-bus appends element by element slowly.
    RawMessages raw;
    for (const std::size_t count : {MAX_ELEMENTS, MAX_ELEMENTS + 1}) {
        WireWriter body;
        const WireWriter::Array array = body.BeginArray(4);
        for (std::size_t i = 0; i < count; ++i) {
            body.Uint32(1);
        }
        body.EndArray(array);
        const BusMessage message = raw.Deliver("ab", body.Bytes());
        ASSERT_NE(message, nullptr);
        const ReadValue<std::vector<bool>> read = ReadOne<std::vector<bool>>(message);
        if (count == MAX_ELEMENTS) {
            EXPECT_GT(read.result, 0);
            EXPECT_EQ(read.value.size(), MAX_ELEMENTS);
        } else {
            EXPECT_TRUE(refused(read));
        }
    }
    WireWriter body;
    const WireWriter::Array array = body.BeginArray(8);
    for (std::size_t i = 0; i <= MAX_ELEMENTS; ++i) {
        body.Align(8);
        body.Byte(0);
        body.Byte(0);
    }
    body.EndArray(array);
    const BusMessage message = raw.Deliver("a{yy}", body.Bytes());
    ASSERT_NE(message, nullptr);
    EXPECT_TRUE(refused(ReadOne<std::map<std::uint8_t, std::uint8_t>>(message)));
}

// sd-bus hands out such an array as it is: 20 bytes of two and a half numbers were copied over the end of
// two.
TEST_F(Containers, WithAPartOfAnElementAreRefused) {
    RawMessages raw;
    const auto deliver = [&raw](std::string_view signature, std::string_view contents, std::size_t bytes) {
        WireWriter body;
        if (signature == "v") {
            body.Signature(contents);
        }
        const WireWriter::Array array = body.BeginArray(8);
        for (std::size_t i = 0; i < bytes; ++i) {
            body.Byte(0);
        }
        body.EndArray(array);
        BusMessage message = raw.Deliver(signature, body.Bytes());
        EXPECT_NE(message, nullptr);
        return message;
    };
    EXPECT_EQ((ReadOne<std::array<double, 2>>(deliver("ad", "", 20)).result), -EBADMSG);
    EXPECT_EQ(ReadOne<std::vector<double>>(deliver("ad", "", 20)).result, -EBADMSG);
    EXPECT_EQ(ReadOne<std::span<const double>>(deliver("ad", "", 20)).result, -EBADMSG);
    EXPECT_EQ(ReadOne<Any>(deliver("v", "ad", 20)).result, -EBADMSG);
    EXPECT_GT((ReadOne<std::array<double, 2>>(deliver("ad", "", 16)).result), 0);
    EXPECT_GT(ReadOne<Any>(deliver("v", "ad", 16)).result, 0);
}

constexpr ByteOrder OTHER = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ByteOrder::Big : ByteOrder::Little;

class OtherByteOrder : public Containers {
protected:
    template <class T>
    BusMessage Deliver(const char* type, const std::vector<T>& values) {
        const std::string signature = std::string("a") + type;
        WireWriter body(OTHER);
        const WireWriter::Array array = body.BeginArray(sizeof(T));
        for (const T value : values) {
            body.Number(value);
        }
        body.EndArray(array);
        BusMessage message = mRaw.Deliver(signature, body.Bytes(), OTHER);
        EXPECT_NE(message, nullptr);
        return message;
    }

    template <class T>
    void CheckNumbers(const char* type) {
        SCOPED_TRACE(type);
        const std::vector<T> values = {T{1}, T{2}, std::numeric_limits<T>::max(),
                                       std::numeric_limits<T>::min()};
        EXPECT_EQ(ReadOne<std::vector<T>>(Deliver(type, values)).value, values);
        const ReadValue<std::array<T, 4>> read = ReadOne<std::array<T, 4>>(Deliver(type, values));
        EXPECT_GT(read.result, 0);
        EXPECT_TRUE(std::equal(values.begin(), values.end(), read.value.begin()));
        EXPECT_TRUE(ReadOne<std::vector<T>>(Deliver(type, std::vector<T>())).value.empty());
        const ReadValue<std::array<T, 3>> wrong = ReadOne<std::array<T, 3>>(Deliver(type, values));
        EXPECT_EQ(wrong.result, -EINVAL);
        EXPECT_EQ(wrong.Text(), "4 elements where 3 are wanted");
        const ReadValue<std::span<const T>> span = ReadOne<std::span<const T>>(Deliver(type, values));
        EXPECT_EQ(span.result, -EOPNOTSUPP);
        EXPECT_EQ(span.Text(), "an array of the other byte order cannot be borrowed");
    }

    RawMessages mRaw;
};

TEST_F(OtherByteOrder, ArraysAreReadByElement) {
    CheckNumbers<std::uint8_t>("y");
    CheckNumbers<std::int16_t>("n");
    CheckNumbers<std::uint16_t>("q");
    CheckNumbers<std::int32_t>("i");
    CheckNumbers<std::uint32_t>("u");
    CheckNumbers<std::int64_t>("x");
    CheckNumbers<std::uint64_t>("t");
}

TEST_F(OtherByteOrder, EverythingElseIsReadAsEver) {
    WireWriter body(OTHER);
    body.Uint32(7);
    body.String("text");
    body.Number(std::uint64_t{0x3fe0000000000000});  // 0.5
    const WireWriter::Array array = body.BeginArray(8);
    body.Align(8);
    body.String("Level");
    body.Signature("q");
    body.Number(std::uint16_t{513});
    body.EndArray(array);
    const BusMessage message = mRaw.Deliver("usda{sv}", body.Bytes(), OTHER);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(ReadOne<std::uint32_t>(message).value, 7U);
    EXPECT_EQ(ReadOne<std::string>(message).value, "text");
    EXPECT_EQ(ReadOne<double>(message).value, 0.5);
    const auto map = ReadOne<std::map<std::string, Any>>(message).value;
    EXPECT_EQ(map.at("Level").As<std::uint16_t>(), 513);
}

}  // namespace
