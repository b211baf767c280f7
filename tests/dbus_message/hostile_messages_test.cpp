#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/dbus_message/sasvas_signature_parser.h>
#include <tern/dbus_message/vasv_signature_parser.h>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "raw_messages.h"
#include "support/log_capture.h"
#include "test_messages.h"

// Messages of a peer that means harm, or has a fault: each ends in the stated result or in an error.

namespace mw::tern::DBusMessage {
namespace {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::LogCapture;
using ::tern::test::MEBIBYTE;
using ::tern::test::RawMessages;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::WireWriter;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int MANY = 100000;

/// The body of an "a{sv}" with one entry "D" that holds an "a{sv}" with one entry "D" ..., `levels`
/// dictionaries in all; the innermost entry holds the byte 7.
std::string NestedDictionaries(int levels) {
    WireWriter writer;
    std::vector<WireWriter::Array> arrays;
    for (int level = 1; level <= levels; ++level) {
        arrays.push_back(writer.BeginArray(8));
        writer.String("D");
        writer.Signature(level == levels ? "y" : "a{sv}");
    }
    writer.Byte(7);
    for (auto array = arrays.rbegin(); array != arrays.rend(); ++array) {
        writer.EndArray(*array);
    }
    return writer.Bytes();
}

/// `levels` variants inside each other as the content of the entry "V", then the entry "Z" with the byte 7.
std::string NestedVariants(int levels) {
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    writer.String("V");
    for (int level = 1; level < levels; ++level) {
        writer.Signature("v");
    }
    writer.Signature("y");
    writer.Byte(7);
    writer.Align(8);
    writer.String("Z");
    writer.Signature("y");
    writer.Byte(7);
    writer.EndArray(array);
    return writer.Bytes();
}

std::string Repeat(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

TEST(HostileMessages, DictionariesNestToTheLimitOfSdBus) {
    // Array, entry and variant are three containers a level, 128 is the limit.
    RawMessages messages;
    const BusMessage message = messages.Deliver("a{sv}", NestedDictionaries(42));
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre(Repeat("_D", 42)));
}

TEST(HostileMessages, DictionariesNestedDeeperAreRefused) {
    RawMessages messages;
    for (const int levels : {43, 44, 100, 5000}) {
        SCOPED_TRACE(levels);
        const BusMessage message = messages.Deliver("a{sv}", NestedDictionaries(levels));
        const LogCapture log;
        ASVsignatureParser parser(message.get());
        EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_EQ(log.Entries().front(), Error("Parser",
                                               "[ReadVariant] Failure sd_bus_message_enter_container, "
                                               "ret=(-74, Bad message)"));
        EXPECT_EQ(log.Entries().back(), Error("Parser",
                                              "[ReadVariant] Failure ReadVariantContent prefix='' "
                                              "keyname='D', ret=(-74, Bad message)"));
        EXPECT_EQ(log.Entries().size(), 1U + 2U * 42U);
    }
}

TEST(HostileMessages, NestedVariantsAreSteppedOverOrRefused) {
    RawMessages messages;
    const BusMessage shallow = messages.Deliver("a{sv}", NestedVariants(100));
    ASVsignatureParser shallowParser(shallow.get());
    EXPECT_EQ(shallowParser.ParseMessage(), 0);
    EXPECT_THAT(shallowParser.GetValuesList().Keys(), ElementsAre("_Z"));

    for (const int levels : {200, 100000}) {
        SCOPED_TRACE(levels);
        const BusMessage deep = messages.Deliver("a{sv}", NestedVariants(levels));
        ASVsignatureParser parser(deep.get());
        EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    }
}

TEST(HostileMessages, AHundredThousandEntriesAreRead) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < MANY; ++i) {
            Require(sd_bus_message_append(m, "{sv}", std::to_string(i).c_str(), "i", i), "append");
        }
    });
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), static_cast<std::size_t>(MANY));
    int value = 0;
    EXPECT_EQ(parser.GetValuesList().GetInt32("_99999", value), StatusCode::Ok);
    EXPECT_EQ(value, 99999);
}

