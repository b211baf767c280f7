#include "diagnostics/diagnostics_interface.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <tern/diagnostics/recorder.h>
#include <tern/diagnostics/ring_reader.h>
#include <tern/foundation/process_logger.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "diagnostics/clean_text.h"
#include "diagnostics/descriptor_store.h"
#include "diagnostics/former_life.h"
#include "diagnostics/known_copy.h"
#include "diagnostics/log_hooks.h"
#include "diagnostics/process_facts.h"
#include "diagnostics/recording.h"
#include "foundation/error_text.h"

namespace mwl::Diagnostics {

namespace {

using KnownObjects::Kind;
using KnownObjects::Known;
using Typed::Error;
using Typed::Outcome;

constexpr std::uint64_t NS_PER_US = 1000;
constexpr std::uint64_t US_PER_MS = 1000;
constexpr std::uint32_t MOST_EVENTS = 1000;

constexpr std::array<std::string_view, 8> LEVELS{"off",     "off",    "critical", "error",
                                                 "warning", "notice", "info",     "debug"};
constexpr std::size_t LOWEST_LEVEL = 2;

Error NotRecording() {
    return Error(NOT_RECORDING_ERROR, "this service has no flight recorder");
}

/// What the watcher allows a thread; see Threading::ThreadWatched.
std::uint64_t LimitUs(std::uint64_t periodUs) {
    constexpr std::uint64_t SHORTEST_US = 20000000;
    return std::max(SHORTEST_US, 2 * periodUs);
}

std::string_view WordOf(char state) {
    switch (state) {
        case 'R':
            return "running";
        case 'S':
            return "sleeping";
        case 'D':
            return "waiting";
        case 'T':
        case 't':
            return "stopped";
        case '?':
            return "";
        default:
            return "gone";
    }
}

/// Where nothing is recorded there are no ticks.
std::uint64_t ToUs(std::uint64_t ticks) {
    const Ring& ring = Recording::GetRing();
    return ring ? ring.ToNanoseconds(ticks) / NS_PER_US : 0;
}

/// What has been counted of an object; zeros where nothing is recorded.
struct Counted {
    explicit Counted(const Known& known) {
        // Of what was counted before recording ended nobody was told how it went on.
        if (!Recording::IsOn()) {
            return;
        }
        const ObjectTable::Row* const row = Recording::GetObjects().Find(known.object);
        if (row == nullptr || row->kind.load(std::memory_order_relaxed) != known.kind) {
            return;
        }
        asked = row->asked.load(std::memory_order_relaxed);
        done = row->done.load(std::memory_order_relaxed);
        begun = row->begun.load(std::memory_order_relaxed);
        longestUs = ToUs(row->longest.load(std::memory_order_relaxed));
        largest = row->largest.load(std::memory_order_relaxed);
        runningUs = ToUs(Recording::RunningTicks(known.object));
    }

    std::uint64_t asked = 0;
    std::uint64_t begun = 0;
    std::uint64_t done = 0;
    std::uint64_t longestUs = 0;
    std::uint64_t largest = 0;
    std::uint64_t runningUs = 0;
};

SupervisedThread DescribeSupervised(const Known& known) {
    const ThreadFacts facts = ReadThreadFacts(known.threadId);
    return {facts.name, static_cast<std::uint32_t>(known.threadId), std::string(WordOf(facts.state))};
}

WatchedThread DescribeWatched(const Known& known) {
    WatchedThread thread;
    thread.name = CleanText(known.GetName());
    thread.threadId = static_cast<std::uint32_t>(known.threadId);
    // A period without end has a limit without end.
    constexpr std::uint64_t LONGEST_MS = 1000000000000;
    thread.periodUs = std::min(known.number, LONGEST_MS) * US_PER_MS;
    thread.limitUs = LimitUs(thread.periodUs);
    const Counted counted(known);
    if (counted.largest > 0) {
        const std::uint64_t now = Recording::GetRing().Ticks();
        thread.silentUs = ToUs(now > counted.largest ? now - counted.largest : 0);
    }
    thread.marginUs = thread.limitUs - std::min(thread.limitUs, thread.silentUs);
    return thread;
}

PoolFigures DescribePool(const Known& known) {
    const Counted counted(known);
    PoolFigures pool;
    pool.threads = static_cast<std::uint32_t>(known.number);
    pool.busy = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(counted.begun - std::min(counted.begun, counted.done), known.number));
    pool.queued = counted.asked;
    pool.done = counted.done;
    pool.longestUs = counted.longestUs;
    pool.runningUs = counted.runningUs;
    return pool;
}

ComponentFigures DescribeComponent(const Known& known) {
    const Counted counted(known);
    return {CleanText(known.GetName()), counted.asked, counted.done, counted.longestUs, counted.runningUs};
}

TimerFigures DescribeTimer(const Known& known) {
    const Counted counted(known);
    return {known.kind == Kind::Timer ? "Timer" : "ShortPeriodTimer",
            known.number * US_PER_MS,
            known.isPeriodic,
            counted.begun,
            counted.largest / NS_PER_US,
            counted.longestUs};
}

PipeFigures DescribePipe(const Known& known) {
    const Counted counted(known);
    return {counted.asked, counted.done, counted.begun, ToUs(counted.largest)};
}

}  // namespace

