#include <tern/dbus_client/command.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <climits>

#include "dbus_client/call_time_limit.h"
#include "foundation/error_text.h"
#include "foundation/handle.h"

using mwl::ErrorText;

namespace mw::tern::DBusCommand {

namespace {

/// The error number of a negative result; an application's may be INT_MIN, which has no opposite.
int ErrorNumber(int result) {
    return result == INT_MIN ? result : -result;
}

}  // namespace

StatusCode Command::Execute() {
    mwl::Handle<sd_bus, sd_bus_flush_close_unref> ownBus;
    sd_bus* bus = mBus;
    int r = 0;
    if (bus == nullptr) {
        r = sd_bus_open_system(&bus);
        ownBus.reset(bus);
    }
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to connect to system bus (%d, %s)", r, ErrorText(-r));
    } else {
        {
            const CallTimeLimit limit(bus);
            r = CallMethod(bus);
        }
        if (r >= 0) {
            return StatusCode::Ok;
        }
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to call method (%d, %s)", r,
                       ErrorText(ErrorNumber(r)));
        ownBus.reset();
    }
    const StatusCode status = MakeStatusCodeFromReturnCode(r);
    TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to execute command on system bus, status=%s",
                   ConvertStatusCodeToString(status).c_str());
    return status;
}

}  // namespace mw::tern::DBusCommand
