#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "test_messages.h"

// The tests that AOASVsignatureParser and ASASVsignatureParser have in common, written once for a `Kind` that
// tells what is different. Included by one source a program, as it interposes sd-bus.

TERN_INTERPOSE(int, sd_bus_message_read_basic, (sd_bus_message * message, char type, void* value),
               (message, type, value))
TERN_INTERPOSE(int, sd_bus_message_enter_container,
               (sd_bus_message * message, char type, const char* contents), (message, type, contents))

namespace mw::tern::DBusMessage {

using ::tern::test::BusMessage;
using ::tern::test::Error;
using ::tern::test::FaultScope;
using ::tern::test::LogCapture;
using ::tern::test::Require;
using ::tern::test::TestMessages;
using ::tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// Keeps what OnEntry was given.
template <typename Parser>
class Recorder : public Parser {
public:
    using Parser::Parser;

    void OnEntry(const std::string& name, const ValuesList& values) override {
        entries.emplace_back(name, values.Keys());
        if (name == "/throw") {
            throw std::runtime_error("thrown by the receiver");
        }
    }

    std::vector<std::pair<std::string, std::vector<std::string>>> entries;
};

template <typename Kind>
class StructuresParserTest : public ::testing::Test {
protected:
    using Receiver = Recorder<typename Kind::Parser>;

    std::string Array() const { return "a" + std::string(Kind::STRUCTURE); }

    TestMessages mMessages;
};

TYPED_TEST_SUITE_P(StructuresParserTest);

TYPED_TEST_P(StructuresParserTest, HandsOutEachStructureWithItsOwnEntriesOnly) {
    const BusMessage message = this->mMessages.Make(this->Array().c_str(), 2, "/first", 2, "A", "i", 1, "B",
                                                    "i", 2, "/second", 1, "A", "s", "x");
    const LogCapture log;
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.entries,
                ElementsAre(Pair("/first", ElementsAre("_A", "_B")), Pair("/second", ElementsAre("_A"))));
    EXPECT_THAT(log.Entries("Service"),
                ElementsAre(TypeParam::LoggedName("/first"), TypeParam::LoggedName("/second")));
    EXPECT_EQ(sd_bus_message_at_end(message.get(), 1), 1);
}

TYPED_TEST_P(StructuresParserTest, AnEmptyArrayHandsOutNothing) {
    const BusMessage message = this->mMessages.Make(this->Array().c_str(), 0);
    const LogCapture log;
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.entries, IsEmpty());
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TYPED_TEST_P(StructuresParserTest, AStructureWithAnEmptyDictionaryIsHandedOut) {
    const BusMessage message = this->mMessages.Make(this->Array().c_str(), 1, "/empty", 0);
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.entries, ElementsAre(Pair("/empty", IsEmpty())));
}

TYPED_TEST_P(StructuresParserTest, AnotherBodyIsRefused) {
    const BusMessage message = this->mMessages.Make("a{sv}", 0);
    const LogCapture log;
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENXIO);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", std::string("Failure sd_bus_message_enter_container(") +
                                         TypeParam::STRUCTURE + "), ret=(-6, No such device or address)")));
    EXPECT_EQ(typename TestFixture::Receiver(nullptr).ParseMessage(), -EINVAL);
}

TYPED_TEST_P(StructuresParserTest, AtTheEndOfAContainerNothingIsRead) {
    const BusMessage message = this->mMessages.Make(("a" + this->Array()).c_str(), 0);
    Require(sd_bus_message_enter_container(message.get(), 'a', this->Array().c_str()), "enter");
    const LogCapture log;
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
    const char name[] = {'a', TypeParam::NAME, '\0'};
    const BusMessage names = this->mMessages.Make(name, 0);
    Require(sd_bus_message_enter_container(names.get(), 'a', name + 1), "enter");
    typename TestFixture::Receiver reader(names.get());
    EXPECT_EQ(TypeParam::ReadStructure(reader), 0);
    EXPECT_THAT(reader.entries, IsEmpty());
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TYPED_TEST_P(StructuresParserTest, AFailingNameDoesNotStopTheOthers) {
    const BusMessage message =
        this->mMessages.Make(this->Array().c_str(), 2, "/first", 1, "A", "i", 1, "/second", 1, "B", "i", 2);
    const LogCapture log(5);
    typename TestFixture::Receiver parser(message.get());
    const FaultScope scope(fault_sd_bus_message_read_basic);
    fault_sd_bus_message_read_basic.Fail(-EBADMSG);
    EXPECT_EQ(parser.ParseMessage(), 0);  // the result of the last structure
    EXPECT_THAT(parser.entries, ElementsAre(Pair("/second", ElementsAre("_B"))));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", std::string("Failure sd_bus_message_read_basic(") +
                                                 TypeParam::NAME_WORD + "), ret=(-74, Bad message)")));
}

TYPED_TEST_P(StructuresParserTest, TheResultIsThatOfTheLastStructure) {
    const BusMessage message = this->mMessages.Make((this->Array() + "u").c_str(), 2, "/first", 1, "A", "i",
                                                    1, "/second", 2, "B", "i", 2, "C", "i", 3, 7U);
    const LogCapture log(5);
    typename TestFixture::Receiver parser(message.get());
    {
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, 7);  // the value of C
        EXPECT_EQ(parser.ParseMessage(), -EBADMSG);
    }
    EXPECT_THAT(parser.entries, ElementsAre(Pair("/first", ElementsAre("_A"))));
    EXPECT_THAT(log.Entries("Service"),
                ElementsAre(Error("Service", "Failure ASVsignatureParser, ret=(-74, Bad message)")));
    unsigned int next = 0;
    EXPECT_EQ(sd_bus_message_read_basic(message.get(), 'u', &next), 1);  // structure and array were left
}

