#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "diagnostics/object_table.h"
#include "diagnostics/ring.h"
#include "foundation/tell.h"

namespace mwl::Diagnostics {

/// The process's recording: listens to the library, counts for each object and writes the ring. Static, as
/// whoever listens to the library lives for ever. Everything but Start, Stop and what says otherwise may be
/// called by all threads at once.
class Recording {
public:
    /// Makes the ring, unless there is one, and begins to listen. Ok, or the status of the failing call, with
    /// its number. One thread at a time.
    static StatusCode Start(std::size_t eventBytes, const Ring::Identity& identity, int& error);
    /// Listens no more and marks the end. One thread at a time.
    static void Stop() noexcept;
    static bool IsOn() noexcept;
    /// Whether this process was forked by one that has recorded: it is not the service that systemd knows.
    static bool IsChildOfOne() noexcept;

    /// REQUIRES of the following: Start has succeeded once in this process.
    static Ring& GetRing() noexcept;
    static ObjectTable& GetObjects() noexcept;

    /// The D-Bus thread's: a message is handled from now on, or is done. The name is one that Intern gave.
    static std::uint16_t Intern(std::string_view name) noexcept;
    /// `ticks` are the ring's. REQUIRES: IsOn.
    static void RecordCallBegan(std::uint16_t name, std::uint64_t ticks) noexcept;
    static void RecordCallEnded(std::uint16_t name, std::uint64_t ticks) noexcept;
    /// The calling thread is the D-Bus thread.
    static void SetBusThread() noexcept;

    /// What is called at the end of each turn of a bus's loop, with the ring's ticks; does not throw.
    using TurnHandler = void (*)(void* argument, std::uint64_t ticks);
    /// From now on, while recording is on, until ForgetTurns. The bus is an address that is not followed.
    /// False when another bus has its turns watched. The loop's thread only, as ForgetTurns.
    static bool WatchTurns(const void* bus, TurnHandler handler, void* argument) noexcept;
    static void ForgetTurns(const void* bus) noexcept;

    /// How long the oldest job or run of the object has been running, in ticks; 0 for none.
    static std::uint64_t RunningTicks(const void* object) noexcept;
    /// Whether messages reach the ring: the process's logger can be observed.
    static bool HasMessages() noexcept;
};

}  // namespace mwl::Diagnostics
