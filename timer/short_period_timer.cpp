#include <tern/timer/short_period_timer.h>

#include <pthread.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "foundation/known_objects.h"
#include "foundation/tell.h"
#include "platform/static_text.h"
#include "timer/forks.h"
#include "timer/posix_timer.h"

// Older C libraries document the member and do not name it.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::ShortPeriodTimer");

/// The body of a timer's thread. `look` is asked before each wait whether to go on.
template <typename Look, typename Callback>
void ServeExpiries(std::promise<StatusCode>& startUp, int& threadId, const Look& look,
                   const Callback& callback, int signo) {
    const int ownId = gettid();
    std::atomic_ref(threadId).store(ownId);
    TERN_LOG_INFO(LOGGER, "Start timer thread (OS thread id %d)", ownId);
    sigset_t set;
    const StatusCode status = ShortPeriodTimer::ConfigureSigSet(&set, signo);
    startUp.set_value(status);
    if (status == StatusCode::Ok) {
        while (look()) {
            int signal = 0;
            if (sigwait(&set, &signal) == 0) {
                callback();
            }
        }
    }
    TERN_LOG_INFO(LOGGER, "Exit timer thread, status=%u", static_cast<unsigned int>(status));
}

}  // namespace

// clang-format off
/// All that the timer is. Its thread is a co-owner, because it may outlive the timer.
///
/// There is one thread at most, and a new one only when the former has ended. The phase says what becomes of
/// the thread. The last three phases are of a timer that its callback has destroyed, perhaps while its owner
/// was in an operation, which then still comes by.
///
/// | phase     | thread                                                                             |
/// |-----------|------------------------------------------------------------------------------------|
/// | Idle      | none, or one that has ended and is to be joined                                    |
/// | Running   | waits until the timer is armed, then for its expiries, and calls back at each      |
/// | Leaving   | ends when it looks at the phase next, unless its callback starts it again          |
/// | Stopping  | ends when it looks next; a Stop waits for that, and nothing starts it again        |
/// | Silent    | is perhaps in its callback, and calls back no more                                 |
/// | Finishing | ends when it looks next                                                            |
/// | Gone      | none, or one that takes signals for nothing until the process ends: it is detached |
///
/// | event, next phase     | Idle        | Running  | Leaving   | Stopping  | Silent    | Finishing | Gone    |
/// |-----------------------|-------------|----------|-----------|-----------|-----------|-----------|---------|
/// | owner starts thread   | Running (a) | stays    | waits     | refused   | refused   | refused   | refused |
/// | callback starts it    |             | stays    | Running   | refused   |           |           |         |
/// | owner stops it, waits | stays       | Stopping | Stopping  | stays     | Finishing | stays     | stays   |
/// | callback stops it     |             | Leaving  | stays     | stays     |           |           |         |
/// | timer is destroyed    | Gone        | Silent   | Finishing | Finishing |           |           |         |
/// | thread looks          |             | stays    | it ends   | it ends   | Gone      | it ends   | stays   |
/// | thread has ended      |             |          | Idle      | Idle      |           | Gone      |         |
///
/// (a) Leaving when it could not block the signal: then it ends by itself. The thread looks before each wait
/// for a signal, in Silent that is once after its callback has returned. `refused` is status Stopping, which
/// the last four phases have for every step of Start. In a forked child that the thread has not come into, the
/// phase is Idle, or Gone of a timer that was destroyed.
// clang-format on
struct __attribute__((visibility("hidden"))) ShortPeriodTimer::State : std::enable_shared_from_this<State> {
    State(unsigned int period, bool repeat, std::function<void()> function)
        : signo(SIGRTMIN), periodMs(period), periodic(repeat), callback(std::move(function)) {
        KnownObjects::Add({.object = this,
                           .number = period,
                           .kind = KnownObjects::Kind::ShortPeriodTimer,
                           .isPeriodic = repeat});
    }

