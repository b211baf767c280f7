#include <pthread.h>
#include <tern/foundation/log.h>
#include <tern/timer/short_period_timer.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "platform/static_text.h"
#include "timer/posix_timer.h"

// Older C libraries document the member and do not name it.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::ShortPeriodTimer");

}  // namespace

/// All that the timer is. Its thread is a co-owner, as it may outlive the timer.
///
/// There is one thread at most, and a new one only when the former has ended: it says so (isAlive) as the
/// last thing it does. Whoever waits for it waits for that, on `changed`, with the lock let go; the thread
/// object is touched, joined and detached with the lock held. A POSIX timer that exists is aimed at that
/// thread.
struct __attribute__((visibility("hidden"))) ShortPeriodTimer::State : std::enable_shared_from_this<State> {
    State(unsigned int period, bool repeat, std::function<void()> function)
        : signo(SIGRTMIN), periodMs(period), periodic(repeat), callback(std::move(function)) {}

    StatusCode CreateThread();
    StatusCode CreateTimer(void* value);
    StatusCode SetTimerTime();
    void StopThread();
    StatusCode DeleteTimer();
    void Abandon();

private:
    void RunThread();
    bool IsOwnThread() const { return thread != nullptr && thread->get_id() == std::this_thread::get_id(); }
    bool IsRunning() { return isAlive && std::atomic_ref(running).load(); }
    bool IsStopping() const { return isAbandoned || waitingStops > 0; }
    void GoOn();
    bool TryDeleteTimer();

    const int signo;
    const unsigned int periodMs;
    const bool periodic;
    const std::function<void()> callback;

    // The thread's own; replaced when there is none.
    std::promise<StatusCode> startUp;
    int threadId = 0;     ///< through std::atomic_ref
    bool running = true;  ///< through std::atomic_ref
    std::atomic<bool> silenced{false};

    std::mutex mutex;                 ///< guards the rest; never held while waiting for the thread to end
    std::condition_variable changed;  ///< the thread has ended or goes on, or the timer is abandoned
    PosixTimer timer;
    std::unique_ptr<std::thread> thread;  ///< stays when it was joined, until the next one
    bool isAlive = false;
    bool isAbandoned = false;  ///< the timer was destroyed
    int waitingStops = 0;
    bool armed = false;  ///< an expiry may come, or has come
};

ShortPeriodTimer::ShortPeriodTimer(unsigned int periodMs, bool periodic, std::function<void()> callback)
    : mState(std::make_shared<State>(periodMs, periodic, std::move(callback))) {}

ShortPeriodTimer::~ShortPeriodTimer() {
    mState->Abandon();
}

// The callback may destroy this timer while another thread is in an operation: each holds the state, and
// nothing else of the timer is touched.

StatusCode ShortPeriodTimer::Start() {
    const std::shared_ptr<State> state = mState;
    StatusCode status = state->CreateThread();
    if (status == StatusCode::Ok) {
        status = state->CreateTimer(this);
    }
    return status == StatusCode::Ok ? state->SetTimerTime() : status;
}

StatusCode ShortPeriodTimer::Stop() {
    const std::shared_ptr<State> state = mState;
    state->StopThread();
    return state->DeleteTimer();
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
    return std::shared_ptr(mState)->CreateThread();
}

StatusCode ShortPeriodTimer::CreateTimer() {
    return std::shared_ptr(mState)->CreateTimer(this);
}

StatusCode ShortPeriodTimer::SetTimerTime() {
    return std::shared_ptr(mState)->SetTimerTime();
}

void ShortPeriodTimer::StopThread() {
    std::shared_ptr(mState)->StopThread();
}

