#include "dbus_message/skip_content.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>

#include <functional>
#include <string>
#include <vector>

#include "raw_messages.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "test_messages.h"

TERN_INTERPOSE(int, sd_bus_message_read_array,
               (sd_bus_message * message, char type, const void** data, std::size_t* bytes),
               (message, type, data, bytes))
TERN_INTERPOSE(int, sd_bus_message_read_basic, (sd_bus_message * message, char type, void* value),
               (message, type, value))

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::FaultScope;
using ::tern::test::LogCapture;
using ::tern::test::RawMessages;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::WireWriter;
using ::testing::ElementsAre;

/// Content that no list keeps, between two entries that one does.
struct Row {
    const char* signature;
    int arraysReadWhole;
    std::function<void(sd_bus_message*)> append;
};

template <typename... Arguments>
std::function<void(sd_bus_message*)> Append(const char* types, Arguments... arguments) {
    return [=](sd_bus_message* message) {
        Require(sd_bus_message_append(message, types, arguments...), "append");
    };
}

/// An array of so many bytes, all 1.
std::function<void(sd_bus_message*)> AppendArray(char type, std::size_t bytes) {
    return [=](sd_bus_message* message) {
        const std::string numbers(bytes, '\1');
        Require(sd_bus_message_append_array(message, type, numbers.data(), bytes), "append array");
    };
}

BusMessage Between(TestMessages& messages, const Row& row) {
    BusMessage message = messages.New();
    sd_bus_message* const m = message.get();
    Require(sd_bus_message_open_container(m, 'a', "{sv}"), "open");
    Require(sd_bus_message_append(m, "{sv}", "Before", "i", 1), "append");
    Require(sd_bus_message_open_container(m, 'e', "sv"), "open");
    Require(sd_bus_message_append(m, "s", "Content"), "append");
    Require(sd_bus_message_open_container(m, 'v', row.signature), "open");
    row.append(m);
    Require(sd_bus_message_close_container(m), "close");
    Require(sd_bus_message_close_container(m), "close");
    Require(sd_bus_message_append(m, "{sv}", "Behind", "i", 2), "append");
    Require(sd_bus_message_close_container(m), "close");
    TestMessages::Seal(message);
    return message;
}

// Element by element, bytes of a message's largest size took five seconds, in which nobody else was answered.
TEST(SkipContent, ArraysOfNumbersAreSteppedOverWhole) {
    const Row rows[] = {
        {"ay", 1, AppendArray('y', 1000001)},
        {"an", 1, AppendArray('n', 1000002)},
        {"aq", 1, AppendArray('q', 1000002)},
        {"ai", 1, AppendArray('i', 1000004)},
        {"au", 1, AppendArray('u', 1000004)},
        {"ax", 1, AppendArray('x', 1000008)},
        {"at", 1, AppendArray('t', 1000008)},
        {"ad", 1, AppendArray('d', 1000008)},
        {"ay", 1, AppendArray('y', 0)},
        // Where they are inside something else.
        {"aay", 3, Append("aay", 3, 2, 1, 2, 0, 1, 7)},
        {"(say)", 1, Append("(say)", "text", 3, 1, 2, 3)},
        {"a(yax)", 2, Append("a(yax)", 2, 1, 1, std::int64_t{5}, 2, 2, std::int64_t{6}, std::int64_t{7})},
        {"a{sai}", 2, Append("a{sai}", 2, "a", 1, 5, "b", 2, 6, 7)},
        {"v", 1, Append("v", "ay", 2, 1, 2)},
        {"av", 2, Append("av", 3, "ay", 2, 1, 2, "s", "text", "v", "ad", 1, 0.5)},
        {"aa{sv}", 1, Append("aa{sv}", 2, 1, "a", "ai", 1, 5, 1, "b", "s", "text")},
        {"(isay)", 1, Append("(isay)", 1, "text", 1, 5)},
        // What is looked at one by one, and what is no array of numbers at all.
        {"ab", 0, Append("ab", 3, 1, 0, 1)},
        {"ao", 0, Append("ao", 2, "/a", "/b")},
        {"ag", 0, Append("ag", 2, "s", "ay")},
        {"a(ii)", 0, Append("a(ii)", 2, 1, 2, 3, 4)},
        {"a{ss}", 0, Append("a{ss}", 1, "a", "b")},
        {"aas", 0, Append("aas", 2, 1, "a", 0)},
        {"o", 0, Append("o", "/a")},
        {"g", 0, Append("g", "ay")},
        {"(ii)", 0, Append("(ii)", 1, 2)},
        {"v", 0, Append("v", "v", "s", "text")},
    };
    TestMessages messages;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.signature);
        const BusMessage message = Between(messages, row);
        const FaultScope scope(fault_sd_bus_message_read_array);
        fault_sd_bus_message_read_array.Replace(nullptr, 0);
        ASVsignatureParser parser(message.get());
        EXPECT_EQ(parser.ParseMessage(), 0);
        EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_Before", "_Behind"));
        EXPECT_EQ(fault_sd_bus_message_read_array.Calls(), row.arraysReadWhole);
    }
}

