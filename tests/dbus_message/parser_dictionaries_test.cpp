// Arrays of dictionary entries: their keys, the first failure, and what an entry costs.

#include "dbus_message/parser_fixture.h"

namespace mw::tern::DBusMessage::Tests {
namespace {

TEST_F(ParserTest, AnEmptyDictionaryYieldsNothing) {
    const BusMessage message = mMessages.Make("a{sv}", 0);
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(ParserTest, EntriesAreStoredUnderTheirNames) {
    const BusMessage message = mMessages.Make("a{sv}", 2, "Flag", "b", 1, "Volume", "i", 5);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
    int flag = 0;
    EXPECT_EQ(parser.GetValuesList().GetBool("_Flag", flag), StatusCode::Ok);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(GetInt(parser.GetValuesList(), "_Volume"), 5);
}

TEST_F(ParserTest, DictionariesInsideDictionariesJoinTheirNames) {
    const BusMessage message =
        mMessages.Make("a{sv}", 3, "X", "a{sv}", 2, "A", "i", 1, "B", "a{sv}", 1, "Z", "s", "deep",  //
                       "Empty", "a{sv}", 0,                                                          //
                       "Y", "i", 2);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
    const ValuesList& list = parser.GetValuesList();
    EXPECT_THAT(list.Keys(), ElementsAre("_X_A", "_X_B_Z", "_Y"));
    EXPECT_EQ(GetInt(list, "_X_A"), 1);
    EXPECT_EQ(GetText(list, "_X_B_Z"), "deep");
    EXPECT_EQ(GetInt(list, "_Y"), 2);
}

TEST_F(ParserTest, ThePrefixStandsBeforeEveryName) {
    const BusMessage message = mMessages.Make("a{sv}", 2, "A", "i", 1, "L", "as", 1, "x");
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries("_Top"), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_Top_A", "_Top_L0"));
}

TEST_F(ParserTest, EntriesOfAnEnteredArrayAreRead) {
    const BusMessage message = mMessages.Make("a{sv}", 1, "A", "i", 1);
    Require(sd_bus_message_enter_container(message.get(), 'a', "{sv}"), "enter");
    Parser parser(message.get());
    EXPECT_EQ(parser.ParseArrayOfDictionaries("_p"), 0);
    EXPECT_EQ(GetInt(parser.GetValuesList(), "_p_A"), 1);
    EXPECT_EQ(sd_bus_message_exit_container(message.get()), 1);
}

TEST_F(ParserTest, ArraysOfSomethingElseAreRefused) {
    const BusMessage message = mMessages.Make("a{ss}", 1, "k", "v");
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadArrayOfDictionaries(""), -ENXIO);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ReadArrayOfDictionaries] Failure "
                                  "sd_bus_message_enter_container({sv}), ret=(-6, No such device or "
                                  "address)")));
}

TEST_F(ParserTest, AFailingEntryIsSilentlyReturned) {
    const BusMessage message = mMessages.Make("s", "text");
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ParseArrayOfDictionaries(""), -ENXIO);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(ParserTest, AFailingNameEndsTheWalk) {
    const BusMessage message = mMessages.Make("a{sv}u", 2, "A", "i", 1, "B", "i", 2, 7U);
    const LogCapture log(6);
    Parser parser(message.get());
    {
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, 2);  // behind the first name and value
        EXPECT_EQ(parser.ReadArrayOfDictionaries(""), -EBADMSG);
    }
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ParseArrayOfDictionaries] Failure sd_bus_message_read_basic, "
                                  "ret=(-74, Bad message)")));
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_A"));
    EXPECT_EQ(parser.ReadUINT32("", "Next"), 1);  // entry and array were left
}

TEST_F(ParserTest, TheFirstFailingValueEndsTheWalkAndWhatWasStoredStays) {
    const BusMessage message =
        mMessages.Make("a{sv}u", 3, "A", "i", 1, "D", "a{sv}", 2, "B", "i", 2, "C", "i", 3, "E", "i", 4, 7U);
    const LogCapture log(6);
    Parser parser(message.get());
    {
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, 6);  // the value of C
        EXPECT_EQ(parser.ReadArrayOfDictionaries(""), -EBADMSG);
    }
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_A", "_D_B"));
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Error("Parser", "[ReadINT32] Failed to read SD_BUS_TYPE_INT32 (-74, Bad message)"),
            Error("Parser", "[ReadVariantContent] Failed to read ReadVariantContent (-74, Bad message)"),
            Error("Parser",
                  "[ReadVariant] Failure ReadVariantContent prefix='_D' keyname='C', "
                  "ret=(-74, Bad message)"),
            Error("Parser", "[ReadVariantContent] Failed to read ReadVariantContent (-74, Bad message)"),
            Error("Parser",
                  "[ReadVariant] Failure ReadVariantContent prefix='' keyname='D', "
                  "ret=(-74, Bad message)")));
    EXPECT_EQ(parser.ReadUINT32("", "Next"), 1);
}

TEST_F(ParserTest, AKeyThatIsThereKeepsItsFirstValue) {
    // The same name twice, and names that hold the separator.
    const BusMessage message = mMessages.Make("a{sv}", 5, "A", "i", 1, "A", "s", "second",  //
                                              "N_X", "i", 3, "N", "a{sv}", 1, "X", "i", 4,  //
                                              "", "i", 5);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_", "_A", "_N_X"));
    EXPECT_EQ(GetInt(parser.GetValuesList(), "_A"), 1);
    EXPECT_EQ(GetInt(parser.GetValuesList(), "_N_X"), 3);
    EXPECT_EQ(GetInt(parser.GetValuesList(), "_"), 5);
}

// ---- cost

TEST_F(ParserTest, AnEntryCostsOneNodeAndOneObject) {
    constexpr int ENTRIES = 100;
    const BusMessage message = mMessages.MakeDictionary([&](sd_bus_message* m) {
        for (int i = 0; i < ENTRIES; ++i) {
            AppendInt(m, "key" + std::to_string(i), i);
        }
    });
    Parser parser(message.get());
    const std::string prefix;
    const AllocationCount count;
    EXPECT_EQ(parser.ReadArrayOfDictionaries(prefix), 0);
    EXPECT_EQ(count.Get(), 2U * ENTRIES);
}

TEST_F(ParserTest, DuplicatesCostNothing) {
    const BusMessage message = mMessages.MakeDictionary([&](sd_bus_message* m) {
        for (int i = 0; i < 100; ++i) {
            Require(sd_bus_message_append(m, "{sv}", "Same", "s", "a text too long for the small room"),
                    "append");
        }
    });
    Parser parser(message.get());
    const std::string prefix;
    const AllocationCount count;
    EXPECT_EQ(parser.ReadArrayOfDictionaries(prefix), 0);
    EXPECT_EQ(count.Get(), 3U);  // node, object, the object's text
}

}  // namespace
}  // namespace mw::tern::DBusMessage::Tests
