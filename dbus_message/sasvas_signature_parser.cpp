#include <tern/dbus_message/sasvas_signature_parser.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/service_common.h>

#include <cerrno>
#include <cstring>

#include "dbus_message/message_walk.h"
#include "dbus_message/parse_budget.h"
#include "foundation/error_text.h"

namespace mw::tern::DBusMessage {

SASVASsignatureParser::SASVASsignatureParser(sd_bus_message* message) : mMessage(message), mParser(message) {}

SASVASsignatureParser::~SASVASsignatureParser() = default;

int SASVASsignatureParser::ParseMessage() {
    ParseBudget budget;  // of name and dictionary together
    ParseLog& log = budget.Log();
    const char* name = nullptr;
    const int r = sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &name);
    if (r < 0) {
        TERN_PARSE_LOG(log, ERROR, ServiceCommon::mLogger,
                       "Failure sd_bus_message_read_basic(string), ret=(%d, %s)", r, mwl::ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    if (!budget.Take(MemoryBudget::Text(strlen(name)), "ParseMessage")) {
        return -ENOBUFS;
    }
    mName = name;
    TERN_PARSE_LOG(log, TRACE, ServiceCommon::mLogger, "properties=%s", log.Text(name).Get());
    return MessageWalk(mMessage, mParser.GetValuesList(), budget, std::string()).ReadArrayOfDictionaries();
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
