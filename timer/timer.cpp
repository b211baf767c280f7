#include <tern/timer/timer.h>

#include <tern/foundation/log.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <utility>

#include "foundation/known_objects.h"
#include "platform/static_text.h"
#include "timer/posix_timer.h"
#include "timer/timer_calls.h"
#include "timer/timer_registry.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Timer");

}  // namespace

/// All that the timer is. The operations that are running are co-owners, because the callback may destroy the
/// timer meanwhile.
///
/// | POSIX timer      | Create, then Execute in Start | Stop    | timer destroyed | an expiry announced |
/// |------------------|-------------------------------|---------|-----------------|---------------------|
/// | none             | made under a new token; fails | fails   | none any more   | finds no token      |
/// | exists           | kept; armed                   | deleted | deleted         | calls back          |
/// | none any more    | status Stopping; the same     | fails   |                 | finds no token      |
struct Timer::State {
    State(unsigned int period, bool repeat, std::function<void()> callback)
        : calls(std::make_shared<TimerCalls>(std::move(callback))), periodic(repeat), periodMs(period) {
        KnownObjects::Add({.object = calls.get(),
                           .number = period,
                           .kind = KnownObjects::Kind::Timer,
                           .isPeriodic = repeat});
    }

    StatusCode Start(std::optional<unsigned int> newPeriodMs);
    StatusCode Create();
    StatusCode Execute();
    StatusCode Stop();
    bool IsActive();
    StatusCode Disarm();
    void Abandon();

    const std::shared_ptr<TimerCalls> calls;

private:
    StatusCode CreateLocked();
    StatusCode ExecuteLocked();

    const bool periodic;
    std::mutex mutex;  ///< guards the rest; taken before the registry's
    unsigned int periodMs;
    PosixTimer timer;
    TimerRegistry::Token token = 0;  ///< of the timer that exists, else 0
    bool isDestroyed = false;
};

Timer::Timer(unsigned int periodMs, bool periodic, std::function<void()> callback)
    : mState(std::make_shared<State>(periodMs, periodic, std::move(callback))) {}

Timer::~Timer() {
    mState->Abandon();
}

// Each operation holds the state and touches nothing else of the timer, which the callback may destroy.

StatusCode Timer::Start() {
    return std::shared_ptr(mState)->Start(std::nullopt);
}

StatusCode Timer::Stop() {
    return std::shared_ptr(mState)->Stop();
}

StatusCode Timer::Start(unsigned int periodMs) {
    return std::shared_ptr(mState)->Start(periodMs);
}

bool Timer::GetTimerActiveStatus() {
    return std::shared_ptr(mState)->IsActive();
}

StatusCode Timer::DisarmActiveTimer() {
    return std::shared_ptr(mState)->Disarm();
}

StatusCode Timer::Create() {
    return std::shared_ptr(mState)->Create();
}

StatusCode Timer::Execute() {
    return std::shared_ptr(mState)->Execute();
}

void Timer::Handler() {
    std::shared_ptr(mState->calls)->Call(std::chrono::nanoseconds(0));
}

// Each of these holds the state's mutex from its first look to its last change, so that others see it done or
// not begun. The registry's mutex is taken inside of it, never the other way round: an announcement takes the
// registry's alone, and calls back with none held. That is why the callback may call every operation.
//
// An expiry may be announced between any two lines below. The registry and the system are changed in the
// order in which a failure half-way leaves them agreed: Create enters the token that the notification
// carries, then creates; Execute says what to expect, then arms; Disarm and Stop ask the system first, since
// a timer that it refused to stop still fires and must find its token. Only the destructor begins with the
// registry: nothing may call back any more, whatever the system says.

StatusCode Timer::State::Start(std::optional<unsigned int> newPeriodMs) {
    const std::lock_guard lock(mutex);  // one for both halves: no Stop comes between them
    periodMs = newPeriodMs.value_or(periodMs);
    const StatusCode status = CreateLocked();
    return status == StatusCode::Ok ? ExecuteLocked() : status;
}

