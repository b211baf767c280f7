#pragma once

#include <tern/queued_processings/executor_interface.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_monitor_interface.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace tern::test {

/// An executor that counts its calls and does what the test gives it.
class FakeExecutor : public mwl::QueuedProcessings::ExecutorInterface {
public:
    mwl::StatusCode Initialize() override {
        ++initialized;
        return onInitialize ? onInitialize() : mwl::StatusCode::Ok;
    }
    void Execute() override {
        if (onExecute) {
            onExecute();
        }
        ++executed;
    }
    void Stop() override {
        ++stopped;
        if (onStop) {
            onStop();
        }
    }

    std::function<mwl::StatusCode()> onInitialize;
    std::function<void()> onExecute;
    std::function<void()> onStop;
    std::atomic<int> initialized{0};
    std::atomic<int> executed{0};
    std::atomic<int> stopped{0};
};

/// A monitor that keeps its list and counts what it is told; says nothing and signals nobody.
class FakeMonitor : public mwl::Threading::ThreadsMonitorInterface {
public:
    void AddWorkerThread(mwl::Threading::ThreadManager& thread) override {
        const std::lock_guard lock(mMutex);
        mWorkers.push_back(&thread);
    }
    void RemoveWorkerThread(mwl::Threading::ThreadManager& thread) override {
        const std::lock_guard lock(mMutex);
        ++mRemovals;
        mWorkers.erase(std::remove(mWorkers.begin(), mWorkers.end(), &thread), mWorkers.end());
    }
    void SetDBusThreadId(unsigned long) override {}
    void StopWorkerThreads() override {
        const std::lock_guard lock(mMutex);
        for (mwl::Threading::ThreadManager* worker : mWorkers) {
            worker->Stop();
        }
    }
    void NotifyDBusThreadToStop(bool onFailure) override { (onFailure ? failures : endings)++; }
    void NotifyDBusThreadToStopOnFailure() override { ++failures; }
    bool HasFailure() override { return failures > 0; }

    std::vector<mwl::Threading::ThreadManager*> Workers() const {
        const std::lock_guard lock(mMutex);
        return mWorkers;
    }
    int Removals() const {
        const std::lock_guard lock(mMutex);
        return mRemovals;
    }

    std::atomic<int> failures{0};
    std::atomic<int> endings{0};

private:
    mutable std::mutex mMutex;
    std::vector<mwl::Threading::ThreadManager*> mWorkers;
    int mRemovals = 0;
};

}  // namespace tern::test
