#include <tern/typed/codec.h>
#include <tern/typed/fields.h>

#include "round_trip.h"
#include "support/process_resources.h"

using namespace mwl::Typed;
using tern::test::Body;
using tern::test::BusMessage;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::RoundTrip;

namespace {

struct Options {
    std::uint32_t seconds = 0;
    std::string zone;
    std::optional<double> level;
    std::optional<std::vector<std::string>> notes;

    static constexpr auto DBusFields() {
        return Fields(Field("Seconds", &Options::seconds), Field("Zone", &Options::zone),
                      Field("Level", &Options::level), Field("Notes", &Options::notes));
    }
    bool operator==(const Options&) const = default;
};

struct Strict {
    std::uint32_t seconds = 0;
    std::optional<bool> loud;

    static constexpr auto DBusFields() {
        return StrictFields(Field("Seconds", &Strict::seconds), Field("Loud", &Strict::loud));
    }
    bool operator==(const Strict&) const = default;
};

struct Outer {
    Options inner;
    std::vector<Options> more;
    std::map<std::string, Strict> named;

    static constexpr auto DBusFields() {
        return Fields(Field("Inner", &Outer::inner), Field("More", &Outer::more),
                      Field("Named", &Outer::named));
    }
    bool operator==(const Outer&) const = default;
};

struct Loose {
    Any anything;
    std::variant<std::int32_t, std::string> either;
    std::optional<Any> maybe;