StatusCode Timer::State::Create() {
    const std::lock_guard lock(mutex);
    return CreateLocked();
}

StatusCode Timer::State::CreateLocked() {
    // An operation that gets the mutex after the destructor: nobody would take out what it enters.
    if (isDestroyed) {
        return StatusCode::Stopping;
    }
    if (timer.Exists()) {
        return StatusCode::Ok;
    }
    TimerRegistry& registry = TimerRegistry::GetInstance();
    registry.Remove(std::exchange(token, 0));  // of a timer that was lost by a fork
    int error = registry.Add(calls, token);
    if (error == 0) {
        sigevent notification{};
        notification.sigev_notify = SIGEV_THREAD;
        notification.sigev_value = TimerRegistry::ToValue(token);
        notification.sigev_notify_function = &TimerRegistry::Notify;
        error = timer.Create(notification);
        if (error != 0) {
            // Token and timer come and go together.
            registry.Remove(std::exchange(token, 0));
        }
    }
    if (error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to create a timer: %d", "Create", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode Timer::State::Execute() {
    const std::lock_guard lock(mutex);
    return ExecuteLocked();
}

StatusCode Timer::State::ExecuteLocked() {
    if (isDestroyed) {
        return StatusCode::Stopping;
    }
    // Before it is armed: an expiry that comes before the call returns has to find itself expected. Entered
    // behind it, one that was served would look lost, and the guard would serve it once more.
    TimerRegistry& registry = TimerRegistry::GetInstance();
    const auto former = registry.Expect(token, TimerRegistry::ExpiryIn(periodMs, periodic));
    if (const int error = timer.Arm(periodMs, periodic); error != 0) {
        // The system keeps the time that was set before, and so does the guard.
        static_cast<void>(registry.Expect(token, former));
        TERN_LOG_ERROR(LOGGER, "%s: Failed to Execute a timer: %d", "Execute", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode Timer::State::Stop() {
    const std::lock_guard lock(mutex);
    if (!timer.Exists()) {
        TERN_LOG_ERROR(LOGGER, "%s: Timer ID is not initiated", "Stop");
        return StatusCode::Failure;
    }
    if (const int error = timer.Delete(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to delete the timer: %d", "Stop", error);
        return StatusCode::Failure;
    }
    // An expiry that is announced from here on finds nothing. One that has found the timer before may be
    // calling back: nobody waits for it, because it may be on this very thread.
    TimerRegistry::GetInstance().Remove(std::exchange(token, 0));
    return StatusCode::Ok;
}

bool Timer::State::IsActive() {
    const std::lock_guard lock(mutex);
    if (!timer.Exists()) {
        return false;
    }
    timespec remaining{};
    if (const int error = timer.GetRemaining(remaining); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to get the timer: %d", "GetTimerActiveStatus", error);
        return false;
    }
    return remaining.tv_nsec > 0 || remaining.tv_sec >= 1;
}

StatusCode Timer::State::Disarm() {
    const std::lock_guard lock(mutex);
    if (const int error = timer.Disarm(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "%s: Failed to disarm the timer %p, error %d", "DisarmActiveTimer",
                       timer.GetId(), error);
        return StatusCode::Failure;
    }
    // Only now: an expiry that was not cancelled stays expected, and is served late if it gets lost.
    static_cast<void>(TimerRegistry::GetInstance().Expect(token, std::nullopt));
    return StatusCode::Ok;
}

void Timer::State::Abandon() {
    const std::lock_guard lock(mutex);
    isDestroyed = true;
    TimerRegistry::GetInstance().Remove(token);
    static_cast<void>(timer.Delete());  // there may be none
    // Here and not when the state goes: an operation under way may keep that for longer.
    KnownObjects::Remove(KnownObjects::Kind::Timer, calls.get());
}

}  // namespace mwl::Timer
