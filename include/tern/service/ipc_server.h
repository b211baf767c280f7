#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mw::tern {
class DBusServerManager;
class EventLoop;
}  // namespace mw::tern

namespace mwl::DBusService {

/// The application's side of the D-Bus thread: what it puts on the bus, and what it does when the bus is
/// gone.
///
/// Implemented and owned by the application; it outlives the component it was given to. Both operations are
/// called on the D-Bus thread: `Stop` once, `Start` before it once, or never when the service could not be
/// initialised.
///
/// An exception of either is logged with its type and text (critical, logger name "DBusService::Component")
/// and goes no further. `Start` has then failed, as if it had returned Failure. After a `Stop` that threw,
/// the workers are stopped all the same, and the monitor is notified, so that the process ends as failed.
class TERN_API IpcServer {
public:
    virtual ~IpcServer();

    /// The D-Bus thread's loop has ended, or its start-up failed, also before `Start` was called. A loop that
    /// has run has closed the bus connection: nothing can be sent any more. After a failed start-up, or when
    /// the loop could not run, it may still be open. Do not join the D-Bus thread from here.
    ///
    /// Nobody reads the message pipes that the loop watched any more: close them here (MessagePipe::Close),
    /// or a worker at a full one waits for ever. Release every message, slot and client of the bus that is
    /// still kept: see Component.
    virtual void Stop() = 0;

    /// The service is connected, owns its name and is attached to the loop, which does not run yet: add
    /// objects, matches and I/O sources here, and no client ever meets a half-made service. Both arguments
    /// live until the thread ends, after `Stop`; use them on this thread only. The returned status becomes
    /// the result of the component's `Start`; anything but Ok ends the thread.
    virtual mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop);
};

}  // namespace mwl::DBusService
