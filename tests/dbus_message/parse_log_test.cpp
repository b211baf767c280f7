#include "dbus_message/parse_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/vasv_signature_parser.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "raw_messages.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "test_messages.h"

TERN_INTERPOSE(int, sd_bus_message_read_basic, (sd_bus_message * message, char type, void* value),
               (message, type, value))

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::FaultScope;
using ::tern::test::Info;
using ::tern::test::LogCapture;
using ::tern::test::LogEntry;
using ::tern::test::RawMessages;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::Trace;
using ::tern::test::WireWriter;
using ::testing::IsEmpty;

/// Lines below errors, errors included, that one parse writes.
constexpr unsigned LINES = ParseLog::LINES - ParseLog::LINES_FOR_ERRORS;

std::string LeftOut(std::size_t lines) {
    return std::to_string(lines) + " more lines of one message left out";
}

/// A dictionary of so many INT16, 0 and up.
BusMessage MakeInt16s(TestMessages& messages, unsigned count) {
    return messages.MakeDictionary([&](sd_bus_message* m) {
        for (unsigned i = 0; i < count; ++i) {
            Require(sd_bus_message_append(m, "{sv}", std::to_string(i).c_str(), "n", i), "append");
        }
    });
}

std::size_t BytesOf(const std::vector<LogEntry>& entries) {
    std::size_t bytes = 0;
    for (const LogEntry& entry : entries) {
        bytes += entry.text.size();
    }
    return bytes;
}

TEST(ParseLog, BoundsAreTheOnesThatTheHeaderOfTheParsersStates) {
    EXPECT_EQ(ParseLog::LINES, 512U);
    EXPECT_EQ(ParseLog::LINES_FOR_ERRORS, 128U);
    EXPECT_EQ(ParseLog::BYTES, 65536U);
    EXPECT_EQ(ParseLog::BYTES_FOR_ERRORS, 16384U);
}

TEST(ParseLog, AMessageWithinTheBoundIsLoggedWhole) {
    TestMessages messages;
    const BusMessage message = MakeInt16s(messages, LINES);
    const LogCapture log(6);
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    ASSERT_EQ(log.Entries().size(), LINES);
    for (unsigned i = 0; i < LINES; ++i) {
        const std::string number = std::to_string(i);
        EXPECT_EQ(log.Entries()[i], Info("Parser", "[ReadINT16] keyName=" + number + ", value=" + number));
    }
}

// Of a message of 32 MiB that were two million lines; they took 27 s, and the process was killed as hung.
TEST(ParseLog, WhatIsBeyondTheBoundIsCountedAndSummedUp) {
    TestMessages messages;
    const BusMessage message = MakeInt16s(messages, LINES + 1000);
    const LogCapture log(6);
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    ASSERT_EQ(log.Entries().size(), LINES + 1);
    EXPECT_EQ(log.Entries()[LINES - 1].text,
              "[ReadINT16] keyName=" + std::to_string(LINES - 1) + ", value=" + std::to_string(LINES - 1));
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(1000)));
}

TEST(ParseLog, ContentThatIsNotSupportedIsBoundedToo) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 5000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "", "g", ""), "append");
        }
    });
    const LogCapture log(6);
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    EXPECT_EQ(log.Entries().size(), LINES + 1);
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(5000 - LINES)));
}

TEST(ParseLog, OnlyLinesThatTheThresholdLetsPassCount) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 5000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "K", "i", i), "append");
        }
        Require(sd_bus_message_append(m, "{sv}", "Last", "n", 5), "append");
    });
    {
        const LogCapture log(6);
        EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
        EXPECT_THAT(log.Entries(),
                    ::testing::ElementsAre(Info("Parser", "[ReadINT16] keyName=Last, value=5")));
    }
    Require(sd_bus_message_rewind(message.get(), 1), "rewind");
    {
        const LogCapture log(5);
        EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
        EXPECT_THAT(log.Entries(), IsEmpty());
    }
}

TEST(ParseLog, TheSumIsAsSevereAsWhatWasLeftOut) {
    TestMessages messages;
    const BusMessage traces = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 1000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "K", "i", i), "append");
        }
    });
    {
        const LogCapture log;
        EXPECT_EQ(ASVsignatureParser(traces.get()).ParseMessage(), 0);
        EXPECT_EQ(log.Entries().size(), LINES + 1);
        EXPECT_EQ(log.Entries().back(), Trace("Parser", LeftOut(1000 - LINES)));
    }
    const BusMessage mixed = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 1000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "K", i == 900 ? "n" : "i", i), "append");
        }
    });
    const LogCapture log;
    EXPECT_EQ(ASVsignatureParser(mixed.get()).ParseMessage(), 0);
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(1000 - LINES)));
}

TEST(ParseLog, ErrorsAreNotCrowdedOut) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 1000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "K", "n", i), "append");
        }
    });
    const FaultScope scope(fault_sd_bus_message_read_basic);
    fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, 1999);  // the last value
    const LogCapture log(6);
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), -EBADMSG);
    const std::vector<LogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), LINES + 4);
    EXPECT_EQ(entries[LINES],
              Error("Parser", "[ReadINT16] Failed to read SD_BUS_TYPE_INT16 (-74, Bad message)"));
    EXPECT_EQ(entries.back(), Info("Parser", LeftOut(999 - LINES)));
}

