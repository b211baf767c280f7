#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include "commands.h"
#include "event_lines.h"
#include "interrupt.h"
#include "json.h"
#include "look.h"
#include "output.h"
#include "process.h"
#include "text.h"

namespace ternctl {

using mwl::Diagnostics::Flight;
using mwl::Diagnostics::FlightDoing;
using mwl::Diagnostics::FlightEnd;
using mwl::Diagnostics::FlightThread;
using mwl::Diagnostics::RecordedEvent;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t LAST_WHEN_FOLLOWING = 10;
constexpr auto FOLLOW_PERIOD = 200ms;

/// For how long, by CLOCK_MONOTONIC, which all processes of a machine share.
std::uint64_t ElapsedUs(std::uint64_t sinceNs) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto nowNs =
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    return nowNs > sinceNs ? (nowNs - sinceNs) / 1000 : 0;
}

/// The rest of "the thread is in ...".
std::string Describe(const FlightDoing& doing, const Look& look) {
    return look.Show(doing.event) + (doing.name.empty() ? "" : " of " + look.Show(doing.name)) + " for " +
           Duration(ElapsedUs(doing.sinceNs));
}

/// The present work of the threads, a line for each thread that is in something; innermost first.
std::string DescribeThreads(const Flight& flight, const Look& look) {
    std::string text;
    for (const FlightThread& thread : flight.threads) {
        std::string line;
        for (auto doing = thread.doing.rbegin(); doing != thread.doing.rend(); ++doing) {
            line += (line.empty() ? "" : ", in ") + Describe(*doing, look);
        }
        if (!line.empty()) {
            text += "-- now: " + std::string(thread.isBusThread ? "the D-Bus thread " : "thread ") +
                    std::to_string(thread.id) + " (" + look.Show(thread.name) + ") is in " + line + " --\n";
        }
    }
    if (flight.end != FlightEnd::None) {
        text += "-- its recorder has been ended --\n";
    }
    return text;
}

void Write(JsonWriter& json, const std::vector<FlightThread>& threads) {
    json.Begin('[');
    for (const FlightThread& thread : threads) {
        json.Begin('{')
            .Add("ThreadId", thread.id)
            .Add("Name", thread.name)
            .Add("IsBusThread", thread.isBusThread)
            .Add("WatchName", thread.watchName)
            .Key("Doing")
            .Begin('[');
        for (const FlightDoing& doing : thread.doing) {
            json.Begin('{')
                .Add("Event", doing.event)
                .Add("Name", doing.name)
                .Add("ForUs", ElapsedUs(doing.sinceNs))
                .End('}');
        }
        json.End(']').End('}');
    }
    json.End(']');
}

/// Without what comes before.
std::span<const RecordedEvent> Behind(const std::vector<RecordedEvent>& events, std::uint64_t after) {
    const auto first = std::find_if(events.begin(), events.end(),
                                    [after](const RecordedEvent& event) { return event.sequence > after; });
    return {first, events.end()};
}

/// How many are missing between `after` and the first of them.
std::uint64_t CountLost(std::span<const RecordedEvent> events, std::uint64_t after) {
    return events.empty() ? 0 : events.front().sequence - after - 1;
}

ExitStatus PrintOnce(const Options& options, const Flight& flight) {
    const std::vector<RecordedEvent> all = ToEvents(flight);
    std::span<const RecordedEvent> events(all);
    std::uint64_t lost = CountLost(events, 0);
    if (options.last) {
        events = events.last(static_cast<std::size_t>(std::min<std::uint64_t>(*options.last, events.size())));
        lost = *options.last > all.size() ? lost : 0;
    }
    if (options.isJson) {
        JsonWriter json;
        json.Begin('{')
            .Add("Pid", *options.pid)
            .Add("Program", flight.program)
            .Add("Version", flight.version)
            .Add("Lost", lost)
            .Add("Next", flight.written)
            .Key("Events")
            .Begin('[');
        for (const RecordedEvent& event : events) {
            Write(json, event);
        }
        json.End(']').Key("Threads");
        Write(json, flight.threads);
        PrintLine(json.End('}').GetText());
        return ExitStatus::Done;
    }
    const Look look = Look::OfOutput();
    std::string text = lost > 0 ? DescribeLost(lost) + '\n' : "";
    for (const RecordedEvent& event : events) {
        text += Describe(event, look) + '\n';
    }
    Print(text + DescribeThreads(flight, look));
    return ExitStatus::Done;
}

/// The events since `after`. Returns the number to go on with.
std::uint64_t PrintNew(const Options& options, const Flight& flight, std::uint64_t after, const Look& look) {
    const std::vector<RecordedEvent> all = ToEvents(flight);
    const std::span<const RecordedEvent> events = Behind(all, after);
    const std::uint64_t lost = CountLost(events, after);
    std::string text;
    if (lost > 0) {
        JsonWriter json;
        text += options.isJson ? json.Begin('{').Add("Lost", lost).End('}').GetText() : DescribeLost(lost);
        text += '\n';
    }
    for (const RecordedEvent& event : events) {
        JsonWriter json;
        if (options.isJson) {
            Write(json, event);
        }
        text += (options.isJson ? json.GetText() : Describe(event, look)) + '\n';
    }
    Print(text);
    return events.empty() ? after : events.back().sequence;
}

/// Until the process ends or somebody interrupts it. The memory is there longer than the process: its last
/// events are not missed.
ExitStatus Follow(const Options& options, const Process& process, const Process::Recorder& recorder) {
    const Interrupt interrupt;
    const Look look = Look::OfOutput();
    const std::uint64_t last = options.last.value_or(LAST_WHEN_FOLLOWING);
    const std::uint64_t kept = std::min<std::uint64_t>(last, recorder.flight.events.size());
    std::uint64_t after = recorder.flight.written;
    if (kept > 0) {
        after = (recorder.flight.events.end() - static_cast<std::ptrdiff_t>(kept))->sequence - 1;
    }
    bool isRunning = true;
    do {
        isRunning = process.IsRunning();
        after = PrintNew(options, ReadFlight(recorder.memory, process.GetPid()), after, look);
        if (!isRunning) {
            Complain("process " + std::to_string(process.GetPid()) + " has ended");
        }
    } while (isRunning &&
             interrupt.WaitUntil(Interrupt::Clock::now() + FOLLOW_PERIOD) == Interrupt::Reason::Time);
    return ExitStatus::Done;
}

}  // namespace

ExitStatus RunProcessEvents(const Options& options) {
    const Process process(*options.pid);
    const Process::Recorder recorder = process.OpenRecorder();
    return options.isFollowing ? Follow(options, process, recorder) : PrintOnce(options, recorder.flight);
}

}  // namespace ternctl
