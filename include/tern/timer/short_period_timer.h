#pragma once

#include <signal.h>
#include <tern/timer/timer_interface.h>

#include <functional>
#include <future>
#include <memory>

namespace mwl::Timer {

/// Runs a callback at a short period on one thread of its own: a POSIX timer on CLOCK_MONOTONIC signals that
/// very thread, which waits for the signal (timer_create(2) with SIGEV_THREAD_ID, sigwait(3)). No thread is
/// created for an expiry, and no signal handler runs.
///
///     ShortPeriodTimer timer(10, true, [&] { ... });  // every 10 ms
///     if (timer.Start() != StatusCode::Ok) { ... }
///     ...
///     timer.Stop();  // returns after the next expiry
///
/// Threads: one thread at a time uses the timer. The callback may use it too, also while that thread is in an
/// operation:
/// - It may destroy its timer. From then on each step of a Start returns Stopping, and Stop still waits until
///   the callback has returned.
/// - It may stop its timer and start it again. The timer's thread then stays.
/// - While a Stop of the owner waits for the thread, Start returns Stopping and changes nothing. So a timer
///   whose callback arms it each time can be stopped as well.
///
/// The callback runs on the timer's thread only, one call at a time. An exception of it ends the process. An
/// empty callback raises std::bad_function_call there. A callback that takes longer than the period misses
/// expiries, and nothing makes up for them.
///
/// The signal is SIGRTMIN. Nothing else in the process may use it. It needs no handler, and its default
/// action is never taken, because it is sent to the timer's thread alone, which blocks it.
///
/// Stop waits until the thread leaves its wait, and only an expiry of the timer makes it leave: so Stop takes
/// up to one period, and the callback runs once more. **For a timer that is not periodic, and whose one
/// expiry has happened, Stop does not return.** End such a timer from inside its callback, or destroy it.
/// When nothing has been armed (the period is 0, or Start failed half-way) Stop returns immediately and the
/// callback does not run. Stop sends no signal and needs none to be free: it returns also when the limit of
/// queued signals is used up (RLIMIT_SIGPENDING, setrlimit(2)), because an armed timer has its own.
///
/// The destructor deletes the timer and does not stop its thread: without Stop the thread remains, waiting,
/// until the process ends. No expiry that comes after the destructor calls back. A callback that has begun,
/// or is just about to, may still run, and what it uses must still exist; the callback itself does.
///
/// A child process inherits neither timer nor thread (fork(2)): what is done there to an object that it has
/// from its parent touches no timer and no thread of its own. There it is like one that was stopped: Stop
/// does not wait and returns Failure, and Start makes both.
class TERN_API ShortPeriodTimer : public TimerInterface {
public:
    /// Keeps the three; there is neither thread nor timer yet. `periodMs` is the period, or the delay unless
    /// `periodic`, in milliseconds; 0 arms nothing, so the callback never runs.
    ShortPeriodTimer(unsigned int periodMs, bool periodic, std::function<void()> callback);
    /// Deletes the timer and detaches a thread that was not joined; see above.
    ~ShortPeriodTimer() override;

    /// CreateThread, CreateTimer, SetTimerTime. A timer that is running is armed again, from now; one that
    /// was stopped starts again. Blocks until the thread runs. After the callback has stopped the timer it
    /// blocks until that callback has returned or has started it again. Ok: armed. Stopping, not logged: the
    /// callback has destroyed the timer meanwhile. Any other: the first failure of the three. Whatever was
    /// created before it is kept until Stop.
    StatusCode Start() override;
    /// StopThread, then deletes the timer. Failure, logged, when there is no timer or it cannot be deleted
    /// (timer_delete(2)); then it is kept. On the timer's own thread it does not wait: the thread ends when
    /// the callback returns.
    StatusCode Stop() override;

    /// Stores the set of signal `signo` alone and blocks it for the calling thread (sigprocmask(2)). Failure
    /// when a step fails; nothing is logged.
    static StatusCode ConfigureSigSet(sigset_t* set, int signo);
    /// The thread's body. Stores the kernel's id of the thread in `threadId`, delivers the start-up status
    /// through the promise, then calls the callback at each signal until it finds `running` false. Both
    /// references are read and written as atomics; all three must outlive the call, and the other side must
    /// touch `running` by std::atomic_ref (or not at all meanwhile).
    static void ThreadMain(std::promise<StatusCode>& startUp, int& threadId, bool& running,
                           std::function<void()> callback, int signo);

    /// First step of Start: starts the thread and waits until it is ready. Ok also when it runs already. The
    /// thread's start-up status when that is not Ok; ResourceUnavailable without memory for the thread
    /// object; Stopping, not logged, while a Stop waits for the thread or when the callback has destroyed the
    /// timer meanwhile; Failure, logged, when a timer that Stop had to keep still cannot be deleted. A thread
    /// that the system refuses leaves as std::system_error; no thread exists then.
    StatusCode CreateThread();
    /// Second step: creates the timer, aimed at the thread. Ok also when there is one. Failure, logged, when
    /// the system refuses (timer_create(2)): without a thread, with a thread that was stopped, and without a
    /// free signal (RLIMIT_SIGPENDING). Stopping as in CreateThread.
    StatusCode CreateTimer();
    /// Third step: arms the timer. Failure, logged, when there is none or it cannot be set
    /// (timer_settime(2)). Stopping as in CreateThread.
    StatusCode SetTimerTime();
    /// Asks the thread to end and waits for it; see above. Does nothing when no thread was created.
    void StopThread();

private:
    struct State;

    // Shared with the thread and with the operations that are running, so that a callback may destroy the
    // timer meanwhile.
    const std::shared_ptr<State> mState;
};

}  // namespace mwl::Timer
