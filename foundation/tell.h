#pragma once

#include <tern/foundation/api.h>

#include <atomic>
#include <cstdint>

#include "foundation/tell_events.h"
#include "platform/static_probe.h"

// The library reports what it does to one listener, if there is one (libtern-diagnostics'). While there is
// none, a place that reports costs one load and one branch, and evaluates nothing. At each place is a static
// probe as well (platform/static_probe.h), of the event's name, with two arguments: the object, and the name
// as a text or 0. The probes of calls are the typed layer's (typed/call_probe.h); the probe of messages is
// the logger's.

namespace mwl::Tell {

/// Receives every report. Lives for ever, because a thread may still be on its way to a listener that was
/// taken out.
struct Listener {
    /// Of this structure and the list of events.
    static constexpr unsigned VERSION = 1;

    unsigned version = VERSION;
    /// On the thread where it happens, perhaps with a lock of the library's held: takes no lock that is held
    /// while the library is called, waits for nothing, reports nothing itself. `object` is what it happens
    /// to, or null: an address that is not followed. `name` is valid during the call, or null. Preserves
    /// errno.
    void (*onEvent)(Event event, const void* object, std::uint64_t value,
                    const char* name) noexcept = nullptr;
};

/// Null takes the listener out. One of another version is not taken. Returns the former one. Any thread.
TERN_API const Listener* SetListener(const Listener* listener) noexcept;

namespace Detail {

// Hidden, so that reading it is one instruction.
__attribute__((visibility("hidden"))) extern std::atomic<const Listener*> gListener;

/// Calls the listener, if there still is one.
__attribute__((visibility("hidden"), cold, noinline)) void Pass(Event event, const void* object,
                                                                std::uint64_t value,
                                                                const char* name) noexcept;

}  // namespace Detail

/// Whether anybody listens: for what is done for him alone. Where the compiler is to make code small it would
/// call this, which is three times as much.
[[gnu::always_inline]] inline bool IsOn() noexcept {
    return __builtin_expect(Detail::gListener.load(std::memory_order_relaxed) != nullptr, 0);
}

}  // namespace mwl::Tell

/// Reports an event: enumerator and name of the event, the object, the value. The value is evaluated only for
/// a listener, the object perhaps for the probe too: so it is to be an address that is at hand.
#define TERN_TELL(event, probe, object, value) \
    TERN_TELL_NAMED(event, probe, object, value, static_cast<const char*>(nullptr))

/// The same with a name, at hand as well.
#define TERN_TELL_NAMED(event, probe, object, value, name)                                                  \
    do {                                                                                                    \
        static_assert(::mwl::Tell::NameOf(::mwl::Tell::Event::event) == #probe);                            \
        TERN_PROBE(probe, object, name);                                                                    \
        if (::mwl::Tell::IsOn()) {                                                                          \
            ::mwl::Tell::Detail::Pass(::mwl::Tell::Event::event, object, static_cast<std::uint64_t>(value), \
                                      name);                                                                \
        }                                                                                                   \
    } while (false)
