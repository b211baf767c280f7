#include <tern/diagnostics/ring_reader.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "diagnostics/clean_text.h"
#include "diagnostics/ring_format.h"
#include "foundation/error_text.h"

namespace mwl::Diagnostics {

namespace {

using namespace Format;
using Typed::Error;
using Typed::Outcome;
using Bytes = std::span<const std::byte>;

constexpr std::size_t MOST_BYTES = EVENTS_AT + MOST_EVENT_BYTES;

Error Refuse(const std::string& text) {
    return Error::Failed(text);
}

/// REQUIRES: it lies within the bytes.
template <class T>
T Load(Bytes bytes, std::size_t at) {
    T value{};
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}
std::uint64_t Load64(Bytes bytes, std::size_t at) {
    return Load<std::uint64_t>(bytes, at);
}
std::uint32_t Load32(Bytes bytes, std::size_t at) {
    return Load<std::uint32_t>(bytes, at);
}
std::string LoadText(Bytes bytes, std::size_t at, std::size_t room) {
    return CleanText(std::string_view(reinterpret_cast<const char*>(bytes.data() + at), room));
}

bool EndsSomething(std::string_view event) {
    return event == "call_ended" || event == "job_ended" || event == "run_ended" || event == "timer_ended" ||
           event == "pipe_waited";
}

/// From ticks to CLOCK_MONOTONIC.
class Clock {
public:
    /// Nothing for instants that no clock can have had.
    static std::optional<Clock> Make(Bytes bytes) {
        const auto instant = [&](std::size_t at) {
            return std::array{Load64(bytes, at + offsetof(Instant, ticks)),
                              Load64(bytes, at + offsetof(Instant, monotonicNs)),
                              Load64(bytes, at + offsetof(Instant, realtimeNs))};
        };
        const auto first = instant(offsetof(Header, first));
        const auto last = instant(offsetof(Header, last));
        Clock clock;
        clock.mTicks = first[0];
        clock.mMonotonicNs = first[1];
        clock.mToRealtimeNs = static_cast<std::int64_t>(last[2] - last[1]);
        clock.mRealtimeJumpedNs = (last[2] - last[1]) - (first[2] - first[1]);
        if (Load32(bytes, offsetof(Header, tickSource)) == TICKS_ARE_COUNTS) {
            // Counters run at some MHz to some GHz.
            constexpr double SLOWEST = 1000;
            constexpr double FASTEST = 0.01;
            clock.mNsPerTick =
                last[0] > first[0] && last[1] > first[1]
                    ? static_cast<double>(last[1] - first[1]) / static_cast<double>(last[0] - first[0])
                    : 0;
            if (!(clock.mNsPerTick >= FASTEST && clock.mNsPerTick <= SLOWEST)) {
                return std::nullopt;
            }
        }
        return clock;
    }

    std::uint64_t Duration(std::uint64_t ticks) const {
        const double nanoseconds = static_cast<double>(ticks) * mNsPerTick;
        constexpr double BEYOND = 9.2e18;
        return nanoseconds >= BEYOND ? static_cast<std::uint64_t>(BEYOND)
                                     : static_cast<std::uint64_t>(nanoseconds);
    }
    std::uint64_t Monotonic(std::uint64_t ticks) const {
        if (ticks < mTicks) {
            return mMonotonicNs - std::min(mMonotonicNs, Duration(mTicks - ticks));
        }
        const std::uint64_t since = Duration(ticks - mTicks);
        return since > std::numeric_limits<std::uint64_t>::max() - mMonotonicNs
                   ? std::numeric_limits<std::uint64_t>::max()
                   : mMonotonicNs + since;
    }
    std::int64_t ToRealtimeNs() const { return mToRealtimeNs; }
    /// How far CLOCK_REALTIME has been set on or back since recording began, modulo 2^64.
    std::uint64_t GetRealtimeJumpedNs() const { return mRealtimeJumpedNs; }

private:
    std::uint64_t mTicks = 0;
    std::uint64_t mMonotonicNs = 0;
    std::int64_t mToRealtimeNs = 0;
    std::uint64_t mRealtimeJumpedNs = 0;
    double mNsPerTick = 1;
};

/// Reads two copies, one taken after the other: what differs was being written.
class Reading {
public:
    Reading(Bytes bytes, Bytes again, const Clock& clock, std::size_t events, Flight& flight)
        : mBytes(bytes), mAgain(again), mClock(clock), mEvents(events), mFlight(flight) {}

