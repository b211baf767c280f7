#include <benchmark/benchmark.h>
#include <tern/threading/signals.h>
#include <tern/threading/thread_pool.h>

#ifdef TERN_HAVE_BOOST_ASIO
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
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

#ifdef TERN_HAVE_BOOST_ASIO
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

void Grid(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"producers", "workers"})
        ->ArgsProduct({{1, 4}, {1, 2, 4}})
        ->MeasureProcessCPUTime()
        ->UseRealTime();
}

BENCHMARK(BM_QueueAndRun<TernPool>)->Apply(Grid);
BENCHMARK(BM_RoundTrip<TernPool>)->MeasureProcessCPUTime()->UseRealTime();
#ifdef TERN_HAVE_BOOST_ASIO
BENCHMARK(BM_QueueAndRun<AsioPool>)->Apply(Grid);
BENCHMARK(BM_RoundTrip<AsioPool>)->MeasureProcessCPUTime()->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();
