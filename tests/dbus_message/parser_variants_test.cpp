// Variants: their contents, what is stepped over, and how failures in them are reported.

#include "dbus_message/parser_fixture.h"

namespace mw::tern::DBusMessage::Tests {
namespace {

TEST_F(ParserTest, AVariantThatIsNoneIsRefused) {
    const BusMessage message = mMessages.Make("i", 5);
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadVariant("", "Name"), -ENXIO);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Parser",
                                                 "[ReadVariant] Failure sd_bus_message_enter_container, "
                                                 "ret=(-6, No such device or address)")));
}

TEST_F(ParserTest, AFailingPeekIsReported) {
    const BusMessage message = mMessages.Make("v", "i", 5);
    const FaultScope scope(fault_sd_bus_message_peek_type);
    fault_sd_bus_message_peek_type.Fail(-EBADMSG);
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadVariant("", "Name"), -EBADMSG);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Parser",
                                                 "[ReadVariant] Failure sd_bus_message_peek_type, "
                                                 "ret=(-74, Bad message)")));
}

TEST_F(ParserTest, AFailingContentIsReportedAtEachLevel) {
    const BusMessage message = mMessages.Make("vu", "i", 5, 7U);
    const LogCapture log;
    Parser parser(message.get());
    {
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(-EBADMSG);
        EXPECT_EQ(parser.ReadVariant("_a", "Name"), -EBADMSG);
    }
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Error("Parser", "[ReadINT32] Failed to read SD_BUS_TYPE_INT32 (-74, Bad message)"),
            Error("Parser", "[ReadVariantContent] Failed to read ReadVariantContent (-74, Bad message)"),
            Error("Parser",
                  "[ReadVariant] Failure ReadVariantContent prefix='_a' keyname='Name', "
                  "ret=(-74, Bad message)")));
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_EQ(parser.ReadUINT32("", "Next"), 1);  // the variant was left
}

TEST_F(ParserTest, UnsupportedContentIsSteppedOver) {
    const struct {
        const char* contents;
        std::function<void(sd_bus_message*)> append;
    } rows[] = {
        {"ai", [](auto* m) { sd_bus_message_append(m, "v", "ai", 3, 1, 2, 3); }},
        {"ai", [](auto* m) { sd_bus_message_append(m, "v", "ai", 0); }},
        {"ay", [](auto* m) { sd_bus_message_append(m, "v", "ay", 3, 1, 2, 3); }},
        {"a{ss}", [](auto* m) { sd_bus_message_append(m, "v", "a{ss}", 1, "k", "v"); }},
        {"(ii)", [](auto* m) { sd_bus_message_append(m, "v", "(ii)", 1, 2); }},
        {"(isii)", [](auto* m) { sd_bus_message_append(m, "v", "(isii)", 1, "x", 2, 3); }},
        {"o", [](auto* m) { sd_bus_message_append(m, "v", "o", "/org/example"); }},
        {"g", [](auto* m) { sd_bus_message_append(m, "v", "g", "a{sv}"); }},
        {"v", [](auto* m) { sd_bus_message_append(m, "v", "v", "i", 5); }},
        {"aas", [](auto* m) { sd_bus_message_append(m, "v", "aas", 2, 1, "a", 2, "b", "c"); }},
        {"a(isi)", [](auto* m) { sd_bus_message_append(m, "v", "a(isi)", 1, 1, "x", 2); }},
        {"aa{sv}", [](auto* m) { sd_bus_message_append(m, "v", "aa{sv}", 1, 1, "k", "i", 5); }},
        {"a{sas}", [](auto* m) { sd_bus_message_append(m, "v", "a{sas}", 1, "k", 1, "x"); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.contents);
        const auto appendEntry = [&](sd_bus_message* m) {
            Require(sd_bus_message_open_container(m, 'e', "sv"), "open");
            Require(sd_bus_message_append(m, "s", "Middle"), "append");
            row.append(m);
            Require(sd_bus_message_close_container(m), "close");
        };
        const BusMessage message = mMessages.MakeDictionary([&](sd_bus_message* m) {
            AppendInt(m, "Before", 1);
            appendEntry(m);
            AppendInt(m, "Behind", 2);
        });
        const LogCapture log(6);
        Parser parser(message.get());
        EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
        EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_Before", "_Behind"));
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Info("Parser", "[ReadVariantContent] Unsupported type, update this method")));
        EXPECT_EQ(sd_bus_message_at_end(message.get(), 1), 1);
    }
}

TEST_F(ParserTest, UnsupportedContentOfAnEnteredVariantGivesZero) {
    const BusMessage message = mMessages.Make("v", "ai", 1, 5);
    Require(sd_bus_message_enter_container(message.get(), 'v', "ai"), "enter");
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadVariantContent("", "Name", "ai"), 0);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_EQ(sd_bus_message_exit_container(message.get()), 1);
}

TEST_F(ParserTest, ContentThatCannotBeSteppedOverIsAFailure) {
    const BusMessage message = mMessages.Make("v", "ab", 1, 1);
    const FaultScope scope(fault_sd_bus_message_skip);
    fault_sd_bus_message_skip.Fail(-EBADMSG, 0, 10);
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadVariant("", "Name"), -EBADMSG);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(
            Info("Parser", "[ReadVariantContent] Unsupported type, update this method"),
            Error("Parser", "[ReadVariantContent] Failed to read ReadVariantContent (-74, Bad message)"),
            Error("Parser",
                  "[ReadVariant] Failure ReadVariantContent prefix='' keyname='Name', "
                  "ret=(-74, Bad message)")));
}

TEST_F(ParserTest, ContentsThatAreNotThereAreRefused) {
    for (const char* const contents : {"i", "(isi)", "as", "a{sv}", "ai", "not a signature"}) {
        SCOPED_TRACE(contents);
        const BusMessage message = mMessages.Make("s", "text");
        Parser parser(message.get());
        EXPECT_LT(parser.ReadVariantContent("", "Name", contents), 0);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    }
}

TEST_F(ParserTest, ContentsAreComparedWhole) {
    const struct {
        const char* contents;
        BusMessage message;
    } rows[] = {
        {"si", mMessages.Make("si", "text", 5)},
        {"(isi)u", mMessages.Make("(isi)u", 1, "text", 2, 7U)},
        {"asu", mMessages.Make("asu", 0, 7U)},
        {"a{sv}u", mMessages.Make("a{sv}u", 0, 7U)},
    };
    for (const auto& [contents, message] : rows) {
        SCOPED_TRACE(contents);
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ(parser.ReadVariantContent("", "Name", contents), 0);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Info("Parser", "[ReadVariantContent] Unsupported type, update this method")));
        EXPECT_EQ(sd_bus_message_at_end(message.get(), 1), 1);
    }
}

TEST_F(ParserTest, ContentsWithoutASignatureAreSteppedOver) {
    const BusMessage message = mMessages.Make("si", "text", 5);
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadVariantContent("", "Name", nullptr), 0);
    EXPECT_EQ(parser.ReadVariantContent("", "Name", ""), 0);
    EXPECT_EQ(log.Count(Info("Parser", "[ReadVariantContent] Unsupported type, update this method")), 2U);
    EXPECT_EQ(parser.ReadINT32("", "Next"), 1);
}

}  // namespace
}  // namespace mw::tern::DBusMessage::Tests