TEST(HostileMessages, AHundredThousandStringsAreRead) {
    TestMessages messages;
    const BusMessage message = messages.New();
    Require(sd_bus_message_open_container(message.get(), 'a', "s"), "open");
    for (int i = 0; i < MANY; ++i) {
        Require(sd_bus_message_append(message.get(), "s", ""), "append");
    }
    Require(sd_bus_message_close_container(message.get()), "close");
    TestMessages::Seal(message);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfStrings("", "L"), 1);
    EXPECT_EQ(parser.GetValuesList().Size(), static_cast<std::size_t>(MANY));
    EXPECT_TRUE(parser.GetValuesList().Contains("_L99999"));
}

TEST(HostileMessages, AHundredThousandDuplicatesAreOneValue) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < MANY; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "", "i", i), "append");
        }
    });
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_"));
    int value = -1;
    EXPECT_EQ(parser.GetValuesList().GetInt32("_", value), StatusCode::Ok);
    EXPECT_EQ(value, 0);
}

TEST(HostileMessages, UnsupportedContentBetweenSupportedIsSteppedOver) {
    TestMessages messages;
    const BusMessage message = messages.MakeDictionary([](sd_bus_message* m) {
        for (int i = 0; i < MANY / 2; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "U", "a(sv)", 1, "x", "(ii)", 1, 2), "append");
            Require(sd_bus_message_append(m, "{sv}", std::to_string(i).c_str(), "i", i), "append");
        }
    });
    const LogCapture log(5);
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), static_cast<std::size_t>(MANY / 2));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(HostileMessages, TextsAndNamesOfAMebibyteAreRead) {
    TestMessages messages;
    const std::string text(MEBIBYTE, 't');
    const std::string name(MEBIBYTE, 'n');
    const BusMessage message = messages.MakeDictionary([&](sd_bus_message* m) {
        Require(sd_bus_message_append(m, "{sv}", name.c_str(), "s", text.c_str()), "append");
        Require(sd_bus_message_append(m, "{sv}", "L", "as", 2, text.c_str(), ""), "append");
        Require(sd_bus_message_append(m, "{sv}", "I", "(isi)", 1, text.c_str(), 2), "append");
    });
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_I", "_L0", "_L1", "_" + name));
    std::string out;
    EXPECT_EQ(parser.GetValuesList().GetString("_" + name, out), StatusCode::Ok);
    EXPECT_EQ(out, text);
    ValueISI structure;
    EXPECT_EQ(parser.GetValuesList().GetISI("_I", structure), StatusCode::Ok);
    EXPECT_EQ(structure.text, text);
}

/// What stands below a name of a mebibyte, and how the refusal is worded.
struct CrowdRow {
    const char* description;
    const char* operation;
    std::function<void(sd_bus_message*, int)> append;
    bool sameKey;
};

