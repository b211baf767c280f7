#include "dbus_message/parser_fixture.h"

namespace mw::tern::DBusMessage::Tests {
namespace {

using Reader = int (Parser::*)(const std::string&, const char*);

/// One basic type: how a message with it is made, read, logged and read back.
struct BasicRow {
    const char* operation;
    const char* word;
    const char* signature;
    Reader read;
    BusMessage (*make)(TestMessages&, const std::string& types, bool inVariant);
    LogEntry logged;
    bool (*holds)(const ValuesList&, const std::string& key);
};

/// A message with one value, plain or in a variant.
template <typename T>
BusMessage MakeOne(TestMessages& messages, const std::string& type, bool inVariant, T value) {
    return inVariant ? messages.Make("v", type.c_str(), value) : messages.Make(type.c_str(), value);
}

template <typename Out>
bool Holds(const ValuesList& list, StatusCode (ValuesList::*get)(const std::string&, Out&) const,
           const std::string& key, const Out& expected) {
    Out out{};
    return (list.*get)(key, out) == StatusCode::Ok && out == expected;
}

bool IsSameFile(unsigned int a, int b) {
    struct stat first {};
    struct stat second {};
    return fstat(static_cast<int>(a), &first) == 0 && fstat(b, &second) == 0 &&
           first.st_ino == second.st_ino && first.st_dev == second.st_dev;
}

#define MAKE_ONE(value)                                                                  \
    [](TestMessages& messages, const std::string& types, bool inVariant) -> BusMessage { \
        return MakeOne(messages, types, inVariant, value);                               \
    }
#define HOLDS(Getter, value)                                     \
    [](const ValuesList& list, const std::string& key) -> bool { \
        return Holds(list, &ValuesList::Getter, key, value);     \
    }

const BasicRow BASIC_ROWS[] = {
    {"ReadString", "STRING", "s", &Parser::ReadString, MAKE_ONE("text \xc3\xa9"),
     Trace("Parser", "[ReadString] keyName=Name, value=text \xc3\xa9"),
     HOLDS(GetString, std::string("text \xc3\xa9"))},
    {"ReadBoolean", "BOOLEAN", "b", &Parser::ReadBoolean, MAKE_ONE(1),
     Trace("Parser", "[ReadBoolean] keyName=Name, value=1"), HOLDS(GetBool, 1)},
    {"ReadINT16", "INT16", "n", &Parser::ReadINT16, MAKE_ONE(-32768),
     Info("Parser", "[ReadINT16] keyName=Name, value=-32768"), HOLDS(GetInt16, short{-32768})},
    {"ReadUINT16", "UINT16", "q", &Parser::ReadUINT16, MAKE_ONE(65535),
     Trace("Parser", "[ReadUINT16] keyName=Name, value=65535"),
     HOLDS(GetUint16, static_cast<unsigned short>(65535))},
    {"ReadINT32", "INT32", "i", &Parser::ReadINT32, MAKE_ONE(-2147483647),
     Trace("Parser", "[ReadINT32] keyName=Name, value=-2147483647"), HOLDS(GetInt32, -2147483647)},
    {"ReadUINT32", "UINT32", "u", &Parser::ReadUINT32, MAKE_ONE(4294967295U),
     Trace("Parser", "[ReadUINT32] keyName=Name, value=4294967295"), HOLDS(GetUint32, 4294967295U)},
    {"ReadINT64", "INT64", "x", &Parser::ReadINT64, MAKE_ONE(std::int64_t{-9223372036854775807}),
     Trace("Parser", "[ReadINT64] keyName=Name, value=-9223372036854775807"),
     HOLDS(GetInt64, -9223372036854775807LL)},
    {"ReadUINT64", "UINT64", "t", &Parser::ReadUINT64, MAKE_ONE(std::uint64_t{18446744073709551615U}),
     Trace("Parser", "[ReadUINT64] keyName=Name, value=18446744073709551615"),
     HOLDS(GetUint64, 18446744073709551615ULL)},
    {"ReadDouble", "DOUBLE", "d", &Parser::ReadDouble, MAKE_ONE(-0.25),
     Trace("Parser", "[ReadDouble] keyName=Name, value=-0.250000"), HOLDS(GetDouble, -0.25)},
    {"ReadByte", "BYTE", "y", &Parser::ReadByte, MAKE_ONE(200),
     Trace("Parser", "[ReadByte] keyName=Name, value=310"), HOLDS(GetUint8, static_cast<unsigned char>(200))},
};

TEST_F(ParserTest, KeySeparatorIsAnUnderscore) {
    EXPECT_EQ(Parser::KEY_SEPARATOR, "_");
}

TEST_F(ParserTest, PrefixIsPrefixSeparatorName) {
    EXPECT_EQ(Parser::CreatePrefix("", "Volume"), "_Volume");
    EXPECT_EQ(Parser::CreatePrefix("_Network", "Port"), "_Network_Port");
    EXPECT_EQ(Parser::CreatePrefix("", ""), "_");
    EXPECT_EQ(Parser::CreatePrefix("_a_", "_b"), "_a___b");
}

TEST_F(ParserTest, ANullNameThrowsBeforeAnythingIsRead) {
    const BusMessage message = mMessages.Make("i", 5);
    Parser parser(message.get());
    EXPECT_THROW(Parser::CreatePrefix("prefix", nullptr), std::logic_error);
    EXPECT_THROW(parser.ReadINT32("", nullptr), std::logic_error);
    EXPECT_THROW(parser.ReadISI("", nullptr), std::logic_error);
    EXPECT_THROW(parser.ReadArrayOfStrings("", nullptr), std::logic_error);
    EXPECT_THROW(parser.ReadVariant("", nullptr), std::logic_error);
    EXPECT_THROW(parser.ReadVariantContent("", nullptr, "i"), std::logic_error);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_EQ(parser.ReadINT32("", "Name"), 1);
}

TEST_F(ParserTest, EachBasicTypeIsReadStoredAndLogged) {
    for (const BasicRow& row : BASIC_ROWS) {
        SCOPED_TRACE(row.operation);
        const BusMessage message = row.make(mMessages, row.signature, false);
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ((parser.*row.read)("prefix", "Name"), 1);
        EXPECT_EQ(parser.GetValuesList().Size(), 1U);
        EXPECT_TRUE(row.holds(parser.GetValuesList(), "prefix_Name"));
        EXPECT_THAT(log.Entries(), ElementsAre(row.logged));
    }
}

TEST_F(ParserTest, EachBasicTypeIsReadFromAVariant) {
    for (const BasicRow& row : BASIC_ROWS) {
        SCOPED_TRACE(row.operation);
        const BusMessage message = row.make(mMessages, row.signature, true);
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ(parser.ReadVariant("", "Name"), 1);
        EXPECT_TRUE(row.holds(parser.GetValuesList(), "_Name"));
        EXPECT_THAT(log.Entries(), ElementsAre(row.logged));
        EXPECT_EQ(sd_bus_message_at_end(message.get(), 1), 1);
    }
}

TEST_F(ParserTest, EachBasicTypeRefusesAnotherType) {
    for (const BasicRow& row : BASIC_ROWS) {
        SCOPED_TRACE(row.operation);
        const BusMessage message = mMessages.Make("g", "s");
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ((parser.*row.read)("", "Name"), -ENXIO);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_THAT(
            log.Entries(),
            ElementsAre(Error("Parser", std::string("[") + row.operation + "] Failed to read SD_BUS_TYPE_" +
                                            row.word + " (-6, No such device or address)")));
    }
}

TEST_F(ParserTest, AFileDescriptorIsTheMessagesOwn) {
    const std::size_t before = ::tern::test::CountDescriptors();
    const mwl::UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    for (const bool inVariant : {false, true}) {
        BusMessage message =
            inVariant ? mMessages.Make("v", "h", file.Get()) : mMessages.Make("h", file.Get());
        const std::size_t open = ::tern::test::CountDescriptors();
        unsigned int fd = 0;
        {
            const LogCapture log;
            Parser parser(message.get());
            EXPECT_EQ(inVariant ? parser.ReadVariant("", "Name") : parser.ReadFileDescriptor("", "Name"), 1);
            EXPECT_EQ(parser.GetValuesList().GetFD("_Name", fd), StatusCode::Ok);
            EXPECT_THAT(log.Entries(),
                        ElementsAre(Trace("Parser",
                                          "[ReadFileDescriptor] keyName=Name, value=" + std::to_string(fd))));
        }
        // Neither duplicated nor closed by the list; it ends with the message.
        EXPECT_EQ(::tern::test::CountDescriptors(), open);
        EXPECT_TRUE(IsSameFile(fd, file.Get()));
        message.reset();
        EXPECT_EQ(fcntl(static_cast<int>(fd), F_GETFD), -1);
    }
    EXPECT_EQ(::tern::test::CountDescriptors(), before + 1);

    const BusMessage other = mMessages.Make("i", 5);
    const LogCapture log;
    EXPECT_EQ(Parser(other.get()).ReadFileDescriptor("", "Name"), -ENXIO);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ReadFileDescriptor] Failed to read SD_BUS_TYPE_UNIX_FD (-6, No "
                                  "such device or address)")));
}

