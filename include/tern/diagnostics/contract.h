#pragma once

/// tern.Diagnostics1: what a service with diagnostics shows of itself on the bus, at the path
/// /tern/diagnostics of its own name. One description for the service and for tools.
///
/// Methods are closed: root, the service's own user, whoever has CAP_SYS_ADMIN. Properties may be read by
/// everyone; they hold nothing secret. Units are in the names: Us are microseconds, Bytes bytes, everything
/// else is a number of things. A time "of day" is CLOCK_REALTIME in microseconds since 1970; durations are of
/// CLOCK_MONOTONIC. Figures of events (calls, jobs, runs, expiries) count from when diagnostics were switched
/// on in this process; those of pools, components, timers, pipes and watches from when recording began last,
/// and they are 0 while nothing is recorded. Of texts that were given to the library, what cannot be sent on
/// a bus (bytes that are not UTF-8, code points that are no characters) and control characters are question
/// marks.
///
///     const Typed::BlockingProxy<Diagnostics1> proxy("com.example.Thermostat", Diagnostics1::PATH);
///     const Typed::Outcome<Figures> figures = proxy.Call(Diagnostics1::Snapshot);

#include <tern/typed/contract.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace mwl::Diagnostics {

/// Number of buckets of a latency histogram. Bucket 0 counts what took less than 1 us, bucket N, from 1 on,
/// what took 2^(N-1) us or more and less than 2^N us; the last one everything from 2^22 us (4.2 s) on.
inline constexpr std::size_t LATENCY_BUCKETS = 24;

/// Of the process as a whole.
struct ProcessFigures {
    std::uint32_t pid = 0;              ///< in the process's own pid namespace
    std::string program;                ///< file name of the program, without folders
    std::string version;                ///< of the service, as it gave it; may be empty
    std::string libraryVersion;         ///< of libtern-diagnostics, for example "0.1.0"
    std::uint64_t startedAtUs = 0;      ///< start of the process, of day
    std::uint64_t uptimeUs = 0;         ///< since the start of the process
    std::uint64_t processorUs = 0;      ///< user and system time of all threads, those that ended included
    std::uint64_t memoryBytes = 0;      ///< resident set; 0 where no descriptor is free
    std::uint64_t memoryPeakBytes = 0;  ///< highest resident set so far; 0 where the system does not tell
    std::uint32_t descriptors = 0;      ///< open ones, without the one that counts them
    std::uint32_t descriptorLimit = 0;  ///< RLIMIT_NOFILE's soft limit
    std::uint32_t threads = 0;          ///< all of the process; 0 where no descriptor is free

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = ProcessFigures;
        return Typed::Fields(
            Field("Pid", &Self::pid), Field("Program", &Self::program), Field("Version", &Self::version),
            Field("LibraryVersion", &Self::libraryVersion), Field("StartedAtUs", &Self::startedAtUs),
            Field("UptimeUs", &Self::uptimeUs), Field("ProcessorUs", &Self::processorUs),
            Field("MemoryBytes", &Self::memoryBytes), Field("MemoryPeakBytes", &Self::memoryPeakBytes),
            Field("Descriptors", &Self::descriptors), Field("DescriptorLimit", &Self::descriptorLimit),
            Field("Threads", &Self::threads));
    }
};

/// The messages of one member that the D-Bus thread has handled: of a call to the service "interface.member",
/// of a signal that it received "signal interface.member", and "replies" for all replies to its own calls.
/// What came after the table of 256 names was full is under "(others)".
struct MemberFigures {
    std::string name;             ///< see above
    std::uint64_t handled = 0;    ///< messages
    std::uint64_t totalUs = 0;    ///< time in the handlers, together
    std::uint64_t longestUs = 0;  ///< longest time in a handler
    /// LATENCY_BUCKETS buckets of the time in the handler; each goes round at 2^32, so that differences of
    /// two looks, modulo 2^32, are right
    std::vector<std::uint32_t> latency;

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = MemberFigures;
        return Typed::Fields(Field("Name", &Self::name), Field("Handled", &Self::handled),
                             Field("TotalUs", &Self::totalUs), Field("LongestUs", &Self::longestUs),
                             Field("Latency", &Self::latency));
    }
};

