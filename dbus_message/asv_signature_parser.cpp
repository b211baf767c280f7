#include <tern/dbus_message/asv_signature_parser.h>

namespace mw::tern::DBusMessage {

ASVsignatureParser::ASVsignatureParser() = default;

ASVsignatureParser::ASVsignatureParser(sd_bus_message* message) : Parser(message) {}

ASVsignatureParser::~ASVsignatureParser() = default;

int ASVsignatureParser::ParseMessage() {
    return ReadArrayOfDictionaries("");
}

}  // namespace mw::tern::DBusMessage