TEST_F(ParserTest, AByteIsLoggedInOctal) {
    const BusMessage message = mMessages.Make("y", 8);
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadByte("", "B"), 1);
    unsigned char value = 0;
    EXPECT_EQ(parser.GetValuesList().GetUint8("_B", value), StatusCode::Ok);
    EXPECT_EQ(value, 8);
    EXPECT_THAT(log.Entries("Parser"), ElementsAre(Trace("Parser", "[ReadByte] keyName=B, value=10")));
}

TEST_F(ParserTest, WithoutAMessageEveryReaderFails) {
    Parser parser;
    for (const BasicRow& row : BASIC_ROWS) {
        EXPECT_EQ((parser.*row.read)("", "Name"), -EINVAL) << row.operation;
    }
    EXPECT_EQ(parser.ReadISI("", "Name"), -EINVAL);
    EXPECT_EQ(parser.ReadArrayOfStrings("", "Name"), -EINVAL);
    EXPECT_EQ(parser.ReadVariant("", "Name"), -EINVAL);
    EXPECT_EQ(parser.ReadVariantContent("", "Name", "ai"), -EINVAL);
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), -EINVAL);
    EXPECT_EQ(parser.ParseArrayOfDictionaries(""), -EINVAL);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
}

TEST_F(ParserTest, AMessageThatIsNotSealedIsRefused) {
    const BusMessage message = mMessages.New();
    Require(sd_bus_message_append(message.get(), "i", 5), "append");
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadINT32("", "Name"), -EPERM);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Parser",
                                                 "[ReadINT32] Failed to read SD_BUS_TYPE_INT32 (-1, "
                                                 "Operation not permitted)")));
}