class Receiver : public AOASVsignatureParser {
public:
    using AOASVsignatureParser::AOASVsignatureParser;
    void OnEntry(const std::string&, const ValuesList&) override {
        if (--untilThrow == 0) {
            throw std::runtime_error("thrown by the receiver");
        }
    }
    int untilThrow = -1;
};

class StringReceiver : public ASASVsignatureParser {
public:
    using ASASVsignatureParser::ASASVsignatureParser;
    void OnEntry(const std::string&, const ValuesList&) override { ++entries; }
    int entries = 0;
};

BusMessage MakeStructures(TestMessages& messages, const char* structure, const char* fields,
                          const std::string& name, int count) {
    BusMessage message = messages.New();
    Require(sd_bus_message_open_container(message.get(), 'a', structure), "open");
    for (int i = 0; i < count; ++i) {
        Require(sd_bus_message_open_container(message.get(), 'r', fields), "open");
        Require(sd_bus_message_append(message.get(), fields, name.c_str(), 1, "K", "n", i), "append");
        Require(sd_bus_message_close_container(message.get()), "close");
    }
    Require(sd_bus_message_close_container(message.get()), "close");
    TestMessages::Seal(message);
    return message;
}

TEST(ParseLog, ErrorsAreBoundedToo) {
    TestMessages messages;
    const BusMessage message = MakeStructures(messages, "(oa{sv})", "oa{sv}", "/a", 2000);
    const FaultScope scope(fault_sd_bus_message_read_basic);
    fault_sd_bus_message_read_basic.Replace(
        [](sd_bus_message* m, char type, void* value) {
            // Every path that is read; what is stepped over is read to nowhere.
            return type == 'o' && value != nullptr ? -EBADMSG
                                                   : fault_sd_bus_message_read_basic.Real(m, type, value);
        },
        std::numeric_limits<int>::max());
    const LogCapture log(3);
    EXPECT_EQ(Receiver(message.get()).ParseMessage(), -EBADMSG);
    ASSERT_EQ(log.Entries().size(), ParseLog::LINES + 1);
    EXPECT_EQ(
        log.Count(Error("Service", "Failure sd_bus_message_read_basic(object path), ret=(-74, Bad message)")),
        ParseLog::LINES);
    EXPECT_EQ(log.Entries().back(), Error("Parser", LeftOut(2000 - ParseLog::LINES)));
}

TEST(ParseLog, AllStructuresOfAMessageAreOneParse) {
    TestMessages messages;
    const BusMessage message = MakeStructures(messages, "(sa{sv})", "sa{sv}", "name", 1000);
    const LogCapture log(6);
    StringReceiver receiver(message.get());
    EXPECT_EQ(receiver.ParseMessage(), 0);
    EXPECT_EQ(receiver.entries, 1000);
    EXPECT_EQ(log.Entries().size(), LINES + 1);
    EXPECT_EQ(log.Entries("Service").size(), LINES / 2);
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(2000 - LINES)));
}

TEST(ParseLog, EachParseHasItsOwn) {
    TestMessages messages;
    const BusMessage message = MakeInt16s(messages, LINES + 1);
    const LogCapture log(6);
    for (int i = 0; i < 3; ++i) {
        Require(sd_bus_message_rewind(message.get(), 1), "rewind");
        EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    }
    EXPECT_EQ(log.Entries().size(), 3 * (LINES + 1));
    EXPECT_EQ(log.Count(Info("Parser", LeftOut(1))), 3U);
}

TEST(ParseLog, AnExceptionOfTheReceiverEndsAParseToo) {
    TestMessages messages;
    const BusMessage message = MakeStructures(messages, "(oa{sv})", "oa{sv}", "/a", 1000);
    const LogCapture log(6);
    Receiver receiver(message.get());
    receiver.untilThrow = 1000;
    EXPECT_THROW(receiver.ParseMessage(), std::runtime_error);
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(1000 - LINES)));
}

TEST(ParseLog, LongTextsUseUpTheBytes) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        const std::string name(1000, 'n');
        for (int i = 0; i < 1000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", name.c_str(), "n", 1), "append");
        }
    });
    const LogCapture log(6);
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    const std::size_t lines = log.Entries().size() - 1;
    EXPECT_GE(lines, 40U);
    EXPECT_LE(BytesOf(log.Entries()), ParseLog::BYTES);
    EXPECT_EQ(log.Entries().back(), Info("Parser", LeftOut(1000 - lines)));
}

TEST(ParseLog, LongNumbersUseUpTheBytes) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < 1000; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "K", "d", std::numeric_limits<double>::max()), "append");
        }
    });
    const LogCapture log;
    EXPECT_EQ(ASVsignatureParser(message.get()).ParseMessage(), 0);
    EXPECT_GE(log.Entries().size(), 100U);
    EXPECT_LE(BytesOf(log.Entries()), ParseLog::BYTES);
}