TEST(HostileMessages, AHugeNameAboveManyEntriesEndsAtTheBound) {
    const CrowdRow rows[] = {
        {"bytes", "ReadByte",
         [](auto* m, int i) {
             Require(sd_bus_message_append(m, "{sv}", std::to_string(100 + i).c_str(), "y", 1), "append");
         },
         false},
        {"structures", "ReadISI",
         [](auto* m, int i) {
             Require(sd_bus_message_append(m, "{sv}", std::to_string(100 + i).c_str(), "(isi)", 1, "x", 2),
                     "append");
         },
         false},
        // Nothing is stored for these, but each costs a look-up as long as its key.
        {"duplicates", "ReadByte",
         [](auto* m, int) { Require(sd_bus_message_append(m, "{sv}", "100", "y", 1), "append"); }, true},
    };
    const std::string name(MEBIBYTE, 'n');
    for (const CrowdRow& row : rows) {
        SCOPED_TRACE(row.description);
        TestMessages messages;
        const BusMessage message = messages.MakeDictionary([&](sd_bus_message* m) {
            Require(sd_bus_message_append(m, "{sv}", "First", "i", 1), "append");
            Require(sd_bus_message_open_container(m, 'e', "sv"), "open");
            Require(sd_bus_message_append(m, "s", name.c_str()), "append");
            Require(sd_bus_message_open_container(m, 'v', "a{sv}"), "open");
            Require(sd_bus_message_open_container(m, 'a', "{sv}"), "open");
            for (int i = 0; i < 300; ++i) {
                row.append(m, i);
            }
            for (int i = 0; i < 3; ++i) {
                Require(sd_bus_message_close_container(m), "close");
            }
            Require(sd_bus_message_append(m, "{sv}", "Last", "i", 1), "append");
        });
        const LogCapture log(5);
        ASVsignatureParser parser(message.get());
        EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
        // 64 keys of a mebibyte and a few bytes are too many, 63 are not.
        EXPECT_EQ(parser.GetValuesList().Size(), 1U + (row.sameKey ? 1U : 63U));
        EXPECT_TRUE(parser.GetValuesList().Contains("_First"));
        EXPECT_FALSE(parser.GetValuesList().Contains("_Last"));
        EXPECT_EQ(log.Entries().front(), Error("Parser", std::string("[") + row.operation +
                                                             "] Keys of one message exceed 67108864 bytes"));
        EXPECT_EQ(
            log.Entries().back(),
            Error("Parser", "[ReadVariant] Failure ReadVariantContent prefix='' keyname='" +
                                std::string(1024, 'n') + "...', ret=(-105, No buffer space available)"));
    }
}

TEST(HostileMessages, AHugeNameAboveManyStringsEndsAtTheBound) {
    TestMessages messages;
    const std::string name(MEBIBYTE, 'n');
    const BusMessage message = messages.New();
    Require(sd_bus_message_open_container(message.get(), 'a', "s"), "open");
    for (int i = 0; i < 300; ++i) {
        Require(sd_bus_message_append(message.get(), "s", ""), "append");
    }
    Require(sd_bus_message_close_container(message.get()), "close");
    Require(sd_bus_message_append(message.get(), "i", 5), "append");
    TestMessages::Seal(message);
    const LogCapture log(5);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfStrings("", name.c_str()), -ENOBUFS);
    EXPECT_EQ(parser.GetValuesList().Size(), 63U);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Parser", "[ReadArrayOfStrings] Keys of one message exceed 67108864 bytes")));
    EXPECT_EQ(parser.ReadINT32("", "Next"), 1);
}

// ---- malformed bytes

/// A structure as it was handed out: its name and the keys of its dictionary.
using Entry = std::pair<std::string, std::vector<std::string>>;

class PathReceiver : public AOASVsignatureParser {
public:
    using AOASVsignatureParser::AOASVsignatureParser;
    void OnEntry(const std::string& name, const ValuesList& values) override {
        entries.emplace_back(name, values.Keys());
    }
    std::vector<Entry> entries;
};

class StringReceiver : public ASASVsignatureParser {
public:
    using ASASVsignatureParser::ASASVsignatureParser;
    void OnEntry(const std::string& name, const ValuesList& values) override {
        entries.emplace_back(name, values.Keys());
    }
    std::vector<Entry> entries;
};

/// A body of the signature with an entry of each kind that is read.
std::string SampleEntries() {
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    const auto entry = [&](std::string_view name, std::string_view signature) {
        writer.Align(8);
        writer.String(name);
        writer.Signature(signature);
    };
    entry("s", "s");
    writer.String("text");
    entry("b", "b");
    writer.Uint32(1);
    entry("isi", "(isi)");
    writer.Align(8);
    writer.Uint32(1);
    writer.String("x");
    writer.Uint32(2);
    entry("as", "as");
    const WireWriter::Array strings = writer.BeginArray(4);
    writer.String("one");
    writer.String("two");
    writer.EndArray(strings);
    entry("ai", "ai");
    const WireWriter::Array integers = writer.BeginArray(4);
    writer.Uint32(1);
    writer.EndArray(integers);
    entry("d", "a{sv}");
    const WireWriter::Array inner = writer.BeginArray(8);
    entry("y", "y");
    writer.Byte(8);
    writer.EndArray(inner);
    writer.EndArray(array);
    return writer.Bytes();
}

