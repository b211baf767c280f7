// From a wake-up to the run that it asks for, and many wake-ups folded into few runs: the component beside a
// loop of the same promises on std::condition_variable.

#include <benchmark/benchmark.h>
#include <tern/queued_processings/component.h>
#include <tern/threading/threads_monitor_interface.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// The processing: notes which request it has seen and when it began.
struct Work {
    void Run() {
        began = Clock::now().time_since_epoch().count();
        done = asked.load();
        ++runs;
    }
    void WaitFor(int request) const {
        while (done != request) {
        }
    }

    std::atomic<int> asked{0};
    std::atomic<int> done{0};
    std::atomic<Clock::rep> began{0};
    std::atomic<std::int64_t> runs{0};
};

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

class WithComponent : private mwl::QueuedProcessings::ExecutorInterface {
public:
    explicit WithComponent(Work& work) : mWork(work) { mComponent.Start(); }
    ~WithComponent() override {
        mComponent.Stop();
        mComponent.Join();
    }
    void WakeUp() { mComponent.WakeUp(); }

private:
    mwl::StatusCode Initialize() override { return mwl::StatusCode::Ok; }
    void Execute() override { mWork.Run(); }
    void Stop() override {}

    Work& mWork;
    NoMonitor mMonitor;
    mwl::QueuedProcessings::Component mComponent{"Bench", "bench", mMonitor, *this};
};

class WithStandardLibrary {
public:
    explicit WithStandardLibrary(Work& work) : mWork(work) {}
    ~WithStandardLibrary() {
        {
            const std::lock_guard lock(mMutex);
            mRunning = false;
        }
        mCondition.notify_one();
        mThread.join();
    }
    void WakeUp() {
        {
            const std::lock_guard lock(mMutex);
            mWoken = true;
        }
        mCondition.notify_one();
    }

private:
    void Loop() {
        while (true) {
            {
                std::unique_lock lock(mMutex);
                mCondition.wait(lock, [this] { return mWoken || !mRunning; });
                mWoken = false;
                if (!mRunning) {
                    return;
                }
            }
            mWork.Run();
        }
    }

    Work& mWork;
    std::mutex mMutex;
    std::condition_variable mCondition;
    bool mWoken = false;
    bool mRunning = true;
    std::thread mThread{[this] { Loop(); }};
};

/// One wake-up of a thread that sleeps, until its processing begins.
template <typename Subject>
void WakeUpToExecution(benchmark::State& state) {
    Work work;
    Subject subject(work);
    std::vector<double> latencies;
    for (auto _ : state) {
        ++work.asked;
        const Clock::time_point start = Clock::now();
        subject.WakeUp();
        work.WaitFor(work.asked);
        const Clock::time_point began{Clock::duration(work.began.load())};
        const std::chrono::duration<double> latency = began - start;
        state.SetIterationTime(latency.count());
        latencies.push_back(latency.count());
        // Back to sleep before the next one.
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_us"] = latencies[latencies.size() / 2] * 1e6;
    state.counters["p99_us"] = latencies[latencies.size() * 99 / 100] * 1e6;
}

/// A burst of wake-ups, until a run has seen the last of them.
template <typename Subject>
void BurstOfWakeUps(benchmark::State& state) {
    constexpr int BURST = 1000;
    Work work;
    Subject subject(work);
    for (auto _ : state) {
        for (int i = 0; i < BURST; ++i) {
            ++work.asked;
            subject.WakeUp();
        }
        work.WaitFor(work.asked);
    }
    state.SetItemsProcessed(state.iterations() * BURST);
    state.counters["runs_per_burst"] =
        static_cast<double>(work.runs) / static_cast<double>(state.iterations());
}

BENCHMARK(WakeUpToExecution<WithComponent>)->UseManualTime()->Iterations(5000)->Unit(benchmark::kMicrosecond);
BENCHMARK(WakeUpToExecution<WithStandardLibrary>)
    ->UseManualTime()
    ->Iterations(5000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BurstOfWakeUps<WithComponent>)->UseRealTime();
BENCHMARK(BurstOfWakeUps<WithStandardLibrary>)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