    StatusCode CreateThread();
    StatusCode CreateTimer(void* value);
    StatusCode SetTimerTime();
    void StopThread();
    StatusCode DeleteTimer();
    void Abandon();

private:
    enum class Phase { Idle, Running, Leaving, Stopping, Silent, Finishing, Gone };

    void RunThread();
    bool Look();
    std::unique_lock<std::mutex> Lock();
    bool IsOwnThread() const { return thread != nullptr && thread->get_id() == std::this_thread::get_id(); }
    bool IsDestroyed() const {
        return phase == Phase::Silent || phase == Phase::Finishing || phase == Phase::Gone;
    }
    /// Also when the Stop has come between two steps of the callback's Start.
    bool IsRefusing() const { return phase == Phase::Stopping || IsDestroyed(); }
    void Enter(Phase next);
    void ForgetExpiries() const;
    bool TryDeleteTimer();

    const int signo;
    const unsigned int periodMs;
    const bool periodic;
    const std::function<void()> callback;

    // The thread's own until it has delivered its start-up status; replaced when there is none.
    std::promise<StatusCode> startUp;
    int threadId = 0;

    std::mutex mutex;                 ///< guards the rest; never held while waiting for the thread to end
    std::condition_variable changed;  ///< the phase, or the timer was armed
    std::atomic<Phase> phase{Phase::Idle};  ///< written under the mutex
    PosixTimer timer;                       ///< one that exists is aimed at the thread
    std::unique_ptr<std::thread> thread;    ///< stays when it was joined, until the next one
    unsigned int forks = Forks::Count();    ///< of the process that has the thread
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
    // For the calling thread alone, as on Linux.
    const int result = sigprocmask(SIG_BLOCK, set, nullptr);  // NOLINT(concurrency-mt-unsafe)
    return result == 0 ? StatusCode::Ok : StatusCode::Failure;
}

// The callback is taken by value. Fixed by the interface.
void ShortPeriodTimer::ThreadMain(std::promise<StatusCode>& startUp, int& threadId, bool& running,
                                  std::function<void()> callback,  // NOLINT(performance-*)
                                  int signo) {
    const std::atomic_ref<bool> isRunning(running);
    ServeExpiries(
        startUp, threadId, [isRunning] { return isRunning.load(); }, callback, signo);
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
    std::unique_lock lock = Lock();
    if (phase == Phase::Leaving) {
        if (IsOwnThread()) {
            ForgetExpiries();
            Enter(Phase::Running);
        } else {
            changed.wait(lock, [this] { return phase != Phase::Leaving; });
        }
    }
    if (phase == Phase::Running) {
        return StatusCode::Ok;
    }
    if (phase != Phase::Idle) {
        return StatusCode::Stopping;
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
    std::future<StatusCode> started = startUp.get_future();
    thread.reset(new (std::nothrow) std::thread([self = shared_from_this()] { self->RunThread(); }));
    if (thread == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Failed to create timer thread");
        return StatusCode::ResourceUnavailable;
    }
    const StatusCode status = started.get();
    if (status != StatusCode::Ok) {
        Enter(Phase::Leaving);
        TERN_LOG_ERROR(LOGGER, "Failed to start timer thread, status=%u", static_cast<unsigned int>(status));
        return status;
    }
    Enter(Phase::Running);
    TERN_LOG_INFO(LOGGER, "Timer thread started");
    return StatusCode::Ok;
}

void ShortPeriodTimer::State::RunThread() {
    const auto look = [this] { return Look(); };
    const auto call = [this] {
        // Silent or Gone: an expiry was on its way when the timer was destroyed.
        if (const Phase now = phase; now != Phase::Silent && now != Phase::Gone) {
            TERN_TELL(TimerBegan, timer_began, this, 0);
            callback();
            TERN_TELL(TimerEnded, timer_ended, this, 0);
        }
    };
    ServeExpiries(startUp, threadId, look, call, signo);
    const std::lock_guard lock(mutex);
    Enter(IsDestroyed() ? Phase::Gone : Phase::Idle);
}

/// The thread's look at the phase. It goes to wait for a signal only when one may come: what has not armed a
/// timer can be stopped without any, also by a process that may send none (RLIMIT_SIGPENDING).
bool ShortPeriodTimer::State::Look() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return phase != Phase::Running || timer.IsArmed(); });
    if (phase == Phase::Silent) {
        Enter(Phase::Gone);
    }
    return phase == Phase::Running || phase == Phase::Gone;
}

