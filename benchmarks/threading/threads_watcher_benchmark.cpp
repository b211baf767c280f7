// How the cost of a watcher grows with the threads it watches: putting all under watch and taking all out
// again.

#include <benchmark/benchmark.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor_interface.h>
#include <tern/threading/threads_watcher.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using mwl::Threading::ThreadWatched;

class NoMonitor : public mwl::Threading::ThreadsMonitorInterface {
public:
    void AddWorkerThread(mwl::Threading::ThreadManager& /*thread*/) override {}
    void RemoveWorkerThread(mwl::Threading::ThreadManager& /*thread*/) override {}
    void SetDBusThreadId(unsigned long /*threadId*/) override {}
    void StopWorkerThreads() override {}
    void NotifyDBusThreadToStop(bool /*onFailure*/) override {}
    void NotifyDBusThreadToStopOnFailure() override {}
    bool HasFailure() override { return false; }
};

void WatchAndLeave(benchmark::State& state) {
    NoMonitor monitor;
    mwl::Threading::ThreadsWatcher watcher(monitor);
    // Stays, so that the watch goes on between iterations and none of them starts its thread.
    ThreadWatched first(watcher, "first");
    first.StartWatch(std::chrono::hours(1));
    std::vector<std::unique_ptr<ThreadWatched>> threads;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        threads.push_back(std::make_unique<ThreadWatched>(watcher, "thread" + std::to_string(i)));
    }
    for (auto _ : state) {
        for (const auto& thread : threads) {
            thread->StartWatch(std::chrono::hours(1));
        }
        for (const auto& thread : threads) {
            thread->StopWatch();
        }
    }
    first.StopWatch();
}

BENCHMARK(WatchAndLeave)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    setenv("TERN_LOG_LEVEL", "error", 1);  // each registration is logged
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
