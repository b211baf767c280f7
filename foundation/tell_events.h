#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace mwl::Tell {

// Each event: its enumerator, and its name in probes, rings and tools. Numbers are the places in this list
// and stand in rings that a later version may read: new ones come at the end. Where nothing is said, "value"
// is 0 and "name" is none; a name is the object's own where the object has one. All times are of
// CLOCK_MONOTONIC.
//
//  object_made, object_gone      an object that is known (known_objects.h); value: its kind
//  call_began, call_ended        D-Bus thread, a message is handled; name: the member
//  job_queued                    pool; value: jobs in the queue, this one included
//  job_began, job_ended          pool, on the worker; value at the begin: jobs left in the queue
//  wake_up                       queued component, by whoever asks for a run
//  run_began, run_ended          queued component, on its thread
//  timer_began, timer_ended      a callback; value at the begin: nanoseconds that it is late
//  pipe_full, pipe_waited        a writer finds no room and waits; has got it (or an error)
//  pipe_written, pipe_read       a message; value: bytes
//  thread_added, thread_removed  threads monitor
//  watch_began                   watched thread; value: its period in nanoseconds
//  watch_reported, watch_ended   watched thread
//  state_changed                 service; name: starting, running, stopping, failed, lost-bus
//  blocked                       a watched thread, which the watcher kills; value: nanoseconds of silence
//  thrown                        an exception that ends the service; name: type and text, or the text
//  message                       of the log, warning or worse; value: its level
//  turn_ended                    D-Bus thread, before its loop waits and when it ends; object: the connection
//                                (an sd_bus)
#define TERN_TELL_EVENTS(X)          \
    X(ObjectMade, object_made)       \
    X(ObjectGone, object_gone)       \
    X(CallBegan, call_began)         \
    X(CallEnded, call_ended)         \
    X(JobQueued, job_queued)         \
    X(JobBegan, job_began)           \
    X(JobEnded, job_ended)           \
    X(WakeUp, wake_up)               \
    X(RunBegan, run_began)           \
    X(RunEnded, run_ended)           \
    X(TimerBegan, timer_began)       \
    X(TimerEnded, timer_ended)       \
    X(PipeFull, pipe_full)           \
    X(PipeWaited, pipe_waited)       \
    X(PipeWritten, pipe_written)     \
    X(PipeRead, pipe_read)           \
    X(ThreadAdded, thread_added)     \
    X(ThreadRemoved, thread_removed) \
    X(WatchBegan, watch_began)       \
    X(WatchReported, watch_reported) \
    X(WatchEnded, watch_ended)       \
    X(StateChanged, state_changed)   \
    X(Blocked, blocked)              \
    X(Thrown, thrown)                \
    X(Message, message)              \
    X(TurnEnded, turn_ended)

/// The event; see above.
enum class Event : std::uint16_t {
#define TERN_TELL_EVENT_(enumerator, name) enumerator,
    TERN_TELL_EVENTS(TERN_TELL_EVENT_)
#undef TERN_TELL_EVENT_
};

/// Of all events, by their numbers.
inline constexpr std::array EVENT_NAMES{
#define TERN_TELL_EVENT_(enumerator, name) std::string_view(#name),
    TERN_TELL_EVENTS(TERN_TELL_EVENT_)
#undef TERN_TELL_EVENT_
};

/// Number of events.
inline constexpr std::size_t EVENTS = EVENT_NAMES.size();

/// Empty for a number that is no event's.
constexpr std::string_view NameOf(Event event) noexcept {
    const auto number = static_cast<std::size_t>(event);
    return number < EVENTS ? EVENT_NAMES[number] : std::string_view();
}

}  // namespace mwl::Tell
