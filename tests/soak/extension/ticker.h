#pragma once

#include <tern/queued_processings/executor_interface.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_watcher_interface.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "examples/thermostat/job_pool.h"
#include "folder_watch.h"
#include "jobs.h"
#include "notifying_timer.h"
#include "progress.h"

namespace soak {

/// What the queued component does at each wake-up: sends a number to the D-Bus thread, and now and then gives
/// the pool a job, starts a timer, restarts the folder's watch. Watched by the watcher.
class Ticker : public mwl::QueuedProcessings::ExecutorInterface {
public:
    /// `watchedFolder` exists. Pool, jobs, ticks and watcher outlive the ticker.
    Ticker(std::shared_ptr<Progress> progress, const std::string& watchedFolder, thermostat::JobPool& pool,
           Jobs& jobs, mw::tern::MessagePipe& ticks, mwl::Threading::ThreadsWatcherInterface& watcher);

    mwl::StatusCode Initialize() override;
    void Execute() override;
    void Stop() override;

private:
    void QueueJob();

    const std::shared_ptr<Progress> mProgress;
    thermostat::JobPool& mPool;
    Jobs& mJobs;
    mw::tern::MessagePipe& mTicks;
    mwl::Threading::ThreadWatched mWatched;
    FolderWatch mFolder;
    NotifyingTimer mOnce;
    std::uint64_t mNumber = 0;
    std::atomic<int> mQueued{0};
};

}  // namespace soak
