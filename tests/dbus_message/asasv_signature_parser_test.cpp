#include <tern/dbus_message/asasv_signature_parser.h>

#include "structures_parser_tests.h"

namespace mw::tern::DBusMessage {
namespace {

struct StringKind {
    using Parser = ASASVsignatureParser;
    static constexpr const char* STRUCTURE = "(sa{sv})";
    static constexpr char NAME = 's';
    static constexpr const char* NAME_WORD = "string";

    static ::tern::test::LogEntry LoggedName(const std::string& name) {
        return ::tern::test::Info("Service", "stringValue=" + name);
    }
    static int ReadStructure(Parser& parser) { return parser.ReadStringAndArrayASV(); }
};

INSTANTIATE_TYPED_TEST_SUITE_P(ASASVsignatureParser, StructuresParserTest, StringKind);

TEST(ASASVsignatureParser, AStructureThatBeginsWithAnObjectPathIsRefused) {
    TestMessages messages;
    const BusMessage message = messages.Make("a(oa{sv})", 1, "/path", 0);
    Recorder<ASASVsignatureParser> parser(message.get());
    EXPECT_EQ(parser.ReadArrayASASV(), -ENXIO);
    EXPECT_THAT(parser.entries, IsEmpty());
    EXPECT_TRUE(std::is_abstract_v<ASASVsignatureParser>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ASASVsignatureParser>);
}

}  // namespace
}  // namespace mw::tern::DBusMessage
