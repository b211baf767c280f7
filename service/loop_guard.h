#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace mw::tern {

/// sd_event_loop(3), for what a callback throws into it: sd-bus and sd-event are C and call the application's
/// functions directly. The exception is logged, with the message that was being handled, the connection is
/// closed, and the result is -ENOTRECOVERABLE.
///
/// Neither library could tidy up on the way out, so the loop and the connection may be released, and nothing
/// else: what they hold of each other stays allocated until the process ends.
int RunLoop(sd_event* event);

/// Whose message a callback of the calling thread's loop handles; null for none. Borrowed.
void SetLoopBus(sd_bus* bus);

/// While it lives, an exception that ends the process on this thread is logged before it does: one that
/// leaves a noexcept function, and any that would have to pass a C library without tables to unwind by, as on
/// 32-bit ARM. An exception that ends it on another thread is only reported (TellThrown). Then whatever
/// terminate handler there was before takes its course. Loop thread only.
class UncaughtLog {
public:
    UncaughtLog();
    ~UncaughtLog();
    UncaughtLog(const UncaughtLog&) = delete;
    UncaughtLog& operator=(const UncaughtLog&) = delete;

    /// Whether RunLoop has met an exception on this thread since the last one was created: the connection may
    /// have lost references of its own.
    static bool HasLoopThrown();
};

}  // namespace mw::tern
