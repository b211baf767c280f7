#pragma once

#include <tern/dbus_client/icommand.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

struct sd_bus;

namespace mw::tern::DBusCommand {

/// Base of the commands: has the connection for the call, and reports its outcome. Derive from it and
/// implement CallMethod.
///
/// Where C++20 is at hand and the interface has a contract, Typed::BlockingProxy
/// (<tern/typed/blocking_proxy.h>) makes the same call in one line and gives the peer's error back; on the
/// D-Bus thread Typed::Proxy, which does not block. This class stays for C++17, for calls that are put
/// together by hand, and for a connection that is supplied.
///
/// One thread at a time. Failures are logged with the logger name "Service".
///
/// Execute blocks until the answer comes, at most:
/// - for sd-bus's time-out: 25 s, or what the environment variable SYSTEMD_BUS_TIMEOUT says, or on a supplied
///   bus sd_bus_set_method_call_timeout(3);
/// - longer for the first call of a connection. A bus that accepts the connection and does not answer costs
///   90 s, a limit that nothing changes. The greeting of the bus may take the time-out once more.
/// - two seconds more when CallMethod has left something in the queue of a connection of its own: that goes
///   out before the connection is closed. What the bus has not taken by then is lost, which is logged and
///   does not change the status.
///
/// On a thread whose default event loop feeds a watchdog (a service's D-Bus thread under WatchdogSec=),
/// Execute lets sd-bus wait for an answer no longer than a quarter of the watchdog's period, whatever
/// time-out is set, and for a queue no longer than what is left of that. The status is then Timeout, and the
/// process is not killed because of a peer that does not answer. The limit is for each sd-bus call that
/// CallMethod makes; several in one callback add up. Other threads, and calls that give sd_bus_call(3) a
/// time-out of their own, are not limited.
///
/// While a call waits, sd-bus takes in and keeps whatever anybody sends to the same connection. With the
/// service's own bus supplied on the D-Bus thread, a third party can make the process grow for as long as the
/// answer is due, by hundreds of mebibytes in 25 s. So call from a worker's thread without a supplied bus, or
/// without waiting (sd_bus_call_async(3)).
class TERN_API Command : public ICommand {
public:
    Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /// The bus for the calls to come. With null, the initial value, each Execute opens a private connection
    /// to the system bus and closes it again. The bus is borrowed: it is never closed or released here,
    /// outlives the Execute, and is used on the calling thread, which must be its own.
    void SetBus(sd_bus* bus) { mBus = bus; }

    /// Ok when CallMethod returned 0 or more. Otherwise the status of its result, logged. When
    /// sd_bus_open_system(3) fails, CallMethod is not called, and the status is that of this failure, logged.
    /// May be repeated.
    StatusCode Execute() override;

private:
    sd_bus* mBus = nullptr;
};

}  // namespace mw::tern::DBusCommand