StatusCode ShortPeriodTimer::State::CreateThread() {
    std::unique_lock lock(mutex);
    for (;;) {
        if (IsStopping()) {
            return StatusCode::Stopping;
        }
        if (!isAlive) {
            break;
        }
        if (IsRunning()) {
            return StatusCode::Ok;
        }
        if (IsOwnThread()) {
            GoOn();
        } else {
            // It failed to start, or was stopped from its callback, which may also start it again.
            changed.wait(lock);
        }
    }

    if (thread != nullptr && thread->joinable()) {
        thread->join();
    }
    thread.reset();
    if (timer.Exists() && !TryDeleteTimer()) {
        return StatusCode::Failure;
    }
    TERN_LOG_INFO(LOGGER, "Create timer thread");
    startUp = std::promise<StatusCode>();
    std::atomic_ref(running).store(true);
    silenced = false;
    std::future<StatusCode> started = startUp.get_future();
    thread.reset(new (std::nothrow) std::thread([self = shared_from_this()] { self->RunThread(); }));
    if (thread == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Failed to create timer thread");
        return StatusCode::ResourceUnavailable;
    }
    isAlive = true;
    const StatusCode status = started.get();
    if (status != StatusCode::Ok) {
        std::atomic_ref(running).store(false);
        TERN_LOG_ERROR(LOGGER, "Failed to start timer thread, status=%u", static_cast<unsigned int>(status));
        return status;
    }
    TERN_LOG_INFO(LOGGER, "Timer thread started");
    return StatusCode::Ok;
}

/// The thread's callback starts what it has stopped: the thread stays.
void ShortPeriodTimer::State::GoOn() {
    // Expiries that are on their way were those of the timer that was stopped.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    const timespec now{};
    while (sigtimedwait(&set, nullptr, &now) == signo) {
    }
    std::atomic_ref(running).store(true);
    changed.notify_all();
}

void ShortPeriodTimer::State::RunThread() {
    const auto call = [this] {
        if (!silenced) {
            callback();
        }
    };
    ThreadMain(startUp, threadId, running, call, signo);
    const std::lock_guard lock(mutex);
    isAlive = false;
    changed.notify_all();
}

StatusCode ShortPeriodTimer::State::CreateTimer(void* value) {
    const std::lock_guard lock(mutex);
    if (timer.Exists()) {
        return StatusCode::Ok;
    }
    sigevent notification{};
    notification.sigev_notify = SIGEV_THREAD_ID;
    notification.sigev_signo = signo;
    notification.sigev_value.sival_ptr = value;
    notification.sigev_notify_thread_id = IsRunning() ? std::atomic_ref(threadId).load() : 0;
    if (const int error = timer.Create(notification); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to create a timer: %d", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode ShortPeriodTimer::State::SetTimerTime() {
    const std::lock_guard lock(mutex);
    if (const int error = timer.Arm(periodMs, periodic); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to start a timer: %d", error);
        return StatusCode::Failure;
    }
    armed = periodMs > 0;
    return StatusCode::Ok;
}

void ShortPeriodTimer::State::StopThread() {
    std::unique_lock lock(mutex);
    if (thread == nullptr) {
        return;
    }
    TERN_LOG_TRACE(LOGGER, "Stopping timer thread");
    const bool wasRunning = std::atomic_ref(running).exchange(false);
    if (IsOwnThread()) {
        return;  // it ends when the callback returns
    }
    if (wasRunning && !armed) {
        // No expiry will ever wake it: wake it for nothing.
        silenced = true;
        static_cast<void>(pthread_kill(thread->native_handle(), signo));  // it may have ended
    }
    ++waitingStops;
    changed.wait(lock, [this] { return !isAlive; });
    --waitingStops;
    if (thread->joinable()) {
        thread->join();
    }
}

StatusCode ShortPeriodTimer::State::DeleteTimer() {
    const std::lock_guard lock(mutex);
    if (!timer.Exists()) {
        TERN_LOG_ERROR(LOGGER, "ShortPeriodTimer ID is not initialized");
        return StatusCode::Failure;
    }
    const timer_t id = timer.GetId();
    if (!TryDeleteTimer()) {
        return StatusCode::Failure;
    }
    TERN_LOG_TRACE(LOGGER, "Succeeded to stop the timer %p", id);
    return StatusCode::Ok;
}

bool ShortPeriodTimer::State::TryDeleteTimer() {
    if (const int error = timer.Delete(); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to delete the timer: %d", error);
        return false;
    }
    armed = false;
    return true;
}

void ShortPeriodTimer::State::Abandon() {
    const std::lock_guard lock(mutex);
    isAbandoned = true;
    static_cast<void>(timer.Delete());  // there may be none
    if (thread != nullptr && thread->joinable()) {
        silenced = true;  // an expiry may be on its way to the thread
        thread->detach();
    }
    changed.notify_all();
}

}  // namespace mwl::Timer
