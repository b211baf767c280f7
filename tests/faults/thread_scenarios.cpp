#include <pthread.h>
#include <tern/queued_processings/component.h>
#include <tern/queued_processings/executor_interface.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>

#include <atomic>
#include <string>

#include "scenarios.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

using mw::tern::StatusCode;

constexpr std::chrono::milliseconds MOMENT{2000 * SLOWNESS};

class CountingExecutor : public mwl::QueuedProcessings::ExecutorInterface {
public:
    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override { ++mRuns; }
    void Stop() override {}
    unsigned Runs() const { return mRuns; }

private:
    std::atomic<unsigned> mRuns{0};
};

void RunQueuedComponent(Stage& stage) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    CountingExecutor executor;
    stage.Sweep([&] {
        mwl::QueuedProcessings::Component component("worker", "worker", monitor, executor);
        const bool started = stage.Accept(component.Start(), "Start");
        if (started) {
            component.WakeUp();
            stage.Expect(WaitUntil([&] { return executor.Runs() > 0 || monitor.HasFailure(); }, MOMENT),
                         "the worker runs");
        }
        component.Stop();
        component.Join();
    });
}

void RunPool(Stage& stage) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    std::atomic<unsigned> done{0};
    if (mwl::Threading::StopSignal::Register() != mwl::StatusCode::Ok) {  // the pool is stopped by it
        return;
    }
    stage.Sweep([&] {
        mwl::Threading::ThreadsWatcher watcher(monitor);
        mwl::Threading::ThreadPool::ThreadPool pool(2, watcher, signals);
        pool.Start();
        for (int i = 0; i < 3; ++i) {
            pool.QueueJob([&] { ++done; });
        }
        stage.Expect(WaitUntil([&] { return done == 3; }, MOMENT), "the jobs are done");
        pool.Stop(true);
    });
}

/// A thread that is watched, and the watch that ends with it.
void RunWatcher(Stage& stage) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    stage.Sweep([&] {
        mwl::Threading::ThreadsWatcher watcher(monitor);
        mwl::Threading::ThreadWatched watched(watcher, "watched");
        watched.StartWatch(std::chrono::milliseconds(5));
        watched.NotifyWork();
        stage.Expect(!watched.IsBlocked(), "the thread does not seem blocked");
        watched.StopWatch();
    });
}

void RunStopSignal(Stage& stage) {
    stage.Sweep([&] {
        if (stage.Accept(mwl::Threading::StopSignal::Register(), "Register")) {
            mwl::Threading::StopSignal::SendToThread(pthread_self());
        }
    });
}

}  // namespace

std::vector<Scenario> ThreadScenarios() {
    return {{"queued-component", RunQueuedComponent},
            {"thread-pool", RunPool},
            {"threads-watcher", RunWatcher},
            {"stop-signal", RunStopSignal}};
}

}  // namespace tern::test
