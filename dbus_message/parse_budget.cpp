#include "dbus_message/parse_budget.h"

#include "platform/static_text.h"

namespace mw::tern::DBusMessage {

namespace {

const mwl::StaticText LOGGER("Parser");

}  // namespace

void ParseBudget::LogExcess(const char* operation) {
    TERN_PARSE_LOG(mLog, ERROR, LOGGER, "[%s] Keys of one message exceed %zu bytes", operation,
                   MemoryBudget::LIMIT);
}

}  // namespace mw::tern::DBusMessage
