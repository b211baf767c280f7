#pragma once

#include <tern/queued_processings/executor_interface.h>
#include <tern/synchronizer/subject_interface.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_watcher_interface.h>

#include <atomic>

#include "room.h"

namespace thermostat {

/// The work of the control thread at each wake-up: one step of the room, one measurement to all observers.
/// Watched: when it gets stuck, or is not woken any more, the process is killed and restarted.
class ControlLoop : public mwl::QueuedProcessings::ExecutorInterface {
public:
    /// All outlive the loop.
    ControlLoop(Room& room, mwl::tern::Synchronizer::SubjectInterface& observers,
                mwl::Threading::ThreadsWatcherInterface& watcher);

    mwl::StatusCode Initialize() override;
    void Execute() override;
    void Stop() override;

    /// For trials: the next step never ends, or throws. Any thread.
    void Hang() { mHanging = true; }
    void Fail() { mFailing = true; }

private:
    Room& mRoom;
    mwl::tern::Synchronizer::SubjectInterface& mObservers;
    mwl::Threading::ThreadWatched mWatched;
    std::atomic<bool> mHanging{false};
    std::atomic<bool> mFailing{false};
};

}  // namespace thermostat