int ParseAny(std::string_view signature, sd_bus_message* message) {
    if (signature == "a{sv}") {
        return ASVsignatureParser(message).ParseMessage();
    }
    if (signature == "v") {
        return VASVsignatureParser(message).ParseMessage();
    }
    if (signature == "sa{sv}as") {
        return SASVASsignatureParser(message).ParseMessage();
    }
    if (signature == "a(oa{sv})") {
        return PathReceiver(message).ParseMessage();
    }
    return StringReceiver(message).ParseMessage();
}

/// A well-formed body of the signature. `ends` takes where each of its dictionaries ends.
std::string SampleBody(std::string_view signature, std::vector<std::size_t>* ends = nullptr) {
    WireWriter writer;
    const auto dictionary = [&] {
        // Written on its own and aligned as it would stand here.
        writer.Align(4);
        const WireWriter::Array array = writer.BeginArray(8);
        for (const char* const name : {"A", "B"}) {
            writer.Align(8);
            writer.String(name);
            writer.Signature("s");
            writer.String("value");
        }
        writer.EndArray(array);
        if (ends != nullptr) {
            ends->push_back(writer.Bytes().size());
        }
    };
    if (signature == "a{sv}") {
        return SampleEntries();
    }
    if (signature == "v") {
        writer.Signature("a{sv}");
        dictionary();
    } else if (signature == "sa{sv}as") {
        writer.String("org.example.If");
        dictionary();
        const WireWriter::Array strings = writer.BeginArray(4);
        writer.String("Gone");
        writer.EndArray(strings);
    } else {
        const WireWriter::Array structures = writer.BeginArray(8);
        for (const char* const name : {"/a", "/b"}) {
            writer.Align(8);
            writer.String(name);
            dictionary();
        }
        writer.EndArray(structures);
    }
    return writer.Bytes();
}

constexpr std::string_view SIGNATURES[] = {"a{sv}", "v", "sa{sv}as", "a(oa{sv})", "a(sa{sv})"};

TEST(HostileMessages, WellFormedSamplesAreRead) {
    RawMessages messages;
    for (const std::string_view signature : SIGNATURES) {
        SCOPED_TRACE(signature);
        const BusMessage message = messages.Deliver(signature, SampleBody(signature));
        ASSERT_NE(message, nullptr);
        EXPECT_GE(ParseAny(signature, message.get()), 0);
    }
    const BusMessage message = messages.Deliver("a{sv}", SampleEntries());
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_as0", "_as1", "_b", "_d_y", "_isi", "_s"));
}

/// Calls `check` with each shorter body of the signature and its length.
template <typename Check>
void ForEachCut(std::string_view signature, const std::string& body, Check check) {
    RawMessages messages;
    const LogCapture log(2);
    for (std::size_t length = 0; length < body.size(); ++length) {
        SCOPED_TRACE(std::string(signature) + " cut to " + std::to_string(length));
        const BusMessage message = messages.Deliver(signature, body.substr(0, length));
        ASSERT_NE(message, nullptr);
        check(message.get(), length);
    }
}

TEST(HostileMessages, EveryDictionaryCutShortEndsInAnError) {
    for (const std::string_view signature : {"a{sv}", "v"}) {
        ForEachCut(signature, SampleBody(signature), [signature](sd_bus_message* message, std::size_t) {
            EXPECT_LT(ParseAny(signature, message), 0);
        });
    }
}

