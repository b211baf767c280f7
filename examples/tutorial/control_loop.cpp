#include "control_loop.h"

#include <chrono>

namespace my_thermostat {

mwl::StatusCode ControlLoop::Initialize() {
    mWatched.StartWatch(std::chrono::seconds(2));
    return mwl::StatusCode::Ok;
}

void ControlLoop::Execute() {
    mWatched.NotifyWork();
    mServer.Report(mRoom.Step());
}

}  // namespace my_thermostat
