#pragma once

#include <tern/foundation/component_runtime_interface.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/unique_function.h>

#include <utility>

namespace thermostat {

/// The pool for jobs that would hold the D-Bus thread up, as a member of the extension's group of components.
/// Main thread only, except for Queue.
class JobPool : public mw::tern::ComponentRuntimeInterface {
public:
    /// Both outlive the pool.
    JobPool(mwl::Threading::ThreadsWatcherInterface& watcher, mwl::Threading::SignalsInterface& signals)
        : mPool(2, watcher, signals) {}

    mw::tern::StatusCode Initialize() override { return mw::tern::StatusCode::Ok; }
    mw::tern::StatusCode Start() override {
        mPool.Start();
        return mw::tern::StatusCode::Ok;
    }
    /// Interrupts the system calls of running jobs and waits for them; jobs not begun are dropped.
    mw::tern::StatusCode Stop() override {
        mPool.Stop(true);
        return mw::tern::StatusCode::Ok;
    }
    mw::tern::StatusCode Destroy() override { return mw::tern::StatusCode::Ok; }

    /// Any thread.
    void Queue(mwl::UniqueFunction<void()> job) { mPool.QueueUnique(std::move(job)); }

private:
    mwl::Threading::ThreadPool::ThreadPool mPool;
};

}  // namespace thermostat
