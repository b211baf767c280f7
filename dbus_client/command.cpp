#include <tern/dbus_client/command.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "dbus_client/call_time_limit.h"
#include "foundation/error_text.h"
#include "foundation/handle.h"

using mwl::ErrorText;

namespace mw::tern::DBusCommand {

namespace {

/// How long the bus gets to take what CallMethod left in the queue of a connection of the command's own. A
/// bus that reads at all takes megabytes in this time.
constexpr std::uint64_t FLUSH_LIMIT_US = 2000000;

bool HasQueued(sd_bus* bus) {
    std::uint64_t queued = 0;
    return sd_bus_is_open(bus) > 0 && (sd_bus_get_n_queued_write(bus, &queued) < 0 || queued > 0);
}

/// What is still queued has had its time, and is lost.
void Close(sd_bus* bus) {
    if (HasQueued(bus)) {
        sd_bus_close_unref(bus);
    } else {
        sd_bus_flush_close_unref(bus);
    }
}
using OwnBus = mwl::Handle<sd_bus, Close>;

/// At its end what is queued on a connection of the command's own goes out, within the limits. sd-bus's own
/// flush has none: a bus that does not read would hold the thread for ever. A call has one, and goes behind
/// what is queued.
class FlushAtEnd {
public:
    /// Both are borrowed. Does nothing when the bus is null.
    FlushAtEnd(sd_bus* bus, const CallTimeLimit& limit) : mBus(bus), mLimit(limit) {}
    ~FlushAtEnd() {
        if (mBus == nullptr || !HasQueued(mBus)) {
            return;
        }
        const std::uint64_t limitUs = std::min(FLUSH_LIMIT_US, mLimit.LeftUs());
        int r = -ETIMEDOUT;
        if (limitUs > 0 && (r = sd_bus_set_method_call_timeout(mBus, limitUs)) >= 0) {
            // Whatever the answer is.
            r = sd_bus_call_method(mBus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, nullptr);
        }
        if (HasQueued(mBus)) {
            TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to send what is queued for the bus (%d, %s)", r,
                           ErrorText(-r));
        }
    }
    FlushAtEnd(const FlushAtEnd&) = delete;
    FlushAtEnd& operator=(const FlushAtEnd&) = delete;

private:
    sd_bus* const mBus;
    const CallTimeLimit& mLimit;
};

/// The error number of a negative result; an application's may be INT_MIN, which has no opposite.
int ErrorNumber(int result) {
    return result == INT_MIN ? result : -result;
}

}  // namespace

StatusCode Command::Execute() {
    OwnBus ownBus;
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
            const FlushAtEnd flush(ownBus.get(), limit);
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