/// The mutex, locked, for an operation of the timer. In a forked child nobody is left who held it or waited,
/// and the thread is not there: its id, by which it would be joined or detached, may be that of another by
/// now.
std::unique_lock<std::mutex> ShortPeriodTimer::State::Lock() {
    if (forks != Forks::Count()) {
        forks = Forks::Count();
        new (&mutex) std::mutex;
        new (&changed) std::condition_variable;
        if (thread != nullptr && !Forks::HasCome(thread->native_handle())) {
            static_cast<void>(thread.release());
            phase = IsDestroyed() ? Phase::Gone : Phase::Idle;
        }
    }
    return std::unique_lock(mutex);
}

void ShortPeriodTimer::State::Enter(Phase next) {
    phase = next;
    changed.notify_all();
}

/// On the thread: those that are on their way were of the timer that its callback has stopped.
void ShortPeriodTimer::State::ForgetExpiries() const {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    const timespec now{};
    while (sigtimedwait(&set, nullptr, &now) == signo) {
    }
}

StatusCode ShortPeriodTimer::State::CreateTimer(void* value) {
    const std::unique_lock lock = Lock();
    if (IsRefusing()) {
        return StatusCode::Stopping;
    }
    if (timer.Exists()) {
        return StatusCode::Ok;
    }
    sigevent notification{};
    notification.sigev_notify = SIGEV_THREAD_ID;
    notification.sigev_signo = signo;
    notification.sigev_value.sival_ptr = value;
    notification.sigev_notify_thread_id = phase == Phase::Running ? threadId : 0;
    if (const int error = timer.Create(notification); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to create a timer: %d", error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

StatusCode ShortPeriodTimer::State::SetTimerTime() {
    const std::unique_lock lock = Lock();
    if (IsRefusing()) {
        return StatusCode::Stopping;
    }
    if (const int error = timer.Arm(periodMs, periodic); error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to start a timer: %d", error);
        return StatusCode::Failure;
    }
    changed.notify_all();
    return StatusCode::Ok;
}

void ShortPeriodTimer::State::StopThread() {
    std::unique_lock lock = Lock();
    if (thread == nullptr) {
        return;
    }
    TERN_LOG_TRACE(LOGGER, "Stopping timer thread");
    if (IsOwnThread()) {
        if (phase == Phase::Running) {
            Enter(Phase::Leaving);  // it ends when the callback returns
        }
        return;
    }
    if (phase == Phase::Running || phase == Phase::Leaving) {
        Enter(Phase::Stopping);
    } else if (phase == Phase::Silent) {
        Enter(Phase::Finishing);
    }
    changed.wait(lock, [this] { return phase != Phase::Stopping && phase != Phase::Finishing; });
    if (phase == Phase::Idle && thread->joinable()) {
        thread->join();
    }
}

StatusCode ShortPeriodTimer::State::DeleteTimer() {
    const std::unique_lock lock = Lock();
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
    return true;
}

void ShortPeriodTimer::State::Abandon() {
    const std::unique_lock lock = Lock();
    static_cast<void>(timer.Delete());  // there may be none
    KnownObjects::Remove(KnownObjects::Kind::ShortPeriodTimer, this);
    if (thread != nullptr && thread->joinable()) {
        thread->detach();
    }
    Enter(phase == Phase::Idle ? Phase::Gone : phase == Phase::Running ? Phase::Silent : Phase::Finishing);
}

}  // namespace mwl::Timer