TYPED_TEST_P(StructuresParserTest, AFailingEntryIntoAStructureEndsSilently) {
    const BusMessage message =
        this->mMessages.Make(this->Array().c_str(), 2, "/first", 1, "A", "i", 1, "/second", 1, "B", "i", 2);
    const LogCapture log(5);
    typename TestFixture::Receiver parser(message.get());
    const FaultScope scope(fault_sd_bus_message_enter_container);
    // Array, structure, dictionary, entry, variant, the entry that there is not: the seventh is the second
    // structure.
    fault_sd_bus_message_enter_container.Fail(-EBADMSG, 0, 1, 6);
    EXPECT_EQ(parser.ParseMessage(), 0);
    EXPECT_THAT(parser.entries, ElementsAre(Pair("/first", ElementsAre("_A"))));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TYPED_TEST_P(StructuresParserTest, TheStepsCanBeTakenOneByOne) {
    const BusMessage message =
        this->mMessages.Make(this->Array().c_str(), 2, "/first", 1, "A", "i", 1, "/second", 1, "B", "i", 2);
    Require(sd_bus_message_enter_container(message.get(), 'a', TypeParam::STRUCTURE), "enter");
    const std::string structure = TypeParam::STRUCTURE;
    Require(
        sd_bus_message_enter_container(message.get(), 'r', structure.substr(1, structure.size() - 2).c_str()),
        "enter");
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(TypeParam::ReadStructure(parser), 0);
    EXPECT_EQ(sd_bus_message_exit_container(message.get()), 1);
    EXPECT_EQ(parser.ParseArrayOfStructures(), 0);
    EXPECT_EQ(sd_bus_message_exit_container(message.get()), 1);
    EXPECT_THAT(parser.entries,
                ElementsAre(Pair("/first", ElementsAre("_A")), Pair("/second", ElementsAre("_B"))));
}

TYPED_TEST_P(StructuresParserTest, AnExceptionOfTheReceiverLeaves) {
    const BusMessage message = this->mMessages.Make(this->Array().c_str(), 1, "/throw", 1, "A", "i", 1);
    typename TestFixture::Receiver parser(message.get());
    EXPECT_THROW(parser.ParseMessage(), std::runtime_error);
    EXPECT_EQ(parser.entries.size(), 1U);
}

TYPED_TEST_P(StructuresParserTest, TheKeysOfAllStructuresTogetherAreBounded) {
    // In each structure one name of a mebibyte above 20 entries: 20 MiB of keys a structure.
    const BusMessage message = this->mMessages.New();
    const std::string name(1024 * 1024, 'n');
    Require(sd_bus_message_open_container(message.get(), 'a', TypeParam::STRUCTURE), "open");
    const std::string structure = TypeParam::STRUCTURE;
    const std::string fields = structure.substr(1, structure.size() - 2);
    for (int i = 0; i < 5; ++i) {
        Require(sd_bus_message_open_container(message.get(), 'r', fields.c_str()), "open");
        Require(sd_bus_message_append(message.get(), fields.c_str(), "/path", 1, name.c_str(), "a{sv}", 20,
                                      "a", "y", 1, "b", "y", 1, "c", "y", 1, "d", "y", 1, "e", "y", 1, "f",
                                      "y", 1, "g", "y", 1, "h", "y", 1, "i", "y", 1, "j", "y", 1, "k", "y", 1,
                                      "l", "y", 1, "m", "y", 1, "n", "y", 1, "o", "y", 1, "p", "y", 1, "q",
                                      "y", 1, "r", "y", 1, "s", "y", 1, "t", "y", 1),
                "append");
        Require(sd_bus_message_close_container(message.get()), "close");
    }
    Require(sd_bus_message_close_container(message.get()), "close");
    TestMessages::Seal(message);
    const LogCapture log(5);
    typename TestFixture::Receiver parser(message.get());
    EXPECT_EQ(parser.ParseMessage(), -ENOBUFS);
    EXPECT_EQ(parser.entries.size(), 3U);
    EXPECT_EQ(log.Count(Error("Parser", "[ReadByte] Keys of one message exceed 67108864 bytes")), 1U);
    EXPECT_THAT(log.Entries("Service"), ElementsAre(Error("Service",
                                                          "Failure ASVsignatureParser, ret=(-105, No "
                                                          "buffer space available)")));
}

REGISTER_TYPED_TEST_SUITE_P(StructuresParserTest, HandsOutEachStructureWithItsOwnEntriesOnly,
                            AnEmptyArrayHandsOutNothing, AStructureWithAnEmptyDictionaryIsHandedOut,
                            AnotherBodyIsRefused, AtTheEndOfAContainerNothingIsRead,
                            AFailingNameDoesNotStopTheOthers, TheResultIsThatOfTheLastStructure,
                            AFailingEntryIntoAStructureEndsSilently, TheStepsCanBeTakenOneByOne,
                            AnExceptionOfTheReceiverLeaves, TheKeysOfAllStructuresTogetherAreBounded);

}  // namespace mw::tern::DBusMessage