/// Of the D-Bus thread.
struct BusThreadFigures {
    std::uint32_t threadId = 0;  ///< the kernel's id
    std::uint64_t handled = 0;   ///< messages: calls, signals and replies
    std::uint64_t turns = 0;     ///< of the event loop
    std::uint64_t longestTurnUs =
        0;  ///< longest time in which the loop did not come round, sleeping left out
    /// Member that is being handled: in a snapshot its own, or none where its caller's credentials had to be
    /// asked for first.
    std::string running;
    std::uint64_t runningUs = 0;         ///< for how long; 0 for none
    std::uint64_t watchdogUs = 0;        ///< systemd's watchdog period (WatchdogSec=); 0 for none
    std::uint64_t watchdogMarginUs = 0;  ///< so much was left of it at least, always; 0 without a watchdog
    std::vector<MemberFigures> members;  ///< sorted by totalUs, largest first; at most 257

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = BusThreadFigures;
        return Typed::Fields(Field("ThreadId", &Self::threadId), Field("Handled", &Self::handled),
                             Field("Turns", &Self::turns), Field("LongestTurnUs", &Self::longestTurnUs),
                             Field("Running", &Self::running), Field("RunningUs", &Self::runningUs),
                             Field("WatchdogUs", &Self::watchdogUs),
                             Field("WatchdogMarginUs", &Self::watchdogMarginUs),
                             Field("Members", &Self::members));
    }
};

/// Of the connection to the bus.
struct ConnectionFigures {
    std::string uniqueName;          ///< for example ":1.42"
    std::uint64_t queuedIn = 0;      ///< messages received and not handled yet
    std::uint64_t queuedOut = 0;     ///< messages not taken by the bus yet
    std::uint64_t openCalls = 0;     ///< calls taken over to be answered later, not answered yet
    std::uint64_t pendingCalls = 0;  ///< calls to peers without a reply yet
    std::uint64_t waitingJobs = 0;   ///< posted to the D-Bus thread and not run yet
    std::uint64_t objects = 0;       ///< exported through the typed bus

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = ConnectionFigures;
        return Typed::Fields(Field("UniqueName", &Self::uniqueName), Field("QueuedIn", &Self::queuedIn),
                             Field("QueuedOut", &Self::queuedOut), Field("OpenCalls", &Self::openCalls),
                             Field("PendingCalls", &Self::pendingCalls),
                             Field("WaitingJobs", &Self::waitingJobs), Field("Objects", &Self::objects));
    }
};

/// A worker registered with the threads monitor.
struct SupervisedThread {
    std::string name;            ///< as the kernel has it (pthread_setname_np); empty when it has gone
    std::uint32_t threadId = 0;  ///< the kernel's id; 0 when it is not known
    /// The kernel's: "running", "sleeping", "waiting", "stopped", "gone". Empty, as the name, where no
    /// descriptor is free to ask with.
    std::string state;

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = SupervisedThread;
        return Typed::Fields(Field("Name", &Self::name), Field("ThreadId", &Self::threadId),
                             Field("State", &Self::state));
    }
};

/// A thread that the threads watcher watches.
struct WatchedThread {
    std::string name;            ///< as it gave it to the watcher
    std::uint32_t threadId = 0;  ///< the kernel's id
    std::uint64_t periodUs = 0;  ///< that it promised
    std::uint64_t limitUs = 0;   ///< silence after which the watcher kills the process
    std::uint64_t silentUs = 0;  ///< since its last report
    std::uint64_t marginUs = 0;  ///< limitUs - silentUs, 0 when it is over: until the kill

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = WatchedThread;
        return Typed::Fields(Field("Name", &Self::name), Field("ThreadId", &Self::threadId),
                             Field("PeriodUs", &Self::periodUs), Field("LimitUs", &Self::limitUs),
                             Field("SilentUs", &Self::silentUs), Field("MarginUs", &Self::marginUs));
    }
};

/// A thread pool.
struct PoolFigures {
    std::uint32_t threads = 0;    ///< configured
    std::uint32_t busy = 0;       ///< in a job now
    std::uint64_t queued = 0;     ///< jobs that no thread has taken, as of the last one queued or taken
    std::uint64_t done = 0;       ///< jobs
    std::uint64_t longestUs = 0;  ///< longest job that is done
    std::uint64_t runningUs = 0;  ///< how long the oldest job that runs now has been running; 0 for none

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = PoolFigures;
        return Typed::Fields(Field("Threads", &Self::threads), Field("Busy", &Self::busy),
                             Field("Queued", &Self::queued), Field("Done", &Self::done),
                             Field("LongestUs", &Self::longestUs), Field("RunningUs", &Self::runningUs));
    }
};

/// A queued component.
struct ComponentFigures {
    std::string name;             ///< as it was given to its constructor
    std::uint64_t wakeUps = 0;    ///< asked for; several before a run are folded into one run
    std::uint64_t runs = 0;       ///< done
    std::uint64_t longestUs = 0;  ///< longest run that is done
    std::uint64_t runningUs = 0;  ///< how long the run now has been running; 0 for none

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = ComponentFigures;
        return Typed::Fields(Field("Name", &Self::name), Field("WakeUps", &Self::wakeUps),
                             Field("Runs", &Self::runs), Field("LongestUs", &Self::longestUs),
                             Field("RunningUs", &Self::runningUs));
    }
};

