#include "dbus_message/parse_log.h"

#include <algorithm>
#include <string>

#include "platform/static_text.h"

namespace mw::tern::DBusMessage {

namespace {

const mwl::StaticText LOGGER("Parser");

}  // namespace

bool ParseLog::Count(int level) {
    const bool isError = level <= ERROR;
    const unsigned lines = isError ? LINES : LINES - LINES_FOR_ERRORS;
    const std::size_t bytes = isError ? BYTES : BYTES - BYTES_FOR_ERRORS;
    if (mLines < lines && mBytes < bytes) {
        ++mLines;
        mBytes += LINE_BYTES;
        return true;
    }
    ++mLeftOut;
    mMostSevere = std::min(mMostSevere, level);
    return false;
}

void ParseLog::SumUp() const {
    // One format each, because the level is part of a log call.
    switch (mMostSevere) {
        case ERROR:
            TERN_LOG_ERROR(LOGGER, "%zu more lines of one message left out", mLeftOut);
            break;
        case INFO:
            TERN_LOG_INFO(LOGGER, "%zu more lines of one message left out", mLeftOut);
            break;
        default:
            TERN_LOG_TRACE(LOGGER, "%zu more lines of one message left out", mLeftOut);
            break;
    }
}

}  // namespace mw::tern::DBusMessage
