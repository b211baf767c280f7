#include <tern/dbus_message/aoasv_signature_parser.h>

#include "structures_parser_tests.h"

namespace mw::tern::DBusMessage {
namespace {

struct ObjectPathKind {
    using Parser = AOASVsignatureParser;
    static constexpr const char* STRUCTURE = "(oa{sv})";
    static constexpr char NAME = 'o';
    static constexpr const char* NAME_WORD = "object path";

    static ::tern::test::LogEntry LoggedName(const std::string& name) {
        return Trace("Service", "objectPath=" + name);
    }
    static int ReadStructure(Parser& parser) { return parser.ReadObjectPathAndArrayASV(); }
};

INSTANTIATE_TYPED_TEST_SUITE_P(AOASVsignatureParser, StructuresParserTest, ObjectPathKind);

TEST(AOASVsignatureParser, AStructureThatBeginsWithAStringIsRefused) {
    TestMessages messages;
    const BusMessage message = messages.Make("a(sa{sv})", 1, "/path", 0);
    Recorder<AOASVsignatureParser> parser(message.get());
    EXPECT_EQ(parser.ReadArrayAOASV(), -ENXIO);
    EXPECT_THAT(parser.entries, IsEmpty());
    EXPECT_TRUE(std::is_abstract_v<AOASVsignatureParser>);
    EXPECT_TRUE(std::has_virtual_destructor_v<AOASVsignatureParser>);
}

}  // namespace
}  // namespace mw::tern::DBusMessage
