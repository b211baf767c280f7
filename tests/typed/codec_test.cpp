#include <tern/typed/codec.h>

#include <chrono>

#include "round_trip.h"
#include "support/private_bus.h"

using namespace mwl::Typed;

// A codec of one's own: any period, as its number.
template <class Number, class Period>
struct mwl::Typed::Codec<std::chrono::duration<Number, Period>> {
    using Duration = std::chrono::duration<Number, Period>;
    static constexpr auto SIGNATURE = Codec<Number>::SIGNATURE;
    static int Write(sd_bus_message* message, const Duration& value) {
        return Codec<Number>::Write(message, value.count());
    }
    static int Read(sd_bus_message* message, Duration& value, Fault& fault) {
        Number number{};
        const int result = Codec<Number>::Read(message, number, fault);
        value = Duration(number);
        return result;
    }
};

namespace {

/// A type with a rule of its own.
class Even {
public:
    Even() = default;
    explicit Even(std::uint32_t number) : mNumber(number) {}
    std::uint32_t Get() const { return mNumber; }
    bool operator==(const Even&) const = default;
    auto operator<=>(const Even&) const = default;

private:
    std::uint32_t mNumber = 0;
};

/// An aggregate that is one text on the bus, not a structure.
struct Colour {
    int red = 0;
    int green = 0;
    bool operator==(const Colour&) const = default;
};

}  // namespace

template <>
struct mwl::Typed::Codec<Even> : Codec<std::uint32_t> {
    static int Write(sd_bus_message* message, const Even& value) {
        return value.Get() % 2 == 0 ? Codec<std::uint32_t>::Write(message, value.Get()) : -EINVAL;
    }
    static int Read(sd_bus_message* message, Even& value, Fault& fault) {
        std::uint32_t number = 0;
        const int result = Codec<std::uint32_t>::Read(message, number, fault);
        if (result > 0 && number % 2 != 0) {
            return fault.Refuse("an odd number");
        }
        value = Even(number);
        return result;
    }
};

template <>
struct mwl::Typed::Codec<Colour> {
    static constexpr Text SIGNATURE = "s";
    static int Write(sd_bus_message* message, const Colour& value) {
        return AppendText(message, 's', std::to_string(value.red) + "/" + std::to_string(value.green));
    }
    static int Read(sd_bus_message* message, Colour& value, Fault& fault) {
        std::string_view text;
        const int result = Codec<std::string_view>::Read(message, text, fault);
        if (result > 0 && sscanf(text.data(), "%d/%d", &value.red, &value.green) != 2) {
            return fault.Refuse("no colour");
        }
        return result;
    }
};

using tern::test::BusMessage;
using tern::test::ReadOne;
using tern::test::ReadValue;
using tern::test::Require;
using tern::test::RoundTrip;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Ticks = std::chrono::duration<std::uint32_t, std::milli>;

class OwnCodec : public RoundTrip {};

TEST_F(OwnCodec, IsUsedForItsType) {
    Check(seconds(5), "x", std::int64_t{5});
    Check(Ticks(7), "u", 7);
    Check(std::chrono::duration<double>(0.5), "d", 0.5);
    Check(Even(4), "u", 4);
    Check(Colour{1, 2}, "s", "1/2");
}

TEST_F(OwnCodec, IsUsedInEverything) {
    struct Timer {
        seconds period{};
        std::optional<milliseconds> slack;
        static constexpr auto DBusFields() {
            return Fields(Field("Period", &Timer::period), Field("Slack", &Timer::slack));
        }
        bool operator==(const Timer&) const = default;
    };
    Check(Timer{seconds(5), milliseconds(7)}, "a{sv}", 2, "Period", "x", std::int64_t{5}, "Slack", "x",
          std::int64_t{7});
    Check(std::vector<seconds>{seconds(1), seconds(2)}, "ax", 2, std::int64_t{1}, std::int64_t{2});
    Check(std::map<Even, Colour>{{Even(2), {1, 2}}}, "a{us}", 1, 2, "1/2");
    Check(std::tuple<Colour, Ticks>{{1, 2}, Ticks(3)}, "(su)", "1/2", 3);
    Check(std::variant<int, Colour>(Colour{1, 2}), "v", "s", "1/2");
    EXPECT_EQ(Any::From(seconds(5)), Any::From(std::int64_t{5}));
    EXPECT_EQ(Any::From(seconds(5)).As<seconds>(), seconds(5));
}