/// A Timer or ShortPeriodTimer.
struct TimerFigures {
    std::string kind;            ///< "Timer" or "ShortPeriodTimer"
    std::uint64_t periodUs = 0;  ///< period, or delay of one that fires once, as it was constructed
    bool isPeriodic = false;     ///< fires again and again
    std::uint64_t expiries = 0;  ///< callbacks begun
    std::uint64_t latestUs = 0;  ///< largest lateness of a callback; 0 for ShortPeriodTimer, which knows none
    std::uint64_t longestUs = 0;  ///< longest callback that is done

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = TimerFigures;
        return Typed::Fields(Field("Kind", &Self::kind), Field("PeriodUs", &Self::periodUs),
                             Field("IsPeriodic", &Self::isPeriodic), Field("Expiries", &Self::expiries),
                             Field("LatestUs", &Self::latestUs), Field("LongestUs", &Self::longestUs));
    }
};

/// A message pipe.
struct PipeFigures {
    std::uint64_t written = 0;        ///< messages
    std::uint64_t read = 0;           ///< messages
    std::uint64_t full = 0;           ///< writes that found the pipe full
    std::uint64_t longestWaitUs = 0;  ///< longest time that a writer has waited for room

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = PipeFigures;
        return Typed::Fields(Field("Written", &Self::written), Field("Read", &Self::read),
                             Field("Full", &Self::full), Field("LongestWaitUs", &Self::longestWaitUs));
    }
};

/// Of the flight recorder.
struct RecorderFigures {
    bool isRecording = false;       ///< events are written
    std::uint64_t bytes = 0;        ///< of the memfd
    std::uint64_t events = 0;       ///< written so far
    std::uint64_t capacity = 0;     ///< events that are kept
    std::uint64_t namesLost = 0;    ///< events whose name found the table of names full
    std::uint64_t threadsLost = 0;  ///< threads that found the table of threads full
    bool isStored = false;          ///< systemd's descriptor store has been sent the memfd
    bool hasMessages = false;       ///< warnings are kept; false with a logger that cannot be observed

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = RecorderFigures;
        return Typed::Fields(Field("IsRecording", &Self::isRecording), Field("Bytes", &Self::bytes),
                             Field("Events", &Self::events), Field("Capacity", &Self::capacity),
                             Field("NamesLost", &Self::namesLost), Field("ThreadsLost", &Self::threadsLost),
                             Field("IsStored", &Self::isStored), Field("HasMessages", &Self::hasMessages));
    }
};

/// All figures of a moment: what Snapshot answers with.
struct Figures {
    std::uint64_t takenAtUs = 0;               ///< when, of day
    ProcessFigures process;                    ///< the process
    BusThreadFigures busThread;                ///< the D-Bus thread
    ConnectionFigures connection;              ///< its connection
    std::vector<SupervisedThread> threads;     ///< of the threads monitor
    std::vector<WatchedThread> watched;        ///< of the threads watcher
    std::vector<PoolFigures> pools;            ///< thread pools
    std::vector<ComponentFigures> components;  ///< queued components
    std::vector<TimerFigures> timers;          ///< timers
    std::vector<PipeFigures> pipes;            ///< message pipes
    RecorderFigures recorder;                  ///< the flight recorder

    /// The keys.
    static constexpr auto DBusFields() {
        using Typed::Field;
        using Self = Figures;
        return Typed::Fields(Field("TakenAtUs", &Self::takenAtUs), Field("Process", &Self::process),
                             Field("BusThread", &Self::busThread), Field("Connection", &Self::connection),
                             Field("Threads", &Self::threads), Field("Watched", &Self::watched),
                             Field("Pools", &Self::pools), Field("Components", &Self::components),
                             Field("Timers", &Self::timers), Field("Pipes", &Self::pipes),
                             Field("Recorder", &Self::recorder));
    }
};

/// A message of warning level or worse, (tusb).
struct LoggedMessage {
    std::uint64_t atUs = 0;   ///< of day
    std::uint32_t level = 0;  ///< as in syslog(3): 2 critical, 3 error, 4 warning
    std::string text;         ///< with the logger's name, as it was logged
    bool isCut = false;       ///< the text was longer
};

/// An event of the flight recorder, (ttusst).
struct RecordedEvent {
    std::uint64_t sequence = 0;  ///< counts from 1; what is missing in between has been overwritten
    std::uint64_t atUs = 0;      ///< of day
    std::uint32_t threadId = 0;  ///< the kernel's id, of a thread that may have ended since
    std::string event;           ///< its name, for example "job_ended"; see docs/diagnostics.md
    std::string name;            ///< whose: a member, a component, a thread; may be empty
    std::uint64_t value = 0;     ///< nanoseconds in events that end something, else what the event says
};