DiagnosticsInterface::DiagnosticsInterface(Typed::Bus& bus, const BusWatch& watch, std::string_view version)
    : mBus(bus),
      mWatch(watch),
      mVersion(CleanText(version)),
      mStartedAtUs(ReadProcessStartedNs() / NS_PER_US) {
    if (const std::uint64_t uptime = ReadProcessUptimeNs(); uptime > 0) {
        mStartedBootNs = NanosecondsOf(CLOCK_BOOTTIME) - uptime;
    }
    // Once, as the properties do not change: the recorder may be begun later.
    FormerLife former = GetFormerLife();
    mRestarts = former.restarts;
    mEnded = std::move(former.end.kind);
    mSentences = std::move(former.end.sentences);
}

Figures DiagnosticsInterface::Snapshot() const {
    Figures figures;
    figures.takenAtUs = NanosecondsOf(CLOCK_REALTIME) / NS_PER_US;
    figures.process = GetProcess();
    figures.busThread = mWatch.GetFigures();
    figures.connection = GetConnection();
    AddObjects(figures);
    RecorderFigures& recorder = figures.recorder;
    recorder.isRecording = Recording::IsOn();
    recorder.hasMessages = Recording::HasMessages();
    if (const Ring& ring = Recording::GetRing()) {
        recorder.bytes = ring.GetBytes();
        recorder.capacity = ring.GetCapacity();
        recorder.events = ring.GetHeader().eventHead.load(std::memory_order_relaxed);
        recorder.namesLost = ring.GetHeader().namesLost.load(std::memory_order_relaxed);
        recorder.threadsLost = ring.GetHeader().threadsLost.load(std::memory_order_relaxed);
        recorder.isStored = DescriptorStore::HasStored();
    }
    return figures;
}

ProcessFigures DiagnosticsInterface::GetProcess() const {
    ProcessFigures process;
    process.pid = static_cast<std::uint32_t>(getpid());
    process.program = CleanText(ReadProgram());
    process.version = mVersion;
    process.libraryVersion = TERN_VERSION;
    process.startedAtUs = mStartedAtUs;
    // Not by the time of day, which may have been set since.
    process.uptimeUs = mStartedBootNs == 0 ? 0 : (NanosecondsOf(CLOCK_BOOTTIME) - mStartedBootNs) / NS_PER_US;
    process.processorUs = NanosecondsOf(CLOCK_PROCESS_CPUTIME_ID) / NS_PER_US;
    const ProcessSizes sizes = ReadProcessSizes();
    process.memoryBytes = sizes.residentBytes;
    process.memoryPeakBytes = sizes.peakBytes;
    process.threads = sizes.threads;
    process.descriptors = CountDescriptors();
    rlimit limit{};
    static_cast<void>(getrlimit(RLIMIT_NOFILE, &limit));  // cannot fail with valid arguments
    process.descriptorLimit = static_cast<std::uint32_t>(std::min<rlim_t>(limit.rlim_cur, UINT32_MAX));
    return process;
}

ConnectionFigures DiagnosticsInterface::GetConnection() const {
    ConnectionFigures connection;
    sd_bus* const bus = mBus.GetBus();
    const char* name = nullptr;
    if (bus == nullptr) {
        return connection;
    }
    if (sd_bus_get_unique_name(bus, &name) >= 0) {
        connection.uniqueName = name;
    }
    // Each leaves its zero where it fails.
    static_cast<void>(sd_bus_get_n_queued_read(bus, &connection.queuedIn));
    static_cast<void>(sd_bus_get_n_queued_write(bus, &connection.queuedOut));
    const Typed::Bus::Counters counters = mBus.GetCounters();
    connection.openCalls = counters.openCalls;
    connection.pendingCalls = counters.pendingCalls;
    connection.waitingJobs = counters.waitingJobs;
    connection.objects = counters.objects;
    return connection;
}

