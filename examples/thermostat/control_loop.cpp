#include "control_loop.h"

#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "measurement.h"

namespace thermostat {

namespace {

/// The watcher looks this often, and takes the loop as stuck after 20 seconds without a step.
constexpr std::chrono::milliseconds WATCH_PERIOD{2000};

}  // namespace

ControlLoop::ControlLoop(Room& room, mwl::tern::Synchronizer::SubjectInterface& observers,
                         mwl::Threading::ThreadsWatcherInterface& watcher)
    : mRoom(room), mObservers(observers), mWatched(watcher, "control") {}

mwl::StatusCode ControlLoop::Initialize() {
    mWatched.StartWatch(WATCH_PERIOD);
    return mwl::StatusCode::Ok;
}

void ControlLoop::Execute() {
    while (mHanging) {
        pause();
    }
    if (mFailing) {
        throw std::runtime_error("the trial of a failing control loop");
    }
    mWatched.NotifyWork();
    const double celsius = mRoom.Step();
    Measurement measurement(celsius, mRoom.IsHeating());
    mObservers.Notify(measurement);
}

void ControlLoop::Stop() {
    mWatched.StopWatch();
}

}  // namespace thermostat