    void ReadAll() {
        ReadThreads();
        ReadMessages();
        ReadEvents();
    }

private:
    bool IsSame(std::size_t at, std::size_t size) const {
        return std::memcmp(mBytes.data() + at, mAgain.data() + at, size) == 0;
    }

    std::string NameOf(std::uint64_t id) const {
        if (id == OTHERS) {
            return "(others)";
        }
        if (id == NO_NAME || id > NAMES) {
            return {};
        }
        const std::size_t at = NAMES_AT + (static_cast<std::size_t>(id) - 1) * sizeof(Name);
        if (Load32(mBytes, at + offsetof(Name, state)) != READY) {
            return {};
        }
        return LoadText(mBytes, at + offsetof(Name, text), sizeof(Name::text));
    }

    std::string EventOf(std::uint64_t number) const {
        const std::size_t known = std::min<std::size_t>(Load32(mBytes, offsetof(Header, eventNames)), 64);
        if (number >= known) {
            return "event-" + std::to_string(number);
        }
        constexpr std::size_t SIZE = sizeof(Header::eventNameList) / 64;
        return LoadText(mBytes, offsetof(Header, eventNameList) + static_cast<std::size_t>(number) * SIZE,
                        SIZE);
    }

    /// Of an entry that is in use; else 0.
    std::uint32_t ThreadIdOf(std::uint64_t number) const {
        if (number >= THREADS) {
            return 0;
        }
        const std::size_t at = THREADS_AT + static_cast<std::size_t>(number) * sizeof(Thread);
        return Load32(mBytes, at + offsetof(Thread, state)) == READY
                   ? Load32(mBytes, at + offsetof(Thread, id))
                   : 0;
    }

    void Saw(std::uint64_t monotonicNs) { mFlight.latestNs = std::max(mFlight.latestNs, monotonicNs); }

    void ReadThreads() {
        for (std::size_t i = 0; i < THREADS; ++i) {
            const std::size_t at = THREADS_AT + i * sizeof(Thread);
            if (ThreadIdOf(i) == 0) {
                continue;
            }
            FlightThread thread;
            thread.id = ThreadIdOf(i);
            thread.name = LoadText(mBytes, at + offsetof(Thread, name), sizeof(Thread::name));
            thread.isBusThread = Load32(mBytes, offsetof(Header, busThread)) == i + 1;
            thread.watchName = NameOf(Load32(mBytes, at + offsetof(Thread, watchName)));
            if (!thread.watchName.empty()) {
                thread.watchPeriodNs = Load64(mBytes, at + offsetof(Thread, watchNs));
                thread.reportedNs = mClock.Monotonic(Load64(mBytes, at + offsetof(Thread, reportedTicks)));
                Saw(thread.reportedNs);
            }
            const std::size_t depth =
                std::min<std::size_t>(Load32(mBytes, at + offsetof(Thread, depth)), Thread::DEEPEST);
            for (std::size_t k = 0; k < depth && IsSame(at, sizeof(Thread)); ++k) {
                const std::size_t doing = at + offsetof(Thread, doing) + k * sizeof(Doing);
                const std::uint64_t what = Load64(mBytes, doing + offsetof(Doing, what));
                thread.doing.push_back({EventOf(what & 0xffffU), NameOf(what >> 16U & 0xffffU),
                                        mClock.Monotonic(Load64(mBytes, doing + offsetof(Doing, ticks)))});
                Saw(thread.doing.back().sinceNs);
            }
            mFlight.threads.push_back(std::move(thread));
        }
    }

