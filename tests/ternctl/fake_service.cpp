// A service whose diagnostics say what a test wants: fixed figures, whatever the process does.
//
//     ternctl-fake-service NAME MODE
//
// calm: nothing deserves attention. troubled: everything does. growing: figures grow with time, queues with
// each look. stalling: each second answer with events takes 0.6 s. hostile: texts and figures that no honest
// service has. young: no former life, nothing recorded. none: no diagnostics.

#include <systemd/sd-daemon.h>
#include <tern/diagnostics/contract.h>
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using mwl::StatusCode;
using namespace mwl::Diagnostics;
namespace Typed = mwl::Typed;

namespace {

/// 2023-11-14 22:13:20 UTC.
constexpr std::uint64_t STARTED_AT = 1'700'000'000'000'000;
constexpr std::uint64_t UPTIME = 273'906'000'000;  // 3 d 4 h 5 min 6 s
constexpr std::uint64_t EVENTS = 2500;
constexpr std::uint64_t CAPACITY = 2048;
/// Steers a terminal, turns the direction of writing, ends lines, quotes; a letter with an accent is
/// harmless.
constexpr const char* HOSTILE =
    "\x1b[2J\x07\xc2\x9b"
    "31m\xe2\x80\xae"
    "evil\n\"\\caf\xc3\xa9";

using Clock = std::chrono::steady_clock;

std::vector<std::uint32_t> Histogram(std::size_t first, std::vector<std::uint32_t> counts) {
    std::vector<std::uint32_t> all(LATENCY_BUCKETS);
    std::copy(counts.begin(), counts.end(), all.begin() + static_cast<std::ptrdiff_t>(first));
    return all;
}

class Fake final : public Typed::Implements<Fake, Diagnostics1> {
public:
    explicit Fake(std::string mode) : mMode(std::move(mode)) {
        if (mMode == "hostile") {
            mVersion = HOSTILE;
            mEnded = HOSTILE;
        } else if (mMode == "troubled") {
            mEnded = "blocked";
            mRestarts = 3;
        } else if (mMode == "young") {
            mEnded = "none";
            mRestarts = 0;
        }
    }

