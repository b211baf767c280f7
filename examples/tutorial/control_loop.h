#pragma once

#include <tern/queued_processings/executor_interface.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_watcher_interface.h>

#include "room.h"
#include "thermostat_server.h"

namespace my_thermostat {

/// What the control thread does each time that it is woken: one step, one measurement.
class ControlLoop : public mwl::QueuedProcessings::ExecutorInterface {
public:
    /// All three outlive the loop.
    ControlLoop(Room& room, ThermostatServer& server, mwl::Threading::ThreadsWatcherInterface& watcher)
        : mRoom(room), mServer(server), mWatched(watcher, "control") {}

    mwl::StatusCode Initialize() override;
    void Execute() override;
    void Stop() override { mWatched.StopWatch(); }

private:
    Room& mRoom;
    ThermostatServer& mServer;
    mwl::Threading::ThreadWatched mWatched;
};

}  // namespace my_thermostat
