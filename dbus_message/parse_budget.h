#pragma once

#include <cstddef>

#include "dbus_message/memory_budget.h"
#include "dbus_message/parse_log.h"

namespace mw::tern::DBusMessage {

/// The memory and the log that one parse may use, shared by all reads in it. The outermost reader has it, on
/// its stack; when it goes, the parse is over.
class ParseBudget {
public:
    /// Takes so much memory. False, and logged, when it is not there: then the reader `operation` gives up
    /// with -ENOBUFS.
    bool Take(std::size_t bytes, const char* operation) {
        const bool taken = mMemory.Take(bytes);
        if (!taken) {
            LogExcess(operation);
        }
        return taken;
    }
    /// Of what was taken before.
    void GiveBack(std::size_t bytes) { mMemory.GiveBack(bytes); }

    ParseLog& Log() { return mLog; }

private:
    void LogExcess(const char* operation);

    MemoryBudget mMemory;
    ParseLog mLog;
};

}  // namespace mw::tern::DBusMessage
