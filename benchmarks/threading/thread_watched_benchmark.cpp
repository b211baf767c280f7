#include <benchmark/benchmark.h>
#include <tern/threading/thread_watched.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace {

using mwl::Threading::ThreadWatched;

class NoWatcher : public mwl::Threading::ThreadsWatcherInterface {
public:
    void Register(ThreadWatched*) override {}
    void Unregister(ThreadWatched*) override {}
    void TaskWatch() override {}
    void Stop() override {}
};

void BM_NotifyWork(benchmark::State& state) {
    NoWatcher watcher;
    ThreadWatched watched(watcher, "benchmark");
    watched.StartWatch(std::chrono::milliseconds(1000));
    for (auto _ : state) {
        watched.NotifyWork();
    }
    watched.StopWatch();
}
BENCHMARK(BM_NotifyWork);

/// Its indispensable part: the clock and one store.
void BM_ClockAndStore(benchmark::State& state) {
    std::atomic<std::int64_t> lastWork{0};
    for (auto _ : state) {
        lastWork.store(std::chrono::steady_clock::now().time_since_epoch().count(),
                       std::memory_order_relaxed);
        benchmark::DoNotOptimize(lastWork);
    }
}
BENCHMARK(BM_ClockAndStore);

}  // namespace

BENCHMARK_MAIN();
