#pragma once

#include <tern/foundation/api.h>
#include <tern/typed/error.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mwl::Diagnostics {

/// Something that a thread is in: what has begun and not ended.
struct FlightDoing {
    std::string event;          ///< that began it, for example "call_began"
    std::string name;           ///< whose: a member, a component; may be empty
    std::uint64_t sinceNs = 0;  ///< CLOCK_MONOTONIC, nanoseconds
};

/// A thread of which at least one event was recorded, and which has not ended.
struct FlightThread {
    std::uint32_t id = 0;             ///< the kernel's
    std::string name;                 ///< the kernel's
    bool isBusThread = false;         ///< the D-Bus thread
    std::string watchName;            ///< under which it is watched; empty while it is not
    std::uint64_t watchPeriodNs = 0;  ///< that it promised
    std::uint64_t reportedNs = 0;     ///< its last report, CLOCK_MONOTONIC
    std::vector<FlightDoing> doing;   ///< outermost first; four at most
};

/// A message of warning level or worse, or an exception.
struct FlightMessage {
    std::uint64_t sequence = 0;    ///< counts from 1
    std::uint64_t realtimeNs = 0;  ///< CLOCK_REALTIME
    std::uint32_t level = 0;       ///< as in syslog(3)
    std::uint32_t threadId = 0;    ///< the kernel's
    std::string text;              ///< as it was logged; of an exception its type and text
    bool isCut = false;            ///< the text was longer
    bool isException = false;      ///< no message of the log, but an exception that ended the service
};

/// An event.
struct FlightEvent {
    std::uint64_t sequence =
        0;  ///< counts from 1; what is missing has been overwritten or was never finished
    std::uint64_t monotonicNs = 0;  ///< CLOCK_MONOTONIC
    std::uint32_t threadId = 0;     ///< the kernel's, of a thread that may have ended since
    std::string event;              ///< its name, for example "job_ended"
    std::string name;               ///< whose; may be empty
    std::uint64_t value = 0;        ///< nanoseconds where something ended, else what the event says
};

/// How a life ended, as far as it said so itself.
enum class FlightEnd {
    None,     ///< it did not: it goes on, or was cut off
    Stopped,  ///< in order
    Failed    ///< in order, after a failure
};

/// All that a flight recorder holds. Texts can be sent on a bus, and have no control characters.
struct Flight {
    std::uint32_t pid = 0;       ///< of the process, in its own namespace
    std::uint32_t restarts = 0;  ///< lives before it
    std::string program;         ///< file name
    std::string version;         ///< the service's own
    std::string bootId;          ///< /proc/sys/kernel/random/boot_id
    /// CLOCK_REALTIME, as that was set at the last event; 0 when it is not known
    std::uint64_t processStartedNs = 0;
    std::uint64_t watchdogNs = 0;  ///< systemd's period; 0 for none
    std::uint64_t beganNs = 0;     ///< recording, CLOCK_MONOTONIC
    std::uint64_t latestNs = 0;    ///< the latest instant that it holds, CLOCK_MONOTONIC
    std::int64_t toRealtimeNs =
        0;  ///< what to add to CLOCK_MONOTONIC for CLOCK_REALTIME, as of the last event
    FlightEnd end = FlightEnd::None;      ///< see there
    std::uint64_t endedNs = 0;            ///< CLOCK_MONOTONIC; 0 for FlightEnd::None
    std::uint64_t written = 0;            ///< events so far
    std::uint64_t capacity = 0;           ///< events that are kept
    std::uint64_t namesLost = 0;          ///< events whose name had no room
    std::uint64_t threadsLost = 0;        ///< threads that had no room
    std::vector<FlightThread> threads;    ///< in no order
    std::vector<FlightMessage> messages;  ///< oldest first
    std::vector<FlightEvent> events;      ///< oldest first
};

/// Reads what a Recorder writes: of this process or another one, alive or dead. Whatever is there is
/// validated and never trusted. Any thread.
class TERN_API RingReader {
public:
    RingReader() = delete;

    /// Reads the memfd, whose position does not matter. What is being written meanwhile is left out. An
    /// error, with a text for people, for what is no regular file, too short or too long, no recorder's
    /// memory, or of another version.
    static Typed::Outcome<Flight> Read(int fd);
    /// The same for bytes that nobody writes.
    static Typed::Outcome<Flight> Parse(std::span<const std::byte> bytes);
};

}  // namespace mwl::Diagnostics