// Of a message of 32 MiB that were 350 MB of log: each level repeated the path to it.
TEST(ParseLog, AFailureDeepInAMessageRepeatsNoLongPaths) {
    WireWriter writer;
    std::vector<WireWriter::Array> arrays;
    for (int level = 1; level <= 42; ++level) {
        arrays.push_back(writer.BeginArray(8));
        writer.String(std::string(20000, 'n'));
        writer.Signature(level == 42 ? "s" : "a{sv}");
    }
    writer.String("\xff");
    for (auto array = arrays.rbegin(); array != arrays.rend(); ++array) {
        writer.EndArray(*array);
    }
    RawMessages messages;
    const BusMessage message = messages.Deliver("a{sv}", writer.Bytes());
    const LogCapture log;
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
    EXPECT_EQ(log.Entries().front(),
              Error("Parser", "[ReadString] Failed to read SD_BUS_TYPE_STRING (-74, Bad message)"));
    EXPECT_LE(BytesOf(log.Entries()), ParseLog::BYTES + 4096);
    EXPECT_THAT(log.Entries().back().text, ::testing::EndsWith(" more lines of one message left out"));
    EXPECT_EQ(log.Entries().back().level, 3);
}

TEST(ParseLog, TextsOfAMessageAreCut) {
    TestMessages messages;
    const std::string whole(LoggedText::LIMIT, 't');
    const std::string longer(LoggedText::LIMIT + 1, 't');
    const std::string cut = whole + "...";
    const BusMessage message = messages.MakeDictionary([&](sd_bus_message* m) {
        Require(sd_bus_message_append(m, "{sv}", "Whole", "s", whole.c_str()), "append");
        Require(sd_bus_message_append(m, "{sv}", "Cut", "s", longer.c_str()), "append");
        Require(sd_bus_message_append(m, "{sv}", longer.c_str(), "i", 1), "append");
        Require(sd_bus_message_append(m, "{sv}", longer.c_str(), "(isi)", 1, longer.c_str(), 2), "append");
        Require(sd_bus_message_append(m, "{sv}", longer.c_str(), "as", 1, longer.c_str()), "append");
    });
    const LogCapture log;
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(log.Entries(),
                ::testing::ElementsAre(
                    Trace("Parser", "[ReadString] keyName=Whole, value=" + whole),
                    Trace("Parser", "[ReadString] keyName=Cut, value=" + cut),
                    Trace("Parser", "[ReadINT32] keyName=" + cut + ", value=1"),
                    Trace("Parser", "[ReadISI] keyName=" + cut + ", Int, value=1"),
                    Trace("Parser", "[ReadISI] keyName=" + cut + ", String, value=" + cut),
                    Trace("Parser", "[ReadISI] keyName=" + cut + ", Int, value=2"),
                    Trace("Parser", "[ReadArrayOfStrings] key=_" + whole.substr(1) + "..., value=" + cut)));
    // What is stored is whole.
    std::string text;
    EXPECT_EQ(parser.GetValuesList().GetString("_Cut", text), StatusCode::Ok);
    EXPECT_EQ(text, longer);
}

TEST(ParseLog, TheNamesOfStructuresAndOfAnInterfaceAreCut) {
    TestMessages messages;
    const std::string name = "/" + std::string(LoggedText::LIMIT, 'p');
    const std::string cut = name.substr(0, LoggedText::LIMIT) + "...";
    const BusMessage paths = MakeStructures(messages, "(oa{sv})", "oa{sv}", name, 1);
    const BusMessage strings = MakeStructures(messages, "(sa{sv})", "sa{sv}", name, 1);
    const BusMessage changed = messages.Make("sa{sv}as", name.c_str(), 0, 0);
    const LogCapture log;
    EXPECT_EQ(Receiver(paths.get()).ParseMessage(), 0);
    EXPECT_EQ(StringReceiver(strings.get()).ParseMessage(), 0);
    EXPECT_EQ(SASVASsignatureParser(changed.get()).ParseMessage(), 0);
    EXPECT_THAT(log.Entries("Service"), ::testing::ElementsAre(Trace("Service", "objectPath=" + cut),
                                                               Info("Service", "stringValue=" + cut),
                                                               Trace("Service", "properties=" + cut)));
}

TEST(ParseLog, NoCharacterIsCutInTwo) {
    // Characters of one to four bytes, moved over the place of the cut.
    for (const std::string character : {"t", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
        for (std::size_t offset = 0; offset < 4; ++offset) {
            std::string text(offset, 'x');
            while (text.size() <= LoggedText::LIMIT) {
                text += character;
            }
            std::size_t counted = 0;
            const LoggedText logged(text.c_str(), counted);
            const std::string shown = logged.Get();
            ASSERT_TRUE(shown.ends_with("...")) << character;
            EXPECT_EQ(counted, shown.size());
            const std::size_t kept = shown.size() - 3;
            EXPECT_EQ(shown.substr(0, kept), text.substr(0, kept));
            EXPECT_EQ((kept - offset) % character.size(), 0U) << character << " " << offset;
            EXPECT_GT(kept + character.size(), LoggedText::LIMIT);
        }
    }
}

}  // namespace
}  // namespace mw::tern::DBusMessage