// sd-bus looks first whether what stands there could be the contents of a variant.
TEST_F(ParserTest, AVariantAskedForWhereAnotherTypeStandsIsRefused) {
    const struct {
        BusMessage message;
        const char* signature;
        int result;
    } rows[] = {
        {mMessages.Make("s", "text"), "s", -ENXIO},
        {mMessages.Make("i", 5), "i", -ENXIO},
        {mMessages.Make("as", 0), "as", -ENXIO},
        {mMessages.Make("ai", 1, 5), "ai", -ENXIO},
        {mMessages.Make("aa{sv}", 0), "aa{sv}", -ENXIO},
        {mMessages.Make("a(isi)", 0), "a(isi)", -ENXIO},
        {mMessages.Make("(i)", 5), "(i)", -ENXIO},
        {mMessages.Make("(as)", 0), "(as)", -ENXIO},
        {mMessages.Make("(isi)", 1, "x", 2), "(isi)", -EINVAL},
        {mMessages.Make("a{sv}", 0), "a{sv}", -EINVAL},
        {mMessages.Make("a{si}", 0), "a{si}", -EINVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.signature);
        const LogCapture log;
        Parser parser(row.message.get());
        EXPECT_EQ(parser.ReadVariant("", "Name"), row.result);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_EQ(log.Entries().size(), 1U);
    }
    const BusMessage message = mMessages.Make("a{sv}", 1, "A", "i", 1);
    Require(sd_bus_message_enter_container(message.get(), 'a', "{sv}"), "enter");
    EXPECT_EQ(Parser(message.get()).ReadVariant("", "Name"), -EINVAL) << "a dictionary entry";
}

const struct {
    const char* operation;
    const char* contents;
    Reader read;
} ONE_OF_EACH[] = {
    {"ReadString", "s", &Parser::ReadString},   {"ReadBoolean", "b", &Parser::ReadBoolean},
    {"ReadINT16", "n", &Parser::ReadINT16},     {"ReadUINT16", "q", &Parser::ReadUINT16},
    {"ReadINT32", "i", &Parser::ReadINT32},     {"ReadUINT32", "u", &Parser::ReadUINT32},
    {"ReadINT64", "x", &Parser::ReadINT64},     {"ReadUINT64", "t", &Parser::ReadUINT64},
    {"ReadDouble", "d", &Parser::ReadDouble},   {"ReadByte", "y", &Parser::ReadByte},
    {"ReadISI", "(isi)", &Parser::ReadISI},     {"ReadFileDescriptor", "h", &Parser::ReadFileDescriptor},
    {"ReadVariant", "v", &Parser::ReadVariant}, {"ReadArrayOfStrings", "as", &Parser::ReadArrayOfStrings},
};