    static constexpr auto Describe() {
        using D = Diagnostics1;
        using Typed::Bind;
        return Typed::Bindings<Bind<D::Snapshot, &Fake::Snapshot>, Bind<D::GetMessages, &Fake::GetMessages>,
                               Bind<D::GetEvents, &Fake::GetEvents>,
                               Bind<D::OpenRecorder, &Fake::OpenRecorder>, Bind<D::Why, &Fake::Why>,
                               Bind<D::SetLogLevel, &Fake::SetLogLevel>, Bind<D::LogLevel, &Fake::mLogLevel>,
                               Bind<D::Version, &Fake::mVersion>, Bind<D::StartedAt, &Fake::mStartedAt>,
                               Bind<D::Restarts, &Fake::mRestarts>, Bind<D::Ended, &Fake::mEnded>>();
    }

private:
    std::uint64_t Elapsed() const {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - mBegin).count());
    }

    Figures Calm() const {
        Figures figures;
        figures.takenAtUs = STARTED_AT + UPTIME;
        figures.process = {4711,          "tern-fake", "1.4.2", "0.1.0", STARTED_AT, UPTIME,
                           1'369'530'000, 5452595,     6291456, 23,      1024,       7};
        figures.busThread.threadId = 4711;
        figures.busThread.handled = 1'234'567;
        figures.busThread.turns = 2'345'678;
        figures.busThread.longestTurnUs = 12'345;
        figures.busThread.running = "tern.Diagnostics1.Snapshot";
        figures.busThread.runningUs = 120;
        figures.busThread.watchdogUs = 30'000'000;
        figures.busThread.watchdogMarginUs = 7'400'000;
        figures.busThread.members = {
            {"com.example.Fake1.Measure", 1000, 350'000, 12'345, Histogram(8, {900, 80, 15, 4, 0, 0, 1})},
            {"signal com.example.Other1.Changed", 200, 2000, 40, Histogram(3, {100, 60, 40})},
            {"replies", 12, 36, 5, Histogram(2, {12})}};
        figures.connection = {":1.42", 0, 0, 1, 2, 0, 3};
        figures.threads = {{"worker", 4713, "sleeping"}, {"control", 4714, "running"}};
        figures.watched = {{"control", 4714, 1'000'000, 5'000'000, 120'000, 4'880'000}};
        figures.pools = {{4, 1, 0, 812, 45'000, 300}};
        figures.components = {{"control", 120, 100, 9500, 0}};
        figures.timers = {{"ShortPeriodTimer", 100'000, true, 2'739'060, 0, 800},
                          {"Timer", 5'000'000, false, 1, 350, 20}};
        figures.pipes = {{500, 500, 2, 1500}};
        figures.recorder = {true, 110'592, EVENTS, CAPACITY, 0, 0, true, true};
        if (mMode == "young") {
            figures.recorder = {};
        }
        return figures;
    }

    Figures Troubled() const {
        Figures figures = Calm();
        figures.process.descriptors = 1000;
        figures.busThread.running = "com.example.Fake1.Export";
        figures.busThread.runningUs = 2'300'000;
        figures.busThread.watchdogMarginUs = 2'000'000;
        figures.threads.push_back({"", 0, "gone"});
        figures.watched.push_back({"stuck", 4715, 1'000'000, 5'000'000, 4'800'000, 200'000});
        figures.pools[0].runningUs = 90'000'000;
        figures.components[0].runningUs = 1'500'000;
        figures.recorder.namesLost = 5;
        figures.recorder.isStored = false;
        figures.recorder.hasMessages = false;
        // More of each than a screen holds.
        for (std::uint32_t i = 0; i < 60; ++i) {
            const std::string number = std::to_string(i);
            figures.busThread.members.push_back(
                {"com.example.Fake1.AMemberWithARatherLongName" + number, 1, 1, 1, Histogram(1, {1})});
            figures.timers.push_back({"Timer", 1000 * (i + 1), true, 7, 0, 3});
        }
        return figures;
    }

    Figures Growing() {
        Figures figures = Calm();
        const std::uint64_t elapsed = Elapsed();
        ++mLooks;
        figures.process.uptimeUs += elapsed;
        figures.takenAtUs += elapsed;
        figures.process.processorUs += elapsed / 4;
        figures.process.memoryBytes += mLooks * 4096;
        figures.connection.queuedIn = mLooks * 10;
        figures.pools[0].queued = mLooks;
        figures.pipes[0].written += mLooks * 3;
        // A hundred calls a second, 99 of 100 below 512 us, and what looks.
        const auto calls = static_cast<std::uint32_t>(elapsed / 10'000);
        figures.busThread.handled += calls;
        MemberFigures& member = figures.busThread.members[0];
        member.handled += calls;
        member.latency[9] += calls - calls / 50;
        member.latency[15] += calls / 50;
        figures.busThread.members.push_back(
            {"tern.Diagnostics1.Snapshot", 1'000'000 * mLooks, 1, 1, Histogram(22, {1'000'000 * mLooks})});
        return figures;
    }

    static Figures Hostile(Figures figures) {
        figures.process.program = HOSTILE;
        figures.process.version = HOSTILE;
        figures.process.uptimeUs = UINT64_MAX;
        figures.process.processorUs = UINT64_MAX;
        figures.process.memoryBytes = UINT64_MAX;
        figures.process.descriptorLimit = 0;
        figures.takenAtUs = UINT64_MAX;
        figures.busThread.running = HOSTILE;
        figures.busThread.members = {
            {HOSTILE, 0, UINT64_MAX, UINT64_MAX, {1, 2, 3}},
            {std::string(3000, 'x'), UINT64_MAX, 0, 0, std::vector<std::uint32_t>(40, 7)},
            {"", 1, 1, 1, {}}};
        figures.connection.uniqueName = HOSTILE;
        figures.watched = {{HOSTILE, 1, 0, 0, UINT64_MAX, 0}};
        figures.pipes = {{0, UINT64_MAX, 0, 0}};
        return figures;
    }

    Figures Snapshot() {
        return mMode == "troubled"  ? Troubled()
               : mMode == "growing" ? Growing()
               : mMode == "hostile" ? Hostile(Calm())
                                    : Calm();
    }

    Typed::Outcome<std::vector<LoggedMessage>> GetMessages() const {
        std::vector<LoggedMessage> messages{{STARTED_AT, 4, "Fake: a warning", false}};
        if (mMode == "young") {
            return Typed::Error(NOT_RECORDING_ERROR, "nothing is recorded");
        }
        if (mMode == "troubled") {
            // As many as there are at most.
            for (std::uint32_t i = 1; i < 100; ++i) {
                messages.push_back({STARTED_AT + i * 1'000'000, 2 + i % 3,
                                    "Fake: message " + std::to_string(i) + ' ' + std::string(70, 'x'), true});
            }
        } else if (mMode == "hostile") {
            messages = {{UINT64_MAX, UINT32_MAX, HOSTILE, true}, {0, 0, std::string(3000, 'x'), false}};
        } else if (mMode == "growing") {
            messages.clear();
        }
        return messages;
    }

    Typed::Outcome<Typed::Results<std::uint64_t, std::uint64_t, std::vector<RecordedEvent>>> GetEvents(
        std::uint64_t after, std::uint32_t most) {
        if (mMode == "young") {
            return Typed::Error(NOT_RECORDING_ERROR, "nothing is recorded");
        }
        if (mMode == "growing") {
            mEvents += 3;
        }
        if (mMode == "stalling" && ++mAnswers % 2 == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
        }
        most = most == 0 ? 1000 : std::min<std::uint32_t>(most, 1000);
        const std::uint64_t oldest = mEvents > CAPACITY ? mEvents - CAPACITY + 1 : 1;
        const std::uint64_t first = std::max(after + 1, oldest);
        std::vector<RecordedEvent> events;
        for (std::uint64_t i = first; i <= mEvents && events.size() < most; ++i) {
            events.push_back(MakeEvent(i));
        }
        const std::uint64_t next = events.empty() ? after : events.back().sequence;
        return Typed::Results<std::uint64_t, std::uint64_t, std::vector<RecordedEvent>>(
            next, first - after - 1, std::move(events));
    }
    RecordedEvent MakeEvent(std::uint64_t sequence) const {
        if (mMode == "hostile") {
            return {sequence, UINT64_MAX, 0, HOSTILE, HOSTILE, UINT64_MAX};
        }
        const std::uint64_t atUs = STARTED_AT + sequence * 1000 + 7;
        switch (sequence % 3) {
            case 0:
                return {sequence, atUs, 4711, "call_began", "com.example.Fake1.Measure", 0};
            case 1:
                return {sequence, atUs, 4711, "call_ended", "com.example.Fake1.Measure", 350'000 + sequence};
            default:
                return mMode == "growing"
                           ? RecordedEvent{sequence, atUs, 4711, "call_began", "tern.Diagnostics1.GetEvents",
                                           0}
                           : RecordedEvent{sequence, atUs, 0, "pipe_full", "", 7};
        }
    }

    Typed::Outcome<Typed::OwnedFd> OpenRecorder() {
        return Typed::Error(NOT_RECORDING_ERROR, "nothing is recorded for " + mMode);
    }

    Typed::Results<std::string, std::vector<std::string>> Why() const {
        if (mMode == "troubled") {
            return {mEnded,
                    {"Thread 'control' (4714) was in the job 'Export' for 6.1 s.", "The watcher killed it."}};
        }
        if (mMode == "hostile") {
            return {mEnded, {HOSTILE}};
        }
        return {mEnded, {}};
    }

    Typed::Outcome<void> SetLogLevel(std::string_view level) {
        if (mMode == "young") {
            return Typed::Error::NotSupported("this logger's threshold cannot be set");
        }
        mLogLevel = level;
        Changed<Diagnostics1::LogLevel>();
        return {};
    }

    const std::string mMode;
    const Clock::time_point mBegin = Clock::now();
    std::uint32_t mLooks = 0;
    std::uint64_t mEvents = EVENTS;
    unsigned mAnswers = 0;  ///< with events
    std::string mLogLevel = "notice";
    std::string mVersion = "1.4.2";
    std::string mEnded = "stopped";
    std::uint64_t mStartedAt = STARTED_AT;
    std::uint32_t mRestarts = 1;
};

class Server final : public mwl::DBusService::IpcServer {
public:
    explicit Server(std::string mode) : mMode(std::move(mode)) {}

    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const StatusCode status = mBus.Open(manager, loop);
        if (status != StatusCode::Ok || mMode == "none") {
            return status;
        }
        mObject = mBus.Export(Diagnostics1::PATH, std::make_unique<Fake>(mMode));
        return mObject.GetStatus();
    }
    void Stop() override { mBus.Close(); }

private:
    std::string mMode;
    Typed::Bus mBus;
    Typed::Exported mObject;
};

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        return EXIT_FAILURE;
    }
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    Server server(argv[2]);
    const std::string name = argv[1];
    mwl::DBusService::Component service(name, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool isServing = service.Start() == StatusCode::Ok;
    if (isServing) {
        sd_notify(0, "READY=1");
    }
    service.JoinThread();
    return isServing && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
