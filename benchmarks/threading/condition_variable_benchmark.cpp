#include <benchmark/benchmark.h>
#include <tern/threading/condition_variable.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using mwl::Threading::ConditionVariable;
using mwl::Threading::Lock;
using mwl::Threading::Mutex;
using std::chrono::milliseconds;

struct Tern {
    using Guard = Lock;
    Mutex mutex;
    ConditionVariable condition;
    void Wait(Lock& lock, int timeoutMs) { benchmark::DoNotOptimize(condition.WaitFor(lock, timeoutMs)); }
    template <typename Predicate>
    void Wait(Lock& lock, int timeoutMs, Predicate predicate) {
        benchmark::DoNotOptimize(condition.WaitFor(lock, timeoutMs, predicate));
    }
    void Notify() { condition.NotifyOne(); }
};

struct Std {
    using Guard = std::unique_lock<std::mutex>;
    std::mutex mutex;
    std::condition_variable condition;
    void Wait(Guard& lock, int timeoutMs) {
        benchmark::DoNotOptimize(condition.wait_for(lock, milliseconds(timeoutMs)));
    }
    template <typename Predicate>
    void Wait(Guard& lock, int timeoutMs, Predicate predicate) {
        benchmark::DoNotOptimize(condition.wait_for(lock, milliseconds(timeoutMs), predicate));
    }
    void Notify() { condition.notify_one(); }
};

/// A timed wait whose time is up immediately: everything but the sleep.
template <typename Kind>
void BM_ExpiredWait(benchmark::State& state) {
    Kind kind;
    typename Kind::Guard lock(kind.mutex);
    for (auto _ : state) {
        kind.Wait(lock, 0);
    }
}
BENCHMARK(BM_ExpiredWait<Tern>);
BENCHMARK(BM_ExpiredWait<Std>);

/// A timed wait for a condition that holds already.
template <typename Kind>
void BM_FulfilledWait(benchmark::State& state) {
    Kind kind;
    const bool ready = true;
    typename Kind::Guard lock(kind.mutex);
    for (auto _ : state) {
        kind.Wait(lock, 10000, [&ready] {
            benchmark::DoNotOptimize(ready);
            return ready;
        });
    }
}
BENCHMARK(BM_FulfilledWait<Tern>);
BENCHMARK(BM_FulfilledWait<Std>);

/// Two threads hand a turn to each other: one wake-up of another thread each way.
template <typename Kind>
void BM_HandOver(benchmark::State& state) {
    Kind kind;
    int turn = 0;
    bool over = false;
    std::thread other([&] {
        typename Kind::Guard lock(kind.mutex);
        while (!over) {
            kind.Wait(lock, 10000, [&] { return turn == 1 || over; });
            turn = 0;
            kind.Notify();
        }
    });
    for (auto _ : state) {
        typename Kind::Guard lock(kind.mutex);
        turn = 1;
        kind.Notify();
        kind.Wait(lock, 10000, [&] { return turn == 0; });
    }
    {
        const typename Kind::Guard lock(kind.mutex);
        over = true;
        kind.Notify();
    }
    other.join();
}
BENCHMARK(BM_HandOver<Tern>)->UseRealTime();
BENCHMARK(BM_HandOver<Std>)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
