#include <tern/dbus_message/aoasv_signature_parser.h>

#include <tern/foundation/service_common.h>

#include "dbus_message/structures_walk.h"
#include "foundation/error_text.h"

namespace mw::tern::DBusMessage {

namespace {

using mwl::ErrorText;

/// Structures that begin with an object path.
struct ObjectPathForm {
    static constexpr const char* OPERATION = "ReadObjectPathAndArrayASV";
    static constexpr char NAME_TYPE = SD_BUS_TYPE_OBJECT_PATH;
    static constexpr const char* STRUCTURE = "(oa{sv})";
    static constexpr const char* FIELDS = "oa{sv}";

    static void LogEnterFailure(ParseLog& log, int r) {
        TERN_PARSE_LOG(log, ERROR, ServiceCommon::mLogger,
                       "Failure sd_bus_message_enter_container((oa{sv})), ret=(%d, %s)", r, ErrorText(-r));
    }
    static void LogNameFailure(ParseLog& log, int r) {
        TERN_PARSE_LOG(log, ERROR, ServiceCommon::mLogger,
                       "Failure sd_bus_message_read_basic(object path), ret=(%d, %s)", r, ErrorText(-r));
    }
    static void LogName(ParseLog& log, const char* name) {
        TERN_PARSE_LOG(log, TRACE, ServiceCommon::mLogger, "objectPath=%s", log.Text(name).Get());
    }
};

using ObjectPathWalk = StructuresWalk<ObjectPathForm, AOASVsignatureParser>;

}  // namespace

AOASVsignatureParser::AOASVsignatureParser(sd_bus_message* message) : mMessage(message) {}

AOASVsignatureParser::~AOASVsignatureParser() = default;

int AOASVsignatureParser::ParseMessage() {
    return ReadArrayAOASV();
}

int AOASVsignatureParser::ReadArrayAOASV() {
    return ObjectPathWalk(mMessage, *this).ReadArray();
}

int AOASVsignatureParser::ParseArrayOfStructures() {
    return ObjectPathWalk(mMessage, *this).ParseArrayOfStructures();
}

int AOASVsignatureParser::ReadObjectPathAndArrayASV() {
    return ObjectPathWalk(mMessage, *this).ReadStructure();
}

}  // namespace mw::tern::DBusMessage