    void ReadMessages() {
        const std::uint64_t head = Load64(mBytes, offsetof(Header, messageHead));
        for (std::uint64_t n = head - std::min<std::uint64_t>(head, MESSAGES); n < head; ++n) {
            const std::size_t at = MESSAGES_AT + n % MESSAGES * sizeof(Message);
            if (Load64(mBytes, at + offsetof(Message, sequence)) != n + 1 || !IsSame(at, sizeof(Message))) {
                continue;
            }
            const std::uint64_t what = Load64(mBytes, at + offsetof(Message, what));
            FlightMessage message;
            message.sequence = n + 1;
            message.realtimeNs = Load64(mBytes, at + offsetof(Message, realtimeNs));
            message.level = static_cast<std::uint32_t>(std::min<std::uint64_t>(what & 0xffU, 7));
            message.threadId = static_cast<std::uint32_t>(Load64(mBytes, at + offsetof(Message, thread)));
            message.text = LoadText(mBytes, at + offsetof(Message, text),
                                    std::min<std::size_t>(what >> 8U & 0xffffU, Message::LONGEST));
            message.isCut = (what >> 24U & 1U) != 0;
            message.isException = (what >> 25U & 1U) != 0;
            mFlight.messages.push_back(std::move(message));
        }
    }

    void ReadEvents() {
        const std::uint64_t head = mFlight.written;
        for (std::uint64_t n = head - std::min<std::uint64_t>(head, mEvents); n < head; ++n) {
            const std::size_t at = EVENTS_AT + (n & (mEvents - 1)) * sizeof(Event);
            if (Load64(mBytes, at + offsetof(Event, sequence)) != n + 1 || !IsSame(at, sizeof(Event))) {
                continue;
            }
            const std::uint64_t what = Load64(mBytes, at + offsetof(Event, what));
            FlightEvent event;
            event.sequence = n + 1;
            event.monotonicNs = mClock.Monotonic(Load64(mBytes, at + offsetof(Event, ticks)));
            event.threadId = static_cast<std::uint32_t>(what >> 32U);
            event.event = EventOf(what & 0xffffU);
            event.name = NameOf(what >> 16U & 0xffffU);
            const std::uint64_t value = Load64(mBytes, at + offsetof(Event, value));
            event.value = EndsSomething(event.event) ? mClock.Duration(value) : value;
            Saw(event.monotonicNs);
            mFlight.events.push_back(std::move(event));
        }
    }

