#include <tern/dbus_message/sasvas_signature_parser.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include "foundation/error_text.h"

namespace mw::tern::DBusMessage {

SASVASsignatureParser::SASVASsignatureParser(sd_bus_message* message) : mMessage(message), mParser(message) {}

SASVASsignatureParser::~SASVASsignatureParser() = default;

int SASVASsignatureParser::ParseMessage() {
    const char* name = nullptr;
    const int r = sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &name);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failure sd_bus_message_read_basic(string), ret=(%d, %s)", r,
                       mwl::ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    mName = name;
    TERN_LOG_TRACE(ServiceCommon::mLogger, "properties=%s", mName.c_str());
    return mParser.ParseMessage();
}

const std::string& SASVASsignatureParser::GetName() const {
    return mName;
}

const ValuesList& SASVASsignatureParser::GetValuesList() const {
    return mParser.GetValuesList();
}

ValuesList& SASVASsignatureParser::GetValuesList() {
    return mParser.GetValuesList();
}

const std::vector<std::string>& SASVASsignatureParser::GetStrings() const {
    return mStrings;
}

}  // namespace mw::tern::DBusMessage
