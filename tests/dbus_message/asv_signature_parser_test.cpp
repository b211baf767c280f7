#include <tern/dbus_message/asv_signature_parser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "test_messages.h"

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::LogCapture;
using ::tern::test::TestMessages;
using ::testing::ElementsAre;

TEST(ASVsignatureParser, StoresEachEntryBehindOneSeparator) {
    TestMessages messages;
    const BusMessage message =
        messages.Make("a{sv}", 2, "Volume", "i", 5, "Network", "a{sv}", 1, "Port", "q", 80);
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_Network_Port", "_Volume"));
}

TEST(ASVsignatureParser, AnEmptyArrayIsASuccess) {
    TestMessages messages;
    const BusMessage message = messages.Make("a{sv}", 0);
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
}

TEST(ASVsignatureParser, AMessageCanBeGivenLaterAndASecondOneAdds) {
    TestMessages messages;
    const BusMessage first = messages.Make("a{sv}", 2, "A", "i", 1, "B", "i", 2);
    const BusMessage second = messages.Make("a{sv}", 2, "A", "i", 7, "C", "i", 3);
    ASVsignatureParser parser;
    EXPECT_EQ(parser.ParseMessage(), -EINVAL);
    parser.SetMessage(first.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    parser.SetMessage(second.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_A", "_B", "_C"));
    int value = 0;
    EXPECT_EQ(parser.GetValuesList().GetInt32("_A", value), StatusCode::Ok);
    EXPECT_EQ(value, 1);  // the first one stays
}

TEST(ASVsignatureParser, AnotherBodyIsRefused) {
    TestMessages messages;
    const BusMessage message = messages.Make("s", "text");
    const LogCapture log;
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENXIO);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ReadArrayOfDictionaries] Failure "
                                  "sd_bus_message_enter_container({sv}), ret=(-6, No such device or "
                                  "address)")));
}

TEST(ASVsignatureParser, ReadingTwiceFailsBehindTheBody) {
    TestMessages messages;
    const BusMessage message = messages.Make("a{sv}", 1, "A", "i", 1);
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.ParseMessage(), -ENXIO);
    EXPECT_EQ(parser.GetValuesList().Size(), 1U);
}

}  // namespace
}  // namespace mw::tern::DBusMessage