// It inherits the codec of the number, but its elements have to be looked at all the same.
TEST_F(OwnCodec, LooksAtEachElement) {
    Check(std::vector<Even>{Even(2), Even(4)}, "au", 2, 2, 4);
    EXPECT_EQ(WriteResult(std::vector<Even>{Even(2), Even(3)}), -EINVAL);
    const ReadValue<std::vector<Even>> read = ReadOne<std::vector<Even>>(mMessages.Make("au", 2, 2, 3));
    EXPECT_EQ(read.result, -EINVAL);
    EXPECT_EQ(read.Text(), "an odd number");
    EXPECT_EQ(read.Where(), "[1]");
}

// What the library checks before it sends, a message bus would answer with the end of the connection.
TEST(Codec, ConnectionSurvivesTextThatCannotBeSent) {
    const tern::test::PrivateBus daemon;
    sd_bus* opened = nullptr;
    Require(sd_bus_open_system(&opened), "sd_bus_open_system");
    const tern::test::Bus bus(opened);
    for (const std::string& bad :
         {std::string("\xff\xfe"), std::string("a\0b", 3), std::string("\xed\xa0\x80")}) {
        sd_bus_message* made = nullptr;
        Require(sd_bus_message_new_signal(bus.get(), &made, "/a", "com.example.Test", "Changed"),
                "new_signal");
        const BusMessage message(made);
        EXPECT_EQ(Write(message.get(), bad), -EINVAL);
        sd_bus_message* reply = nullptr;
        const int result = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "GetId", nullptr, &reply, "");
        const BusMessage owner(reply);
        EXPECT_GE(result, 0);
        EXPECT_TRUE(sd_bus_is_open(bus.get()));
    }
    // The control: what such text does where nobody checks.
    sd_bus_message* made = nullptr;
    Require(sd_bus_message_new_signal(bus.get(), &made, "/a", "com.example.Test", "Changed"), "new_signal");
    const BusMessage message(made);
    char* space = nullptr;
    Require(sd_bus_message_append_string_space(message.get(), 2, &space), "append_string_space");
    std::memcpy(space, "\xff\xfe", 2);
    Require(sd_bus_send(bus.get(), message.get(), nullptr), "send");
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus", "GetId", nullptr, &reply, "");
    const BusMessage owner(reply);
    EXPECT_LT(result, 0);
}

// Through a real message bus, to oneself: what arrives is what was sent.
TEST(Codec, ValuesPassAMessageBus) {
    const tern::test::PrivateBus daemon;
    sd_bus* opened = nullptr;
    Require(sd_bus_open_system(&opened), "sd_bus_open_system");
    const tern::test::Bus bus(opened);
    const char* name = nullptr;
    Require(sd_bus_get_unique_name(bus.get(), &name), "get_unique_name");
    using Value =
        std::tuple<std::map<std::string, Any>, std::vector<Colour>, std::vector<double>, std::string, bool>;
    const Value sent{{{"Level", Any::From(5U)}, {"Names", Any::From(std::vector<std::string>{"a", "b"})}},
                     {{1, 2}},
                     std::vector<double>(20000, 0.5),
                     std::string(100000, 'x'),
                     true};
    sd_bus_message* made = nullptr;
    Require(sd_bus_message_new_signal(bus.get(), &made, "/a", "com.example.Test", "Changed"), "new_signal");
    const BusMessage message(made);
    Require(sd_bus_message_set_destination(made, name), "set_destination");
    Require(Write(made, sent), "Write");
    Require(sd_bus_send(bus.get(), made, nullptr), "send");
    for (;;) {
        sd_bus_message* received = nullptr;
        const int processed = sd_bus_process(bus.get(), &received);
        ASSERT_GE(processed, 0);
        const BusMessage owner(received);
        if (received != nullptr && sd_bus_message_is_signal(received, "com.example.Test", "Changed") > 0) {
            const ReadValue<Value> read = ReadOne<Value>(owner);
            EXPECT_GT(read.result, 0);
            EXPECT_TRUE(read.value == sent);
            break;
        }
        if (processed == 0) {
            ASSERT_GT(sd_bus_wait(bus.get(), 10'000'000), 0) << "nothing arrived";
        }
    }
}

}  // namespace
