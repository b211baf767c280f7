#include <pthread.h>
#include <tern/foundation/log.h>
#include <tern/timer/short_period_timer.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "timer/posix_timer.h"

// Older C libraries document the member and do not name it.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace mwl::Timer {

namespace {

const std::string LOGGER = "Timer::ShortPeriodTimer";

}  // namespace

/// What one thread touches. It is a co-owner, as it may outlive the timer, and as its starter may be done
/// with the promise before set_value has returned.
struct ShortPeriodTimer::Run {
    bool IsRunning() { return std::atomic_ref(running).load(); }
    bool IsOwnThread() { return std::atomic_ref(threadId).load() == gettid(); }

    std::promise<StatusCode> startUp;
    int threadId = 0;     ///< through std::atomic_ref
    bool running = true;  ///< through std::atomic_ref
    std::atomic<bool> silenced{false};
};

struct ShortPeriodTimer::State {
    State(unsigned int period, bool repeat, std::function<void()> function)
        : signo(SIGRTMIN), periodMs(period), periodic(repeat), callback(std::move(function)) {}

    const int signo;
    const unsigned int periodMs;
    const bool periodic;
    PosixTimer timer;                     ///< guarded by mutex
    std::shared_ptr<Run> run;             ///< of the latest thread; guarded by mutex
    std::unique_ptr<std::thread> thread;  ///< guarded by mutex; joined without it
    const std::function<void()> callback;
    bool armed = false;  ///< an expiry may come, or has come; guarded by mutex
    std::mutex mutex;    ///< never held while waiting for the thread to end
};

ShortPeriodTimer::ShortPeriodTimer(unsigned int periodMs, bool periodic, std::function<void()> callback)
    : mState(std::make_shared<State>(periodMs, periodic, std::move(callback))) {}

ShortPeriodTimer::~ShortPeriodTimer() {
    const std::lock_guard lock(mState->mutex);
    static_cast<void>(mState->timer.Delete());  // there may be none
    if (mState->thread != nullptr && mState->thread->joinable()) {
        // An expiry may be on its way to the thread.
        mState->run->silenced = true;
        mState->thread->detach();
    }
}

StatusCode ShortPeriodTimer::Start() {
    StatusCode status = CreateThread();
    if (status == StatusCode::Ok) {
        status = CreateTimer();
    }
    // Once armed, the callback may run and destroy this timer: nothing may follow.
    return status == StatusCode::Ok ? SetTimerTime() : status;
}