/// The interface. See the texts of the members.
struct Diagnostics1 {
    static constexpr const char* NAME = "tern.Diagnostics1";  ///< on the bus
    static constexpr const char* PATH = "/tern/diagnostics";  ///< of the one object that has it
    /// For introspection.
    static constexpr const char* DOCUMENTATION = "What this service is doing, and how its former life ended.";

    /// All figures of this moment.
    static constexpr Typed::Method<Figures()> Snapshot{
        "Snapshot", {"figures"}, Typed::Checked(), "All figures of this moment."};
    /// The messages of warning level or worse, the latest 100, oldest first.
    static constexpr Typed::Method<std::vector<LoggedMessage>()> GetMessages{
        "GetMessages",
        {"messages"},
        Typed::Checked(),
        "The latest 100 messages of warning level or worse, oldest first: time of day in microseconds, level "
        "as in syslog, text, whether it was cut."};
    /// Recorded events behind `after`, oldest first. next: pass as `after` the next time. lost: how many have
    /// been overwritten between `after` and the first one given.
    static constexpr Typed::Method<Typed::Results<std::uint64_t, std::uint64_t, std::vector<RecordedEvent>>(
        std::uint64_t, std::uint32_t)>
        GetEvents{
            "GetEvents",
            {"after", "most", "next", "lost", "events"},
            Typed::Checked(),
            "Recorded events behind the number after, oldest first, at most most (0: 1000) and never "
            "more than 1000; after 0 begins with the oldest. next is what to pass as after the next "
            "time, lost how many were overwritten in between. An event: sequence number, time of day in "
            "microseconds, kernel's thread id, event, name, value."};
    /// The ring itself, a read-only descriptor of a memfd; RingReader reads it.
    static constexpr Typed::Method<Typed::OwnedFd()> OpenRecorder{
        "OpenRecorder",
        {"ring"},
        Typed::Checked(),
        "The flight recorder's memory, read-only. tern.Diagnostics1.Error.NotRecording without one."};
    /// How the former life ended.
    static constexpr Typed::Method<Typed::Results<std::string, std::vector<std::string>>()> Why{
        "Why",
        {"kind", "sentences"},
        Typed::Checked(),
        "How the former life of this service ended: the kind, as in the property Ended, and sentences for "
        "people, the most important first. No sentence where nothing is known."};
    /// Sets the threshold of the log.
    static constexpr Typed::Method<void(std::string_view)> SetLogLevel{
        "SetLogLevel",
        {"level"},
        Typed::Checked(),
        "Sets the threshold of the log until the process ends: critical, error, warning, notice, info or "
        "debug. org.freedesktop.DBus.Error.InvalidArgs for another text, "
        "org.freedesktop.DBus.Error.NotSupported with a logger whose threshold cannot be set."};

    /// The threshold of the log.
    static constexpr Typed::Property<std::string> LogLevel{
        "LogLevel", Typed::EMITS,
        "The threshold of the log: off, critical, error, warning, notice, info or debug."};
    /// The service's version.
    static constexpr Typed::Property<std::string> Version{"Version", Typed::CONSTANT,
                                                          "The service's version, as it gave it."};
    /// Start of the process.
    static constexpr Typed::Property<std::uint64_t> StartedAt{
        "StartedAt", Typed::CONSTANT, "Start of the process, time of day in microseconds."};
    /// Lives before this one.
    static constexpr Typed::Property<std::uint32_t> Restarts{
        "Restarts", Typed::CONSTANT,
        "Lives before this one, as far as systemd's descriptor store has handed them on; 0 for the first."};
    /// Kind of the end of the former life.
    static constexpr Typed::Property<std::string> Ended{
        "Ended", Typed::CONSTANT,
        "How the former life ended: none (there was none, or nobody handed it on), stopped (in order), "
        "failed "
        "(in order, after a failure), blocked (a watched thread, the watcher killed it), exception, hanging "
        "(it "
        "ended within a handler, job or run that took more than a second), lost-bus, cut-off (it just ended: "
        "a "
        "signal, a crash, the power), unreadable (what was handed on is no ring of this version)."};

    /// In the order of the vtable.
    static constexpr Typed::Members<Snapshot, GetMessages, GetEvents, OpenRecorder, Why, SetLogLevel,
                                    LogLevel, Version, StartedAt, Restarts, Ended>
        ALL{};
};

/// Error of OpenRecorder and GetEvents where nothing is recorded.
inline constexpr const char* NOT_RECORDING_ERROR = "tern.Diagnostics1.Error.NotRecording";

}  // namespace mwl::Diagnostics