    const Bytes mBytes;
    const Bytes mAgain;
    const Clock& mClock;
    const std::size_t mEvents;
    Flight& mFlight;
};

Outcome<Flight> ParseCopies(Bytes bytes, Bytes again) {
    if (bytes.size() < HEADER_BYTES || bytes.size() != again.size()) {
        return Refuse("these " + std::to_string(bytes.size()) +
                      " bytes are too few for a flight recorder's memory");
    }
    const std::uint32_t magic = Load32(bytes, offsetof(Header, magic));
    if (magic == __builtin_bswap32(MAGIC)) {
        return Refuse("this flight recorder's memory is of a machine of the other byte order");
    }
    if (magic != MAGIC) {
        return Refuse("this is no flight recorder's memory");
    }
    if (const std::uint32_t version = Load32(bytes, offsetof(Header, version)); version != VERSION) {
        return Refuse("this flight recorder's memory is of version " + std::to_string(version) + ", not " +
                      std::to_string(VERSION));
    }
    const std::uint32_t events = Load32(bytes, offsetof(Header, events));
    const bool isSized = std::has_single_bit(events) && events <= MOST_EVENT_BYTES / sizeof(Event) &&
                         bytes.size() == EVENTS_AT + events * sizeof(Event) &&
                         Load64(bytes, offsetof(Header, totalBytes)) == bytes.size() &&
                         Load32(bytes, offsetof(Header, names)) == NAMES &&
                         Load32(bytes, offsetof(Header, threads)) == THREADS &&
                         Load32(bytes, offsetof(Header, messages)) == MESSAGES;
    if (!isSized) {
        return Refuse("the sizes in this flight recorder's memory do not fit each other");
    }
    const std::optional<Clock> clock = Clock::Make(bytes);
    if (!clock) {
        return Refuse("the clock in this flight recorder's memory makes no sense");
    }

    Flight flight;
    flight.pid = Load32(bytes, offsetof(Header, pid));
    flight.restarts = Load32(bytes, offsetof(Header, restarts));
    flight.program = LoadText(bytes, offsetof(Header, program), sizeof(Header::program));
    flight.version = LoadText(bytes, offsetof(Header, serviceVersion), sizeof(Header::serviceVersion));
    flight.bootId = LoadText(bytes, offsetof(Header, bootId), sizeof(Header::bootId));
    flight.processStartedNs = Load64(bytes, offsetof(Header, processStartedNs));
    if (flight.processStartedNs > 0) {
        flight.processStartedNs += clock->GetRealtimeJumpedNs();
    }
    flight.watchdogNs = Load64(bytes, offsetof(Header, watchdogNs));
    flight.beganNs = Load64(bytes, offsetof(Header, first) + offsetof(Instant, monotonicNs));
    flight.latestNs =
        std::max(flight.beganNs, Load64(bytes, offsetof(Header, last) + offsetof(Instant, monotonicNs)));
    flight.toRealtimeNs = clock->ToRealtimeNs();
    flight.written = Load64(bytes, offsetof(Header, eventHead));
    flight.capacity = events;
    flight.namesLost = Load64(bytes, offsetof(Header, namesLost));
    flight.threadsLost = Load64(bytes, offsetof(Header, threadsLost));
    const std::uint32_t end = Load32(bytes, offsetof(Header, end));
    if (end == static_cast<std::uint32_t>(End::Stopped) || end == static_cast<std::uint32_t>(End::Failed)) {
        flight.end = end == static_cast<std::uint32_t>(End::Stopped) ? FlightEnd::Stopped : FlightEnd::Failed;
        flight.endedNs = Load64(bytes, offsetof(Header, endedNs));
    }
    Reading(bytes, again, *clock, events, flight).ReadAll();
    return flight;
}

/// All of the file; 0 or the error number. A file that ends earlier is EIO.
int ReadFile(int fd, std::vector<std::byte>& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t taken = pread(fd, bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
        if (taken < 0 && errno == EINTR) {
            continue;
        }
        if (taken <= 0) {
            return taken < 0 ? errno : EIO;
        }
        at += static_cast<std::size_t>(taken);
    }
    return 0;
}

}  // namespace

Outcome<Flight> RingReader::Read(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        const int error = errno;
        return Refuse("the flight recorder's memory cannot be read: " + std::string(ErrorText(error)));
    }
    if (!S_ISREG(status.st_mode)) {
        return Refuse("this is no flight recorder's memory");
    }
    const auto size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    if (size > MOST_BYTES) {
        return Refuse("these " + std::to_string(size) + " bytes are too many for a flight recorder's memory");
    }
    std::vector<std::byte> bytes(static_cast<std::size_t>(size));
    std::vector<std::byte> again(bytes.size());
    int error = ReadFile(fd, bytes);
    if (error == 0) {
        error = ReadFile(fd, again);
    }
    if (error != 0) {
        return Refuse("the flight recorder's memory cannot be read: " + std::string(ErrorText(error)));
    }
    return ParseCopies(bytes, again);
}

Outcome<Flight> RingReader::Parse(Bytes bytes) {
    return ParseCopies(bytes, bytes);
}

}  // namespace mwl::Diagnostics
