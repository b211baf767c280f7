#include <tern/foundation/log.h>
#include <tern/timer/timer.h>

#include <mutex>
#include <string>
#include <utility>

#include "platform/static_text.h"
#include "timer/posix_timer.h"
#include "timer/timer_registry.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Timer");

}  // namespace

struct Timer::State {
    State(unsigned int period, bool repeat, std::function<void()> function)
        : callback(std::move(function)), periodMs(period), periodic(repeat) {}

    const std::function<void()> callback;
    unsigned int periodMs;  ///< guarded by mutex
    const bool periodic;
    PosixTimer timer;  ///< guarded by mutex
    std::mutex mutex;  ///< taken before the registry's
};

Timer::Timer(unsigned int periodMs, bool periodic, std::function<void()> callback)
    : mState(std::make_shared<State>(periodMs, periodic, std::move(callback))) {}

Timer::~Timer() {
    const std::lock_guard lock(mState->mutex);
    TimerRegistry::GetInstance().Remove(this);
    static_cast<void>(mState->timer.Delete());  // there may be none
}

StatusCode Timer::Start() {
    const StatusCode status = Create();
    // From here on the callback may run, and destroy this timer: nothing may follow.
    return status == StatusCode::Ok ? Execute() : status;
}

StatusCode Timer::Stop() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (!state->timer.Exists()) {
        TERN_LOG_ERROR(LOGGER, "%s: Timer ID is not initiated", "Stop");
        return StatusCode::Failure;
    }
    if (const int error = state->timer.Delete(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to delete the timer: %d", "Stop", error);
        return StatusCode::Failure;
    }
    TimerRegistry::GetInstance().Remove(this);
    return StatusCode::Ok;
}

StatusCode Timer::Start(unsigned int periodMs) {
    {
        const std::lock_guard lock(mState->mutex);
        mState->periodMs = periodMs;
    }
    return Start();
}

bool Timer::GetTimerActiveStatus() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (!state->timer.Exists()) {
        return false;
    }
    timespec remaining{};
    if (const int error = state->timer.GetRemaining(remaining); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to get the timer: %d", "GetTimerActiveStatus", error);
        return false;
    }
    return remaining.tv_nsec > 0 || remaining.tv_sec >= 1;
}

StatusCode Timer::DisarmActiveTimer() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (const int error = state->timer.Disarm(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to disarm the timer %p, error %d", "DisarmActiveTimer",
                       state->timer.GetId(), error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode Timer::Create() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (state->timer.Exists()) {
        return StatusCode::Ok;
    }
    TimerRegistry& registry = TimerRegistry::GetInstance();
    sigevent notification{};
    notification.sigev_notify = SIGEV_THREAD;
    notification.sigev_value.sival_ptr = this;
    notification.sigev_notify_function =
        registry.Add(this, std::shared_ptr<const std::function<void()>>(state, &state->callback));
    if (const int error = state->timer.Create(notification); error != 0) {
        registry.Remove(this);
        TERN_LOG_ERROR(LOGGER, "%s: Failed to create a timer: %d", "Create", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode Timer::Execute() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (const int error = state->timer.Arm(state->periodMs, state->periodic); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to Execute a timer: %d", "Execute", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

void Timer::Handler() {
    const std::shared_ptr<State> state = mState;
    if (state->callback) {
        state->callback();
    }
}

}  // namespace mwl::Timer