void DiagnosticsInterface::AddObjects(Figures& figures) const {
    const KnownCopy all;
    const std::size_t count = KnownObjects::Copy(*all);
    for (std::size_t i = 0; i < count; ++i) {
        const Known& known = (*all)[i];
        switch (known.kind) {
            case Kind::Supervised:
                figures.threads.push_back(DescribeSupervised(known));
                break;
            case Kind::Watched:
                figures.watched.push_back(DescribeWatched(known));
                break;
            case Kind::Pool:
                figures.pools.push_back(DescribePool(known));
                break;
            case Kind::Component:
                figures.components.push_back(DescribeComponent(known));
                break;
            case Kind::Timer:
            case Kind::ShortPeriodTimer:
                figures.timers.push_back(DescribeTimer(known));
                break;
            case Kind::Pipe:
                figures.pipes.push_back(DescribePipe(known));
                break;
        }
    }
}

Outcome<std::vector<LoggedMessage>> DiagnosticsInterface::GetMessages() const {
    if (!Recording::GetRing()) {
        return NotRecording();
    }
    const auto flight = RingReader::Read(Recorder::GetFd());
    if (!flight.IsOk()) {
        return flight.GetError();
    }
    std::vector<LoggedMessage> messages;
    for (const FlightMessage& message : flight->messages) {
        messages.push_back({message.realtimeNs / NS_PER_US, message.level, message.text, message.isCut});
    }
    return messages;
}

Outcome<DiagnosticsInterface::Events> DiagnosticsInterface::GetEvents(std::uint64_t after,
                                                                      std::uint32_t most) const {
    if (!Recording::GetRing()) {
        return NotRecording();
    }
    // The time of day may have been set since the last time that was noted.
    Recording::GetRing().Calibrate();
    const auto flight = RingReader::Read(Recorder::GetFd());
    if (!flight.IsOk()) {
        return flight.GetError();
    }
    // A number that this life has not come to is of a former one.
    const std::uint64_t begin = after > flight->written ? 0 : after;
    const std::size_t room = most == 0 ? MOST_EVENTS : std::min(most, MOST_EVENTS);
    std::uint64_t next = begin;
    std::uint64_t lost = 0;
    std::vector<RecordedEvent> events;
    for (const FlightEvent& event : flight->events) {
        if (event.sequence <= begin) {
            continue;
        }
        if (events.size() == room) {
            break;
        }
        if (events.empty()) {
            lost = event.sequence - begin - 1;
        }
        const auto realtimeNs =
            static_cast<std::int64_t>(event.monotonicNs + static_cast<std::uint64_t>(flight->toRealtimeNs));
        events.push_back({event.sequence,
                          static_cast<std::uint64_t>(std::max<std::int64_t>(realtimeNs, 0)) / NS_PER_US,
                          event.threadId, event.event, event.name, event.value});
        next = event.sequence;
    }
    return Events{next, lost, std::move(events)};
}

Outcome<Typed::OwnedFd> DiagnosticsInterface::OpenRecorder() const {
    if (!Recording::GetRing()) {
        return NotRecording();
    }
    const std::string path = "/proc/self/fd/" + std::to_string(Recorder::GetFd());
    Typed::OwnedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        const int error = errno;
        return Error::Failed("the flight recorder's memory cannot be opened: " +
                             std::string(ErrorText(error)));
    }
    return fd;
}

DiagnosticsInterface::Reasons DiagnosticsInterface::Why() const {
    return {mEnded, mSentences};
}

Outcome<void> DiagnosticsInterface::SetLogLevel(const std::string& level) {
    const auto found = std::find(LEVELS.begin() + LOWEST_LEVEL, LEVELS.end(), level);
    if (found == LEVELS.end()) {
        return Error::InvalidArgs("'" + level + "' is none of critical, error, warning, notice, info, debug");
    }
    if (Log::SetThreshold == nullptr) {
        return Error::NotSupported("the threshold of this service's logger cannot be set");
    }
    Log::SetThreshold(static_cast<unsigned char>(found - LEVELS.begin()));
    Changed<Diagnostics1::LogLevel>();
    return {};
}

std::string DiagnosticsInterface::GetLogLevel() const {
    const unsigned char level = ProcessLogger::Threshold(ProcessLogger::Get());
    return std::string(LEVELS[std::min<std::size_t>(level, LEVELS.size() - 1)]);
}

}  // namespace mwl::Diagnostics