TEST_F(ParserTest, ReadersAtTheEndOfAnArrayReturnZeroSilently) {
    for (const auto& row : ONE_OF_EACH) {
        SCOPED_TRACE(row.operation);
        const BusMessage message = mMessages.Make((std::string("a") + row.contents).c_str(), 0);
        Require(sd_bus_message_enter_container(message.get(), 'a', row.contents), "enter");
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ((parser.*row.read)("", "Name"), 0);
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_THAT(log.Entries(), IsEmpty());
    }
    const BusMessage message = mMessages.Make("aa{sv}", 0);
    Require(sd_bus_message_enter_container(message.get(), 'a', "a{sv}"), "enter");
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadArrayOfDictionaries(""), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(ParserTest, ReadersAtTheEndOfAnotherContainerReturnWhatSdBusReturns) {
    const struct {
        BusMessage message;
        const char* types;
        char type;
        const char* contents;
    } containers[] = {
        {mMessages.Make("(i)", 5), "(i)", 'r', "i"},
        {mMessages.Make("v", "i", 5), "v", 'v', "i"},
    };
    for (const auto& container : containers) {
        Require(sd_bus_message_enter_container(container.message.get(), container.type, container.contents),
                "enter");
        Parser parser(container.message.get());
        EXPECT_EQ(parser.ReadINT32("", "Name"), 1);
        for (const auto& row : ONE_OF_EACH) {
            SCOPED_TRACE(std::string(row.operation) + " in " + container.types);
            const LogCapture log;
            const bool isVariant = row.contents == std::string("v");
            EXPECT_EQ((parser.*row.read)("", "Next"), isVariant ? 0 : -ENXIO);
            const bool isSilent = isVariant || row.contents == std::string("as");
            EXPECT_EQ(log.Entries().size(), isSilent ? 0U : 1U);
        }
        const LogCapture log;
        EXPECT_EQ(parser.ReadArrayOfDictionaries(""), -ENXIO);
        EXPECT_EQ(log.Entries().size(), 1U);
        EXPECT_EQ(parser.ParseArrayOfDictionaries(""), -ENXIO);
        EXPECT_EQ(log.Entries().size(), 1U);
        EXPECT_EQ(parser.GetValuesList().Size(), 1U);
    }
}

TEST_F(ParserTest, ReadingOnBehindTheBodyFails) {
    const BusMessage message = mMessages.Make("i", 5);
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadINT32("", "Name"), 1);
    const LogCapture log;
    EXPECT_EQ(parser.ReadINT32("", "Next"), -ENXIO);
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), -ENXIO);
    EXPECT_EQ(parser.ReadISI("", "Next"), -ENXIO);
    EXPECT_EQ(parser.ReadVariant("", "Next"), 0);  // sd-bus sees no next type and calls that no error
    EXPECT_EQ(parser.GetValuesList().Size(), 1U);
    EXPECT_EQ(log.Entries().size(), 3U);
}

TEST_F(ParserTest, ReadersGoOnWhereTheLastOneStopped) {
    const BusMessage first = mMessages.Make("isb", 5, "text", 1);
    Parser parser(first.get());
    EXPECT_EQ(parser.ReadINT32("_a", "i"), 1);
    EXPECT_EQ(parser.ReadString("_a", "s"), 1);
    EXPECT_EQ(parser.ReadBoolean("_a", "b"), 1);
    const BusMessage second = mMessages.Make("u", 7U);
    parser.SetMessage(second.get());
    EXPECT_EQ(parser.ReadUINT32("_a", "u"), 1);
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_a_b", "_a_i", "_a_s", "_a_u"));
    parser.GetValuesList().AddValueInt32("own", 1);
    EXPECT_TRUE(static_cast<const Parser&>(parser).GetValuesList().Contains("own"));
}

// ---- (isi)

