#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <functional>
#include <map>
#include <memory>
#include <vector>

struct sd_event;
struct sd_event_source;

namespace mw::tern {

/// One watched descriptor: the callback and its sd-event source. Owned by the loop's registry; while the
/// callback runs also by the dispatcher, so that a callback may remove its own watch.
struct TERN_API EventIoContext {
    /// Called with the source, the descriptor and the poll(2) events seen.
    using Callback = std::function<StatusCode(sd_event_source*, int fd, unsigned int revents)>;

    /// Without a source; the loop adds it.
    explicit EventIoContext(Callback function) : callback(std::move(function)) {}
    /// Releases the source, then destroys the callback.
    ~EventIoContext();
    EventIoContext(const EventIoContext&) = delete;
    EventIoContext& operator=(const EventIoContext&) = delete;

    /// Called on the loop's thread, by the loop alone.
    Callback callback;
    /// Owned; null until sd-event has created it.
    sd_event_source* source = nullptr;
    /// By which the dispatcher keeps the context alive during a call.
    std::weak_ptr<EventIoContext> self;
};

/// An sd-event loop with a registry of I/O sources: runs a callback on the loop's thread whenever a
/// descriptor is ready, until the watch is removed again by descriptor. `ServiceMainLoop` adds how the loop
/// is created and run.
///
/// Loop thread only: every operation, the destructor included, belongs to the thread that owns the loop.
/// Callbacks run on it, one at a time. Nothing is logged but what a callback throws, with the logger name
/// "Service". Descriptors are never closed here; they belong to the caller, who removes a watch before
/// closing its descriptor.
class TERN_API EventLoop {
public:
    EventLoop() = default;
    /// Releases the loop, then every remaining source with its callback. What a callback owns may call
    /// RemoveIo for its own watch when it is destroyed here: InvalidArgument, because nothing is watched any
    /// more.
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Watches `fd` for the poll(2) events `events` (EPOLLIN and the like, see sd_event_add_io(3)).
    ///
    /// The callback gets the source, the descriptor and the events seen. Returning anything but Ok switches
    /// the watch off (sd-event's rule for failing handlers); it stays registered until RemoveIo. It may
    /// remove its own watch.
    ///
    /// An exception of the callback goes no further: it is logged (critical) with its type and text, the
    /// watch is switched off, and the loop ends in order with the exit code -ENOTRECOVERABLE, so that the
    /// process ends as failed. An empty callback is logged (critical) when the descriptor becomes ready and
    /// raises std::bad_function_call, which leaves through sd-event; ServiceMainLoop::Run treats it like an
    /// exception of a handler, see DBusInterface.
    ///
    /// Ok: watched.
    /// InvalidArgument: a bad descriptor, or there is no loop yet.
    /// AlreadyExists: the descriptor is being watched.
    /// NotPermitted: the descriptor cannot be polled (a regular file).
    /// Any other: the status of sd-event's error.
    /// After all but Ok nothing has changed, and the callback is destroyed.
    ///
    /// Remove a descriptor before adding it again. Fixed by the interface:
    /// - When the first watch of a descriptor has been switched off, a second one succeeds. RemoveIo still
    ///   removes the first; the second lives until the loop ends.
    /// - A second watch also succeeds for the number of a descriptor that was closed while it was watched. A
    ///   late RemoveIo for the closed one silences the second as well.
    StatusCode AddIo(int fd, unsigned int events, EventIoContext::Callback callback);

    /// Switches the watch of `fd` off and forgets it, with its callback. From within that very callback the
    /// callback outlives the call.
    ///
    /// Ok: no longer watched. InvalidArgument: `fd` is not watched. Otherwise the status of sd-event's error,
    /// and the watch is kept.
    StatusCode RemoveIo(int fd);

    /// The sd-event loop, null until it is created. Borrowed: never release it.
    sd_event* GetEvent() const { return mEvent; }

protected:
    /// Owned; null until a derived class creates it.
    sd_event* mEvent = nullptr;

private:
    std::map<int, std::shared_ptr<EventIoContext>> mIoContexts;
    /// Watches that found their descriptor's entry taken; kept so that they end with the loop.
    std::vector<std::shared_ptr<EventIoContext>> mUnlistedContexts;
};

}  // namespace mw::tern
