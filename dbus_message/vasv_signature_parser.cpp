#include <tern/dbus_message/vasv_signature_parser.h>

#include <tern/foundation/log.h>

#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mw::tern::DBusMessage {

namespace {

const mwl::StaticText LOGGER("VASVsignatureParser");

}  // namespace

VASVsignatureParser::VASVsignatureParser() = default;

VASVsignatureParser::VASVsignatureParser(sd_bus_message* message) : Parser(message) {}

VASVsignatureParser::~VASVsignatureParser() = default;

int VASVsignatureParser::ParseMessage() {
    const int r = ReadVariant("", "");
    if (r < 0) {
        // The single quote is part of the text.
        TERN_LOG_ERROR(LOGGER, "[ParseMessage] Failure ReadVariant ', ret=(%d, %s)", r, mwl::ErrorText(-r));
    }
    return r;
}

}  // namespace mw::tern::DBusMessage
