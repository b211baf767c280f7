#include <benchmark/benchmark.h>
#include <tern/threading/lock.h>

#include <mutex>

namespace {

using mwl::Threading::Lock;
using mwl::Threading::Mutex;

void BM_Lock(benchmark::State& state) {
    static Mutex mutex;
    static long counter = 0;
    for (auto _ : state) {
        const Lock lock(mutex);
        benchmark::DoNotOptimize(++counter);
    }
}
BENCHMARK(BM_Lock)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

void BM_StdRecursiveMutex(benchmark::State& state) {
    static std::recursive_mutex mutex;
    static long counter = 0;
    for (auto _ : state) {
        const std::lock_guard lock(mutex);
        benchmark::DoNotOptimize(++counter);
    }
}
BENCHMARK(BM_StdRecursiveMutex)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
