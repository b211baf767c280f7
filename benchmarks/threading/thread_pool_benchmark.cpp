#include <benchmark/benchmark.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>

#ifdef TERN_HAVE_BOOST
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#endif
#ifdef TERN_HAVE_TBB
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#endif

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

class NoWatcher : public mwl::Threading::ThreadsWatcherInterface {
public:
    void Register(mwl::Threading::ThreadWatched*) override {}
    void Unregister(mwl::Threading::ThreadWatched*) override {}
    void TaskWatch() override {}
    void Stop() override {}
};

class TernPool {
public:
    explicit TernPool(unsigned int workers) : mPool(workers, mWatcher, mSignals) { mPool.Start(); }
    template <typename Job>
    void Queue(const Job& job) {
        mPool.QueueJob(job);
    }

private:
    NoWatcher mWatcher;
    mwl::Threading::Signals mSignals;
    mwl::Threading::ThreadPool::ThreadPool mPool;
};

#ifdef TERN_HAVE_BOOST
class AsioPool {
public:
    explicit AsioPool(unsigned int workers) : mPool(workers) {}
    ~AsioPool() { mPool.join(); }
    template <typename Job>
    void Queue(const Job& job) {
        boost::asio::post(mPool, job);
    }

private:
    boost::asio::thread_pool mPool;
};
#endif

#ifdef TERN_HAVE_TBB
class TbbPool {
public:
    // No slot is kept for the callers: only workers run jobs, as in the others.
    explicit TbbPool(unsigned int workers)
        : mLimit(tbb::global_control::max_allowed_parallelism, workers + 1),
          mArena(static_cast<int>(workers), 0) {}
    template <typename Job>
    void Queue(const Job& job) {
        mArena.enqueue(job);
    }

private:
    // One more than workers, because it counts a caller; without it the arena gets no more than there are
    // cores.
    tbb::global_control mLimit;
    tbb::task_arena mArena;
};
#endif

constexpr int JOBS = 20000;

/// Queues JOBS jobs from range(0) threads and waits until range(1) workers have run them all.
template <typename Pool>
void BM_QueueAndRun(benchmark::State& state) {
    const auto producers = static_cast<int>(state.range(0));
    Pool pool(static_cast<unsigned int>(state.range(1)));
    std::atomic<int> left{0};
    const auto produce = [&] {
        for (int i = 0; i < JOBS / producers; ++i) {
            pool.Queue([&left] {
                if (left.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                    left.notify_one();
                }
            });
        }
    };
    for (auto _ : state) {
        left = JOBS;
        std::vector<std::thread> others;
        for (int i = 1; i < producers; ++i) {
            others.emplace_back(produce);
        }
        produce();
        for (std::thread& other : others) {
            other.join();
        }
        for (int now = left; now != 0; now = left) {
            left.wait(now);
        }
    }
    state.SetItemsProcessed(state.iterations() * JOBS);
}

/// One job at a time: queueing, waking a worker, running, waking the caller.
template <typename Pool>
void BM_RoundTrip(benchmark::State& state) {
    Pool pool(1);
    std::atomic<int> done{0};
    for (auto _ : state) {
        const int before = done;
        pool.Queue([&done] {
            ++done;
            done.notify_one();
        });
        done.wait(before);
    }
}

/// Jobs that wait in the queue before the pool starts, and are run to the last.
void BM_LongQueue(benchmark::State& state) {
    const auto jobs = static_cast<int>(state.range(0));
    for (auto _ : state) {
        NoWatcher watcher;
        mwl::Threading::Signals signals;
        mwl::Threading::ThreadPool::ThreadPool pool(1, watcher, signals);
        std::atomic<int> left{jobs};
        for (int i = 0; i < jobs; ++i) {
            pool.QueueJob([&left] {
                if (left.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                    left.notify_one();
                }
            });
        }
        pool.Start();
        for (int now = left; now != 0; now = left) {
            left.wait(now);
        }
        pool.Stop(false);
    }
}

void Grid(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"producers", "workers"})
        ->ArgsProduct({{1, 4}, {1, 2, 4}})
        ->MeasureProcessCPUTime()
        ->UseRealTime();
}

BENCHMARK(BM_QueueAndRun<TernPool>)->Apply(Grid);
BENCHMARK(BM_RoundTrip<TernPool>)->MeasureProcessCPUTime()->UseRealTime();
#ifdef TERN_HAVE_BOOST
BENCHMARK(BM_QueueAndRun<AsioPool>)->Apply(Grid);
BENCHMARK(BM_RoundTrip<AsioPool>)->MeasureProcessCPUTime()->UseRealTime();
#endif
#ifdef TERN_HAVE_TBB
BENCHMARK(BM_QueueAndRun<TbbPool>)->Apply(Grid);
BENCHMARK(BM_RoundTrip<TbbPool>)->MeasureProcessCPUTime()->UseRealTime();
#endif
BENCHMARK(BM_LongQueue)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
