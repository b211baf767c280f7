#include <benchmark/benchmark.h>
#include <tern/diagnostics/recorder.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>

#include <array>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

// What the flight recorder costs where it is told of something: each operation without it and with it. The
// difference is an event's cost, two events' for a message through a pipe.

namespace {

using mw::tern::StatusCode;
using mwl::Diagnostics::Recorder;

void SwitchRecorder(benchmark::State& state) {
    Recorder::End();
    if (state.range(0) != 0 && Recorder::Begin({.isKept = false}) != StatusCode::Ok) {
        state.SkipWithError("no flight recorder");
    }
}

class Executor : public mwl::QueuedProcessings::ExecutorInterface {
    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override {}
    void Stop() override {}
};

/// A wake-up for a run that another one has asked for: the cheapest thing that the library tells of.
void WakeUp(benchmark::State& state) {
    SwitchRecorder(state);
    static mwl::Threading::Signals signals;
    static mwl::Threading::ThreadsMonitor monitor(signals);
    static Executor executor;
    static mwl::QueuedProcessings::Component component("Upload", "upload", monitor, executor);
    for (auto _ : state) {
        component.WakeUp();
    }
}
BENCHMARK(WakeUp)->ArgName("recorder")->Arg(0)->Arg(1)->Repetitions(9)->ReportAggregatesOnly();
BENCHMARK(WakeUp)->ArgName("recorder")->Arg(0)->Arg(1)->Threads(2)->Repetitions(9)->ReportAggregatesOnly();

double ThreadTimeNs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

/// Processor time of a wake-up, by so many threads at once, each with a component of its own: what they share
/// is the recorder.
double MeasureWakeUp(std::size_t threads) {
    constexpr int WAKE_UPS = 20000;
    static mwl::Threading::Signals signals;
    static mwl::Threading::ThreadsMonitor monitor(signals);
    static Executor executor;
    static std::array<mwl::QueuedProcessings::Component, 4> components{
        {{"First", "first", monitor, executor},
         {"Second", "second", monitor, executor},
         {"Third", "third", monitor, executor},
         {"Fourth", "fourth", monitor, executor}}};
    std::vector<double> spent(threads);
    std::vector<std::thread> running;
    for (std::size_t i = 0; i < threads; ++i) {
        running.emplace_back([&spent, i] {
            components[i].WakeUp();  // the first one claims what a thread needs
            const double begin = ThreadTimeNs();
            for (int n = 0; n < WAKE_UPS; ++n) {
                components[i].WakeUp();
            }
            spent[i] = ThreadTimeNs() - begin;
        });
    }
    double sum = 0;
    for (std::size_t i = 0; i < threads; ++i) {
        running[i].join();
        sum += spent[i];
    }
    return sum / static_cast<double>(threads) / WAKE_UPS;
}

/// An event's cost by itself: a wake-up with the recorder less one without, in turn.
void Event(benchmark::State& state) {
    const auto threads = static_cast<std::size_t>(state.range(0));
    double without = 0;
    double with = 0;
    for (auto _ : state) {
        Recorder::End();
        without += MeasureWakeUp(threads);
        if (Recorder::Begin({.isKept = false}) != StatusCode::Ok) {
            state.SkipWithError("no flight recorder");
            break;
        }
        with += MeasureWakeUp(threads);
    }
    Recorder::End();
    state.counters["event_ns"] = benchmark::Counter(with - without, benchmark::Counter::kAvgIterations);
}
BENCHMARK(Event)->ArgName("writers")->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond);

void PipeMessage(benchmark::State& state) {
    SwitchRecorder(state);
    mw::tern::MessagePipe pipe;
    if (pipe.Initialize() != StatusCode::Ok) {
        state.SkipWithError("no pipe");
    }
    char message[16]{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(pipe.WriteMessage(message, sizeof message));
        benchmark::DoNotOptimize(pipe.ReadMessage(message, sizeof message, 0));
    }
}
BENCHMARK(PipeMessage)->ArgName("recorder")->Arg(0)->Arg(1)->Repetitions(5)->ReportAggregatesOnly();

}  // namespace

BENCHMARK_MAIN();
