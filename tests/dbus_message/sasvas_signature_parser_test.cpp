#include <tern/dbus_message/sasvas_signature_parser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/wait_until.h"
#include "test_messages.h"

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::Bus;
using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::LogCapture;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(SASVASsignatureParser, ReadsNameAndDictionaryAndLeavesTheStrings) {
    TestMessages messages;
    const BusMessage message = messages.Make("sa{sv}as", "org.example.If", 1, "State", "s", "up", 1, "Gone");
    const LogCapture log;
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.GetName(), "");
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetName(), "org.example.If");
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_State"));
    std::string state;
    EXPECT_EQ(parser.GetValuesList().GetString("_State", state), StatusCode::Ok);
    EXPECT_EQ(state, "up");
    EXPECT_THAT(parser.GetStrings(), IsEmpty());
    EXPECT_THAT(log.Entries(), ElementsAre(Trace("Service", "properties=org.example.If"),
                                           Trace("Parser", "[ReadString] keyName=State, value=up")));
    // The strings are where the reading ended.
    EXPECT_EQ(sd_bus_message_enter_container(message.get(), 'a', "s"), 1);
}

TEST(SASVASsignatureParser, ABodyWithoutANameIsRefused) {
    TestMessages messages;
    const BusMessage message = messages.Make("i", 5);
    const LogCapture log;
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENXIO);
    EXPECT_EQ(parser.GetName(), "");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service",
                                  "Failure sd_bus_message_read_basic(string), ret=(-6, No such "
                                  "device or address)")));
}

TEST(SASVASsignatureParser, ABodyWithoutADictionaryKeepsTheName) {
    TestMessages messages;
    const BusMessage message = messages.Make("si", "org.example.If", 5);
    const LogCapture log(6);
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENXIO);
    EXPECT_EQ(parser.GetName(), "org.example.If");
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ReadArrayOfDictionaries] Failure "
                                  "sd_bus_message_enter_container({sv}), ret=(-6, No such device or "
                                  "address)")));
}

TEST(SASVASsignatureParser, AtTheEndOfAContainerNothingIsRead) {
    TestMessages messages;
    const BusMessage message = messages.Make("as", 0);
    Require(sd_bus_message_enter_container(message.get(), 'a', "s"), "enter");
    const LogCapture log;
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetName(), "");
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(SASVASsignatureParser, AnArrayThatEndsBehindTheNameIsNoFailure) {
    TestMessages messages;
    const BusMessage message = messages.Make("as", 1, "org.example.If");
    Require(sd_bus_message_enter_container(message.get(), 'a', "s"), "enter");
    SASVASsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetName(), "org.example.If");
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
}

TEST(SASVASsignatureParser, ValuesAreReachableForChange) {
    SASVASsignatureParser parser(nullptr);
    EXPECT_EQ(parser.ParseMessage(), -EINVAL);
    parser.GetValuesList().AddValueInt32("own", 1);
    EXPECT_TRUE(static_cast<const SASVASsignatureParser&>(parser).GetValuesList().Contains("own"));
    EXPECT_TRUE(std::has_virtual_destructor_v<SASVASsignatureParser>);
}

Bus OpenSystemBus() {
    sd_bus* bus = nullptr;
    Require(sd_bus_open_system(&bus), "sd_bus_open_system");
    return Bus(bus);
}

TEST(SASVASsignatureParser, ReadsASignalThatCameOverABus) {
    const ::tern::test::PrivateBus daemon;
    const Bus sender = OpenSystemBus();
    const Bus receiver = OpenSystemBus();
    struct Seen {
        int result = -1;
        std::string name;
        std::vector<std::string> keys;
    } seen;
    const auto take = [](sd_bus_message* message, void* data, sd_bus_error*) {
        SASVASsignatureParser parser(message);
        const int result = parser.ParseMessage();
        *static_cast<Seen*>(data) = {result, parser.GetName(), parser.GetValuesList().Keys()};
        return 0;
    };
    Require(sd_bus_match_signal(receiver.get(), nullptr, nullptr, "/org/example",
                                "org.freedesktop.DBus.Properties", "PropertiesChanged", take, &seen),
            "match");
    Require(sd_bus_emit_signal(sender.get(), "/org/example", "org.freedesktop.DBus.Properties",
                               "PropertiesChanged", "sa{sv}as", "org.example.If", 2, "State", "s", "up",
                               "Limits", "a{sv}", 1, "Max", "d", 0.5, 1, "Gone"),
            "emit");
    Require(sd_bus_flush(sender.get()), "flush");
    EXPECT_TRUE(::tern::test::WaitUntil([&] {
        Require(sd_bus_process(receiver.get(), nullptr), "process");
        return seen.result != -1;
    }));
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.name, "org.example.If");
    EXPECT_THAT(seen.keys, ElementsAre("_Limits_Max", "_State"));
}

}  // namespace
}  // namespace mw::tern::DBusMessage