StatusCode ShortPeriodTimer::Stop() {
    const std::shared_ptr<State> state = mState;
    StopThread();
    const std::lock_guard lock(state->mutex);
    if (!state->timer.Exists()) {
        TERN_LOG_ERROR(LOGGER, "ShortPeriodTimer ID is not initialized");
        return StatusCode::Failure;
    }
    const timer_t id = state->timer.GetId();
    if (const int error = state->timer.Delete(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to delete the timer: %d", error);
        return StatusCode::Failure;
    }
    state->armed = false;
    TERN_LOG_TRACE(LOGGER, "Succeeded to stop the timer %p", id);
    return StatusCode::Ok;
}

StatusCode ShortPeriodTimer::ConfigureSigSet(sigset_t* set, int signo) {
    if (sigemptyset(set) != 0 || sigaddset(set, signo) != 0) {
        return StatusCode::Failure;
    }
    // Meant for the calling thread, as Linux has it.
    const int result = sigprocmask(SIG_BLOCK, set, nullptr);  // NOLINT(concurrency-mt-unsafe)
    return result == 0 ? StatusCode::Ok : StatusCode::Failure;
}

// The callback is taken by value, as the signature has it.
void ShortPeriodTimer::ThreadMain(std::promise<StatusCode>& startUp, int& threadId, bool& running,
                                  std::function<void()> callback,  // NOLINT(performance-*)
                                  int signo) {
    const int ownId = gettid();
    std::atomic_ref(threadId).store(ownId);
    TERN_LOG_INFO(LOGGER, "Start timer thread (OS thread id %d)", ownId);
    sigset_t set;
    const StatusCode status = ConfigureSigSet(&set, signo);
    startUp.set_value(status);
    if (status == StatusCode::Ok) {
        const std::atomic_ref<bool> isRunning(running);
        while (isRunning) {
            int signal = 0;
            if (sigwait(&set, &signal) == 0) {
                callback();
            }
        }
    }
    TERN_LOG_INFO(LOGGER, "Exit timer thread, status=%u", static_cast<unsigned int>(status));
}

StatusCode ShortPeriodTimer::CreateThread() {
    const std::shared_ptr<State> state = mState;
    std::unique_lock lock(state->mutex);
    if (state->run != nullptr && state->run->IsRunning()) {
        return StatusCode::Ok;
    }
    if (state->thread != nullptr) {
        // A thread that is ending: it failed to start, or was stopped from its callback. A timer that could
        // not be deleted is still aimed at it.
        static_cast<void>(state->timer.Delete());
        state->armed = false;
        const bool isOwnThread = state->run->IsOwnThread();
        const std::unique_ptr<std::thread> former = std::move(state->thread);
        lock.unlock();
        if (former->joinable()) {
            isOwnThread ? former->detach() : former->join();
        }
        lock.lock();
    }

    TERN_LOG_INFO(LOGGER, "Create timer thread");
    const auto run = std::make_shared<Run>();
    std::future<StatusCode> startUp = run->startUp.get_future();
    auto body = [run, callback = state->callback, signo = state->signo] {
        const auto call = [&] {
            if (!run->silenced) {
                callback();
            }
        };
        ThreadMain(run->startUp, run->threadId, run->running, call, signo);
    };
    state->thread.reset(new (std::nothrow) std::thread(std::move(body)));
    if (state->thread == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Failed to create timer thread");
        return StatusCode::ResourceUnavailable;
    }
    state->run = run;
    const StatusCode status = startUp.get();
    if (status != StatusCode::Ok) {
        std::atomic_ref(run->running).store(false);
        TERN_LOG_ERROR(LOGGER, "Failed to start timer thread, status=%u", static_cast<unsigned int>(status));
        return status;
    }
    TERN_LOG_INFO(LOGGER, "Timer thread started");
    return StatusCode::Ok;
}

StatusCode ShortPeriodTimer::CreateTimer() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (state->timer.Exists()) {
        return StatusCode::Ok;
    }
    sigevent notification{};
    notification.sigev_notify = SIGEV_THREAD_ID;
    notification.sigev_signo = state->signo;
    notification.sigev_value.sival_ptr = this;
    notification.sigev_notify_thread_id = state->run == nullptr ? 0 : std::atomic_ref(state->run->threadId);
    if (const int error = state->timer.Create(notification); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to create a timer: %d", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode ShortPeriodTimer::SetTimerTime() {
    const std::shared_ptr<State> state = mState;
    const std::lock_guard lock(state->mutex);
    if (const int error = state->timer.Arm(state->periodMs, state->periodic); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to start a timer: %d", error);
        return StatusCode::Failure;
    }
    state->armed = state->periodMs > 0;
    return StatusCode::Ok;
}

void ShortPeriodTimer::StopThread() {
    const std::shared_ptr<State> state = mState;
    std::unique_lock lock(state->mutex);
    if (state->thread == nullptr) {
        return;
    }
    TERN_LOG_TRACE(LOGGER, "Stopping timer thread");
    std::atomic_ref(state->run->running).store(false);
    // The thread cannot wait for itself; whoever stops or starts the timer later joins it.
    if (!state->thread->joinable() || state->run->IsOwnThread()) {
        return;
    }
    if (!state->armed) {
        // No expiry will ever wake it: wake it for nothing.
        state->run->silenced = true;
        static_cast<void>(pthread_kill(state->thread->native_handle(), state->signo));  // it may have ended
    }
    lock.unlock();
    state->thread->join();
}

}  // namespace mwl::Timer
