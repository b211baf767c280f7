#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/event_loop.h>

namespace mw::tern {

/// The event loop of a service's D-Bus thread: the thread's default sd-event loop, with the systemd watchdog
/// fed by itself, ended in order by SIGTERM or SIGINT.
///
/// Order: `BlockSignalsForRunningThread` on the main thread before any other thread exists, so that all
/// inherit the mask; then on the D-Bus thread `Init`, whatever is to be attached, and `Run`, once. Loop
/// thread only, except for the first. Failures are logged with the logger name "Service".
class TERN_API ServiceMainLoop : public EventLoop {
public:
    /// Blocks SIGTERM and SIGINT for the calling thread (pthread_sigmask(3)), because sd-event takes signals
    /// from a signalfd(2), which sees only those that every thread blocks. Child processes inherit the mask.
    /// Ok, or the status of the failing call's error number; nothing is logged.
    static StatusCode BlockSignalsForRunningThread();

    /// Takes the thread's default loop (sd_event_default(3)) and has sd-event feed the watchdog at the pace
    /// that systemd asks for; when systemd asks for none, nothing is sent (sd_event_set_watchdog(3)). Ok;
    /// Busy when already initialised, and the loop is unchanged; otherwise the status of sd-event's error,
    /// logged. When only the watchdog failed, the loop is kept.
    StatusCode Init();

    /// Runs the loop until SIGTERM, SIGINT or sd_event_exit(3); then, however it ended, notifies systemd
    /// "STOPPING=1\nShutting down..." (sd_notify(3)).
    /// In between a connection that DBusServerManager::AttachLoop attached is flushed, for two seconds at
    /// most, and closed.
    /// Ok when it ended by a signal or an exit code of 0 and above; the status of a negative exit code, of a
    /// signal handler that could not be added (the loop does not run then), or of a loop failure; Failure
    /// when a callback threw, which is logged (critical) and has closed the connection: see DBusInterface.
    StatusCode Run();
};

}  // namespace mw::tern