class Receiver : public AOASVsignatureParser {
public:
    using AOASVsignatureParser::AOASVsignatureParser;
    void OnEntry(const std::string& name, const ValuesList&) override { names.push_back(name); }
    std::vector<std::string> names;
};

TEST(SkipContent, WhatIsLeftUnreadIsSteppedOverAlike) {
    TestMessages messages;
    const BusMessage message =
        messages.Make("a(oa{sv})", 2, "/first", 2, "A", "ay", 3, 1, 2, 3, "B", "s", "text", "/second", 0);
    const FaultScope scope(fault_sd_bus_message_read_basic);
    const FaultScope arrayScope(fault_sd_bus_message_read_array);
    fault_sd_bus_message_read_basic.Fail(-EBADMSG);  // the first path
    fault_sd_bus_message_read_array.Replace(nullptr, 0);
    const LogCapture log;
    Receiver receiver(message.get());
    EXPECT_EQ(receiver.ParseMessage(), 0);
    EXPECT_THAT(receiver.names, ElementsAre("/second"));
    EXPECT_EQ(fault_sd_bus_message_read_array.Calls(), 1);
}

/// A dictionary with the entry "A" of this signature, its array claiming so many bytes of which all are
/// there.
std::string ArrayOfBytes(const char* signature, std::size_t alignment, std::size_t count) {
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    writer.Align(8);
    writer.String("A");
    writer.Signature(signature);
    const WireWriter::Array numbers = writer.BeginArray(alignment);
    for (std::size_t i = 0; i < count; ++i) {
        writer.Byte(0);
    }
    writer.EndArray(numbers);
    writer.EndArray(array);
    return writer.Bytes();
}

TEST(SkipContent, HalfANumberAtTheEndIsRefused) {
    RawMessages messages;
    for (const auto& [signature, alignment] :
         {std::pair("an", 2U), std::pair("ai", 4U), std::pair("ax", 8U), std::pair("ad", 8U)}) {
        SCOPED_TRACE(signature);
        const BusMessage whole =
            messages.Deliver("a{sv}", ArrayOfBytes(signature, alignment, std::size_t{3} * alignment));
        EXPECT_EQ(ASVsignatureParser(whole.get()).ParseMessage(), 0);
        const BusMessage half =
            messages.Deliver("a{sv}", ArrayOfBytes(signature, alignment, std::size_t{3} * alignment - 1));
        EXPECT_EQ(ASVsignatureParser(half.get()).ParseMessage(), -EBADMSG);
    }
}

TEST(SkipContent, AnArrayLongerThanTheMessageIsRefused) {
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    writer.String("A");
    writer.Signature("ay");
    writer.Uint32(1000);
    writer.Byte(1);
    writer.EndArray(array);
    RawMessages messages;
    const BusMessage message = messages.Deliver("a{sv}", writer.Bytes());
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), -EBADMSG);
}

TEST(SkipContent, AFailureToReadAnArrayIsTheResult) {
    TestMessages messages;
    const BusMessage message = Between(messages, {"(say)", 1, Append("(say)", "text", 1, 1)});
    const FaultScope scope(fault_sd_bus_message_read_array);
    fault_sd_bus_message_read_array.Fail(-EBADMSG, 0, 10);
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_Before"));
}

TEST(SkipContent, SeveralTypesAndTypesThatAreNotThereAreLeftToSdBus) {
    TestMessages messages;
    const BusMessage several = messages.Make("ayi", 2, 1, 2, 5);
    Parser parser(several.get());
    EXPECT_EQ(parser.ReadVariantContent("", "Name", "ayi"), 0);
    EXPECT_EQ(sd_bus_message_at_end(several.get(), 1), 1);
    for (const char* const contents : {"ay", "(ay)", "v", "aay"}) {
        SCOPED_TRACE(contents);
        const BusMessage other = messages.Make("ai", 1, 5);
        EXPECT_EQ(Parser(other.get()).ReadVariantContent("", "Name", contents), -ENXIO);
    }
}

}  // namespace
}  // namespace mw::tern::DBusMessage