TEST_F(ParserTest, AStructureOfThreeIsStoredAndLogged) {
    for (const bool inVariant : {false, true}) {
        const BusMessage message = inVariant ? mMessages.Make("v", "(isi)", -1, "between", 2)
                                             : mMessages.Make("(isi)", -1, "between", 2);
        const LogCapture log;
        Parser parser(message.get());
        EXPECT_EQ(inVariant ? parser.ReadVariant("", "Name") : parser.ReadISI("", "Name"), 1);
        ValueISI value;
        EXPECT_EQ(parser.GetValuesList().GetISI("_Name", value), StatusCode::Ok);
        EXPECT_EQ(value.first, -1);
        EXPECT_EQ(value.text, "between");
        EXPECT_EQ(value.second, 2);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Trace("Parser", "[ReadISI] keyName=Name, Int, value=-1"),
                                Trace("Parser", "[ReadISI] keyName=Name, String, value=between"),
                                Trace("Parser", "[ReadISI] keyName=Name, Int, value=2")));
        EXPECT_EQ(sd_bus_message_at_end(message.get(), 1), 1);
    }
}

TEST_F(ParserTest, AnotherStructureIsRefusedInTheWordsOfADescriptor) {
    const BusMessage message = mMessages.Make("(ii)", 1, 2);
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadISI("", "Name"), -ENXIO);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Parser",
                                  "[ReadISI] Failed to read SD_BUS_TYPE_UNIX_FD (-6, No such device "
                                  "or address)")));
}

TEST_F(ParserTest, AStructureWhoseFieldFailsIsLeftWithoutAWord) {
    for (int field = 0; field < 3; ++field) {
        SCOPED_TRACE(field);
        const BusMessage message = mMessages.Make("(isi)u", 1, "between", 2, 7U);
        const LogCapture log;
        Parser parser(message.get());
        {
            const FaultScope scope(fault_sd_bus_message_read_basic);
            fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, field);
            EXPECT_EQ(parser.ReadISI("", "Name"), 1);
        }
        EXPECT_EQ(parser.GetValuesList().Size(), 0U);
        EXPECT_EQ(log.Entries().size(), static_cast<std::size_t>(field));
        // The container was left: what follows it can be read.
        EXPECT_EQ(parser.ReadUINT32("", "Next"), 1);
    }
}

// ---- as

TEST_F(ParserTest, StringsOfAnArrayAreNumbered) {
    const BusMessage message =
        mMessages.Make("a{sv}", 1, "L", "as", 12, "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l");
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfDictionaries(""), 0);
    const ValuesList& list = parser.GetValuesList();
    EXPECT_EQ(list.Size(), 12U);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(GetText(list, "_L" + std::to_string(i)), std::string(1, static_cast<char>('a' + i)));
    }
    EXPECT_EQ(log.Entries().size(), 12U);
    EXPECT_EQ(log.Entries().front(), Trace("Parser", "[ReadArrayOfStrings] key=_L0, value=a"));
    EXPECT_EQ(log.Entries().back(), Trace("Parser", "[ReadArrayOfStrings] key=_L11, value=l"));
}

TEST_F(ParserTest, AnEmptyArrayOfStringsYieldsNothing) {
    const BusMessage message = mMessages.Make("as", 0);
    const LogCapture log;
    Parser parser(message.get());
    EXPECT_EQ(parser.ReadArrayOfStrings("", "L"), 1);
    EXPECT_EQ(parser.GetValuesList().Size(), 0U);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(ParserTest, AnArrayOfSomethingElseIsRefusedWithoutAWord) {
    const BusMessage message = mMessages.Make("ai", 1, 5);
    const LogCapture log;
    EXPECT_EQ(Parser(message.get()).ReadArrayOfStrings("", "L"), -ENXIO);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(ParserTest, AFailingStringEndsTheArrayWithoutAWord) {
    const BusMessage message = mMessages.Make("asu", 3, "a", "b", "c", 7U);
    const LogCapture log;
    Parser parser(message.get());
    {
        const FaultScope scope(fault_sd_bus_message_read_basic);
        fault_sd_bus_message_read_basic.Fail(-EBADMSG, 0, 1, 1);
        EXPECT_EQ(parser.ReadArrayOfStrings("", "L"), 1);
    }
    EXPECT_THAT(parser.GetValuesList().Keys(), ElementsAre("_L0"));
    EXPECT_THAT(log.Entries(), ElementsAre(Trace("Parser", "[ReadArrayOfStrings] key=_L0, value=a")));
    EXPECT_EQ(parser.ReadUINT32("", "Next"), 1);  // the array was left
}

TEST_F(ParserTest, IsNotCopiedAndHasAVirtualDestructor) {
    EXPECT_FALSE(std::is_copy_constructible_v<Parser>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Parser>);
}

}  // namespace
}  // namespace mw::tern::DBusMessage::Tests
