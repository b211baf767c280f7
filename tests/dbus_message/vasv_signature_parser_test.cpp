#include <tern/dbus_message/vasv_signature_parser.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "test_messages.h"

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::Info;
using ::tern::test::LogCapture;
using ::tern::test::TestMessages;
using ::testing::ElementsAre;

TEST(VASVsignatureParser, StoresTheEntriesBehindTwoSeparators) {
    TestMessages messages;
    const BusMessage message = messages.Make("v", "a{sv}", 2, "A", "i", 1, "D", "a{sv}", 1, "B", "i", 2);
    VASVsignatureParser parser(message.get());
    EXPECT_GE(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("__A", "__D_B"));
    int value = 0;
    EXPECT_EQ(parser.GetValuesList().GetInt32("__A", value), StatusCode::Ok);
    EXPECT_EQ(value, 1);
}

TEST(VASVsignatureParser, StoresABasicTypeUnderOneSeparator) {
    TestMessages messages;
    const BusMessage message = messages.Make("v", "s", "text");
    VASVsignatureParser parser;
    parser.SetMessage(message.get());
    EXPECT_GE(parser.ParseMessage(), 0);
    std::string value;
    EXPECT_EQ(parser.GetValuesList().GetString("_", value), StatusCode::Ok);
    EXPECT_EQ(value, "text");
}

TEST(VASVsignatureParser, UnsupportedContentIsASuccessWithoutValues) {
    TestMessages messages;
    const BusMessage message = messages.Make("v", "ai", 1, 5);
    const LogCapture log;
    VASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Info("Parser", "[ReadVariantContent] Unsupported type, update this method")));
}

void ExpectRefused(const BusMessage& message, int result, const std::string& shown) {
    const LogCapture log;
    VASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), result);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Parser", "[ReadVariant] Failure sd_bus_message_enter_container, ret=" + shown),
                    Error("VASVsignatureParser", "[ParseMessage] Failure ReadVariant ', ret=" + shown)));
}

TEST(VASVsignatureParser, AnotherBodyIsRefusedWithTheStrayQuote) {
    TestMessages messages;
    ExpectRefused(messages.Make("s", "text"), -ENXIO, "(-6, No such device or address)");
    ExpectRefused(messages.Make("as", 0), -ENXIO, "(-6, No such device or address)");
    ExpectRefused(messages.Make("(i)", 5), -ENXIO, "(-6, No such device or address)");
    // What these hold is not one complete type, so no content of a variant, which sd-bus sees first.
    ExpectRefused(messages.Make("a{sv}", 0), -EINVAL, "(-22, Invalid argument)");
    ExpectRefused(messages.Make("(isi)", 1, "x", 2), -EINVAL, "(-22, Invalid argument)");
}

}  // namespace
}  // namespace mw::tern::DBusMessage