TEST(HostileMessages, PropertiesChangedCutShortIsReadOnlyWithItsWholeDictionary) {
    std::vector<std::size_t> ends;
    const std::string body = SampleBody("sa{sv}as", &ends);
    ForEachCut("sa{sv}as", body, [&](sd_bus_message* message, std::size_t length) {
        SASVASsignatureParser parser(message);
        const int result = parser.ParseMessage();
        if (length < ends.at(0)) {
            EXPECT_LT(result, 0);
        } else {  // the strings behind it are not read
            EXPECT_EQ(result, 0);
            EXPECT_EQ(parser.GetName(), "org.example.If");
            EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_A", "_B"));
        }
    });
}

template <typename Receiver>
void ExpectWholeStructuresOfEveryCut(std::string_view signature) {
    std::vector<std::size_t> ends;
    const std::string body = SampleBody(signature, &ends);
    const std::size_t firstEnd = ends.at(0);
    const std::size_t secondStart = (firstEnd + 7) / 8 * 8;
    ASSERT_LT(firstEnd, secondStart);
    ForEachCut(signature, body, [&](sd_bus_message* message, std::size_t length) {
        Receiver receiver(message);
        const int result = receiver.ParseMessage();
        if (length < firstEnd) {
            EXPECT_THAT(receiver.entries, IsEmpty());
        } else {
            EXPECT_THAT(receiver.entries, ElementsAre(Entry("/a", {"_A", "_B"})));
        }
        // A body that ends before the next structure could begin ends with the result of the last one.
        const bool isBetween = length >= firstEnd && length < secondStart;
        EXPECT_TRUE(isBetween ? result == 0 : result < 0) << result;
    });
}

TEST(HostileMessages, StructuresCutShortAreHandedOutWholeOrNotAtAll) {
    ExpectWholeStructuresOfEveryCut<PathReceiver>("a(oa{sv})");
    ExpectWholeStructuresOfEveryCut<StringReceiver>("a(sa{sv})");
}

TEST(HostileMessages, EveryBodyWithOneByteChangedIsReadOrRefused) {
    RawMessages messages;
    const LogCapture log(2);
    int refused = 0;
    int read = 0;
    for (const std::string_view signature : SIGNATURES) {
        const std::string body = SampleBody(signature);
        for (std::size_t at = 0; at < body.size(); ++at) {
            for (const unsigned value : {0x00U, 0x01U, 0x08U, 0x7fU, 0x80U, 0xffU, 0x61U, 0x76U}) {
                std::string changed = body;
                changed[at] = static_cast<char>(value);
                const BusMessage message = messages.Deliver(signature, changed);
                ASSERT_NE(message, nullptr);
                ++(ParseAny(signature, message.get()) < 0 ? refused : read);
            }
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(read, 0);
}

TEST(HostileMessages, BytesThatAreNoUtf8AreRefused) {
    RawMessages messages;
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    writer.String("K");
    writer.Signature("s");
    writer.String("\xff\xfe");
    writer.EndArray(array);
    const BusMessage message = messages.Deliver("a{sv}", writer.Bytes());
    const LogCapture log;
    ASVsignatureParser parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_EQ(log.Entries().front(),
              Error("Parser", "[ReadString] Failed to read SD_BUS_TYPE_STRING (-74, Bad message)"));
}

TEST(HostileMessages, EveryBodyIsRefusedByTheReadersOfTheOthers) {
    RawMessages messages;
    const LogCapture log(2);
    for (const std::string_view signature : SIGNATURES) {
        for (const std::string_view other : SIGNATURES) {
            if (signature != other) {
                const BusMessage message = messages.Deliver(signature, SampleBody(signature));
                EXPECT_LT(ParseAny(other, message.get()), 0) << signature << " read as " << other;
            }
        }
    }
}

TEST(HostileMessages, AnEmptyBodyIsRefusedExceptWhereAVariantIsSought) {
    RawMessages messages;
    const LogCapture log(2);
    for (const std::string_view signature : SIGNATURES) {
        const BusMessage message = messages.Deliver("", "");
        EXPECT_EQ(ParseAny(signature, message.get()), signature == "v" ? 0 : -ENXIO) << signature;
    }
}

}  // namespace
}  // namespace mw::tern::DBusMessage
