#include <tern/dbus_message/asasv_signature_parser.h>

#include <tern/foundation/service_common.h>

#include "dbus_message/structures_walk.h"
#include "foundation/error_text.h"

namespace mw::tern::DBusMessage {

namespace {

using mwl::ErrorText;

/// Structures that begin with a string. Its name is logged at info level. Fixed by the interface.
struct StringForm {
    static constexpr const char* OPERATION = "ReadStringAndArrayASV";
    static constexpr char NAME_TYPE = SD_BUS_TYPE_STRING;
    static constexpr const char* STRUCTURE = "(sa{sv})";
    static constexpr const char* FIELDS = "sa{sv}";

    static void LogEnterFailure(ParseLog& log, int r) {
        TERN_PARSE_LOG(log, ERROR, ServiceCommon::mLogger,
                       "Failure sd_bus_message_enter_container((sa{sv})), ret=(%d, %s)", r, ErrorText(-r));
    }
    static void LogNameFailure(ParseLog& log, int r) {
        TERN_PARSE_LOG(log, ERROR, ServiceCommon::mLogger,
                       "Failure sd_bus_message_read_basic(string), ret=(%d, %s)", r, ErrorText(-r));
    }
    static void LogName(ParseLog& log, const char* name) {
        TERN_PARSE_LOG(log, INFO, ServiceCommon::mLogger, "stringValue=%s", log.Text(name).Get());
    }
};

using StringWalk = StructuresWalk<StringForm, ASASVsignatureParser>;

}  // namespace

ASASVsignatureParser::ASASVsignatureParser(sd_bus_message* message) : mMessage(message) {}

ASASVsignatureParser::~ASASVsignatureParser() = default;

int ASASVsignatureParser::ParseMessage() {
    return ReadArrayASASV();
}

int ASASVsignatureParser::ReadArrayASASV() {
    return StringWalk(mMessage, *this).ReadArray();
}

int ASASVsignatureParser::ParseArrayOfStructures() {
    return StringWalk(mMessage, *this).ParseArrayOfStructures();
}

int ASASVsignatureParser::ReadStringAndArrayASV() {
    return StringWalk(mMessage, *this).ReadStructure();
}

}  // namespace mw::tern::DBusMessage
