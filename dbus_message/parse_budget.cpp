#include "dbus_message/parse_budget.h"

#include <string>

namespace mw::tern::DBusMessage {

namespace {

const std::string LOGGER = "Parser";

}  // namespace

void ParseBudget::LogExcess(const char* operation) {
    TERN_PARSE_LOG(mLog, ERROR, LOGGER, "[%s] Keys of one message exceed %zu bytes", operation,
                   MemoryBudget::LIMIT);
}

}  // namespace mw::tern::DBusMessage