    static constexpr auto DBusFields() {
        return Fields(Field("Anything", &Loose::anything), Field("Either", &Loose::either),
                      Field("Maybe", &Loose::maybe));
    }
    bool operator==(const Loose&) const = default;
};

class Dictionaries : public RoundTrip {};

TEST_F(Dictionaries, AreTheAggregatesFields) {
    Check(Options{5, "hall", 0.5, std::vector<std::string>{"a"}}, "a{sv}", 4, "Seconds", "u", 5, "Zone", "s",
          "hall", "Level", "d", 0.5, "Notes", "as", 1, "a");
    Check(Options{5, "hall", {}, {}}, "a{sv}", 2, "Seconds", "u", 5, "Zone", "s", "hall");
    Check(Strict{5, true}, "a{sv}", 2, "Seconds", "u", 5, "Loud", "b", 1);
}

TEST_F(Dictionaries, AreReadInAnyOrder) {
    const BusMessage message =
        mMessages.Make("a{sv}", 3, "Level", "d", 0.5, "Zone", "s", "hall", "Seconds", "u", 5);
    EXPECT_EQ(ReadOne<Options>(message).value, (Options{5, "hall", 0.5, {}}));
}

TEST_F(Dictionaries, OptionalFieldsThatAreMissingAreEmpty) {
    Options options{1, "old", 7.5, std::vector<std::string>{"old"}};
    Fault fault;
    const BusMessage message = mMessages.Make("a{sv}", 2, "Seconds", "u", 5, "Zone", "s", "hall");
    EXPECT_GT(Read(message.get(), options, fault), 0);
    EXPECT_EQ(options, (Options{5, "hall", {}, {}}));
}

TEST_F(Dictionaries, RequiredFieldsThatAreMissingAreTold) {
    const ReadValue<Options> one = ReadOne<Options>(mMessages.Make("a{sv}", 1, "Seconds", "u", 5));
    EXPECT_EQ(one.result, -EINVAL);
    EXPECT_EQ(one.Text(), "the key 'Zone' is missing");
    EXPECT_EQ(one.Where(), "");
    const ReadValue<Options> all = ReadOne<Options>(mMessages.Make("a{sv}", 0));
    EXPECT_EQ(all.result, -EINVAL);
    EXPECT_EQ(all.Text(), "the key 'Seconds' is missing");
}

TEST_F(Dictionaries, FieldsOfAnotherTypeAreToldWithTheirKey) {
    const ReadValue<Options> required =
        ReadOne<Options>(mMessages.Make("a{sv}", 2, "Zone", "s", "hall", "Seconds", "s", "5"));
    EXPECT_EQ(required.result, -EINVAL);
    EXPECT_EQ(required.Text(), "'s' where 'u' is wanted");
    EXPECT_EQ(required.Where(), ".Seconds");
    const ReadValue<Options> optional = ReadOne<Options>(mMessages.Make("a{sv}", 1, "Level", "v", "d", 0.5));
    EXPECT_EQ(optional.result, -EINVAL);
    EXPECT_EQ(optional.Text(), "'v' where 'd' is wanted");
    EXPECT_EQ(optional.Where(), ".Level");
}

TEST_F(Dictionaries, UnknownKeysAreSkippedUnlessStrict) {
    const BusMessage lax = mMessages.Make("a{sv}", 4, "Future", "a{sv}", 1, "x", "as", 2, "a", "b", "Zone",
                                          "s", "hall", "seconds", "s", "not the key", "Seconds", "u", 5);
    EXPECT_EQ(ReadOne<Options>(lax).value, (Options{5, "hall", {}, {}}));
    const ReadValue<Strict> strict =
        ReadOne<Strict>(mMessages.Make("a{sv}", 2, "Seconds", "u", 5, "Minutes", "u", 5));
    EXPECT_EQ(strict.result, -EINVAL);
    EXPECT_EQ(strict.Text(), "the key 'Minutes' is unknown");
    EXPECT_EQ(ReadOne<Strict>(mMessages.Make("a{sv}", 1, "Seconds", "u", 5)).value, (Strict{5, {}}));
}

TEST_F(Dictionaries, OfAKeyThatComesTwiceTheLastCounts) {
    const BusMessage message =
        mMessages.Make("a{sv}", 4, "Seconds", "u", 1, "Loud", "b", 1, "Seconds", "u", 2, "Loud", "b", 0);
    EXPECT_EQ(ReadOne<Strict>(message).value, (Strict{2, false}));
}

TEST_F(Dictionaries, NestAndTellTheWay) {
    const Outer outer{{1, "a", {}, {}}, {{2, "b", 0.5, {}}}, {{"n", {3, {}}}}};
    const BusMessage message = Written(outer);
    EXPECT_EQ(Body(message),
              Body(mMessages.Make("a{sv}", 3, "Inner", "a{sv}", 2, "Seconds", "u", 1, "Zone", "s", "a",
                                  "More", "aa{sv}", 1, 3, "Seconds", "u", 2, "Zone", "s", "b", "Level", "d",
                                  0.5, "Named", "a{sa{sv}}", 1, "n", 1, "Seconds", "u", 3)));
    EXPECT_EQ(ReadOne<Outer>(message).value, outer);
    const ReadValue<Outer> wrong = ReadOne<Outer>(mMessages.Make(
        "a{sv}", 1, "More", "aa{sv}", 2, 2, "Seconds", "u", 1, "Zone", "s", "a", 1, "Zone", "i", 5));
    EXPECT_EQ(wrong.result, -EINVAL);
    EXPECT_EQ(wrong.Where(), ".More[1].Zone");
    EXPECT_EQ(wrong.Text(), "'i' where 's' is wanted");
}

TEST_F(Dictionaries, VariantFieldsAreTheEntrysVariant) {
    Check(Loose{Any::From(5U), std::string("text"), {}}, "a{sv}", 2, "Anything", "u", 5, "Either", "s",
          "text");
    Check(Loose{Any::From(Any::From(5U)), 7, Any::From(true)}, "a{sv}", 3, "Anything", "v", "u", 5, "Either",
          "i", 7, "Maybe", "b", 1);
    const ReadValue<Loose> wrong = ReadOne<Loose>(mMessages.Make("a{sv}", 1, "Either", "d", 0.5));
    EXPECT_EQ(wrong.result, -EINVAL);
    EXPECT_EQ(wrong.Text(), "'d' where 'i' or 's' is wanted");
    EXPECT_EQ(wrong.Where(), ".Either");
}

TEST_F(Dictionaries, OfAnotherTypeAreRefused) {
    EXPECT_EQ(ReadOne<Options>(mMessages.Make("a{ss}", 0)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Options>(mMessages.Make("a{su}", 1, "Seconds", 5)).result, -ENXIO);
    EXPECT_EQ(ReadOne<Options>(mMessages.Make("v", "a{sv}", 0)).result, -ENXIO);
}

TEST_F(Dictionaries, AreElements) {
    const std::vector<Strict> values = {{1, {}}, {2, true}};
    Check(values, "aa{sv}", 2, 1, "Seconds", "u", 1, 2, "Seconds", "u", 2, "Loud", "b", 1);
}

TEST_F(Dictionaries, BadTextIsRefused) {
    EXPECT_EQ(WriteResult(Options{5, "\xff", {}, {}}), -EINVAL);
    EXPECT_EQ(WriteResult(Loose()), -EINVAL);  // an empty Any
}

TEST_F(Dictionaries, DescriptorsAreFieldsToo) {
    struct WithFd {
        std::optional<OwnedFd> log;
        static constexpr auto DBusFields() { return Fields(Field("Log", &WithFd::log)); }
    };
    const std::size_t before = tern::test::CountDescriptors();
    {
        const ReadValue<WithFd> read =
            ReadOne<WithFd>(mMessages.Make("a{sv}", 2, "Log", "h", 0, "Log", "h", 0));
        EXPECT_GT(read.result, 0);
        EXPECT_TRUE(read.value.log && *read.value.log);
        EXPECT_EQ(tern::test::CountDescriptors(), before + 1);
    }
    EXPECT_EQ(tern::test::CountDescriptors(), before);
}

TEST(Borrows, LooksIntoFields) {
    struct View {
        std::optional<std::string_view> text;
        static constexpr auto DBusFields() { return Fields(Field("Text", &View::text)); }
    };
    static_assert(BORROWS<View> && !BORROWS<Options> && !BORROWS<Outer>);
}

}  // namespace
