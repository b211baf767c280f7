#include <benchmark/benchmark.h>
#include <tern/diagnostics/recorder.h>
#include <tern/queued_processings/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>

#include <memory>

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
