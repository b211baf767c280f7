#pragma once

#include <tern/timer/timer_interface.h>

#include <functional>
#include <memory>

namespace mwl::Timer {

/// Runs a callback once after a delay, or periodically, with millisecond resolution: a POSIX timer on
/// CLOCK_MONOTONIC whose expiry is delivered by a thread of the system (SIGEV_THREAD, timer_create(2)).
///
///     Timer timer(1500, false, [&] { ... });  // once, 1.5 s after Start
///     if (timer.Start() != StatusCode::Ok) { ... }
///
/// | operation            | no timer             | timer armed           | expired or disarmed   |
/// |----------------------|----------------------|-----------------------|-----------------------|
/// | Start                | made and armed       | armed again, from now | armed again, from now |
/// | GetTimerActiveStatus | false                | true                  | false                 |
/// | DisarmActiveTimer    | logged, Failure      | disarmed, Ok          | Ok                    |
/// | Stop                 | logged, Failure      | deleted, Ok           | deleted, Ok           |
///
/// Threads: every operation may be called from any thread, the callback's included; none of them blocks. The
/// callback runs on a thread created for each expiry, concurrently with the owner and, when it takes longer
/// than the period, with itself: it synchronises what it touches. It may stop, start or destroy its own
/// timer, also while another thread is in an operation; from then on Start, Create and Execute return
/// Stopping, not logged, and do nothing. An exception of it ends the process. Each expiry costs a thread: for
/// periods of a few milliseconds take `ShortPeriodTimer`.
///
/// At most 32 calls of one timer's callback run at a time. An expiry that comes while they do is dropped; the
/// first one is logged as an error, and their number as a warning when the last call has returned.
///
/// When the system has no thread for an expiry (RLIMIT_NPROC, pids.max), it drops it and reports it to
/// nobody. An expiry that was not announced two seconds after it was due is served then, on a thread of the
/// library's, with a warning; without a thread for it, which is an error in the log, it is tried again every
/// second. So a timer that fires once does so late and not never, and a periodic one whose expiries are all
/// dropped fires about once in two seconds, or once a longer period; the GNU C library loses a small block of
/// memory with each that it drops. Expiries are due whole periods after the start, however late one of them
/// was announced. For this a process that creates a timer keeps one more thread, which waits.
///
/// Those threads have all signals blocked, SIGTERM, SIGINT and the real-time signals included, because the C
/// library creates them so. Threads and child programs that a callback starts inherit the blocked signals:
/// first unblock those that they are to receive (pthread_sigmask(3)).
///
/// Lifetime: Stop and the destructor delete the timer and do not wait. No expiry that is announced after them
/// calls back. A callback that has begun, or whose announcement had already found its timer, may still run,
/// and what it uses must still exist; the callback itself does.
/// A child process does not inherit the timer (fork(2)): an object that it has from its parent has no timer
/// there, and may be started.
///
/// Failures are logged as errors with the number of the failed call, and then change nothing.
class TERN_API Timer : public TimerInterface {
public:
    /// Keeps the three; there is no timer yet. `periodMs` is the delay, or the period if `periodic`, in
    /// milliseconds; 0 arms nothing, so nothing fires. `callback` may be empty.
    Timer(unsigned int periodMs, bool periodic, std::function<void()> callback);
    /// Deletes the timer if there is one.
    ~Timer() override;

    /// Create, then Execute; the first failure is returned. Starting again arms the same timer from now.
    StatusCode Start() override;
    /// Deletes the timer. Failure when there is none, or when it cannot be deleted (timer_delete(2)); then it
    /// is kept.
    StatusCode Stop() override;

    /// Replaces the period (milliseconds) for good, also when it then fails, and starts.
    StatusCode Start(unsigned int periodMs);
    /// Whether an expiry is to come. False also when the system cannot say (timer_gettime(2)), which is
    /// logged.
    bool GetTimerActiveStatus();
    /// Disarms the timer and keeps it, so that the next Start has less to do. An expiry that is already being
    /// announced still runs the callback. Failure when there is no timer or it cannot be set
    /// (timer_settime(2)).
    StatusCode DisarmActiveTimer();

    /// First half of Start: makes the timer. Ok also when there is one already; Failure when the system
    /// refuses it (timer_create(2)), or the process's first one its thread (pthread_create(3)).
    StatusCode Create();
    /// Second half of Start: arms the timer. Failure when there is none or it cannot be set
    /// (timer_settime(2)).
    StatusCode Execute();
    /// Calls the callback, unless it is empty, on the calling thread, to which its exceptions go.
    void Handler();

private:
    struct State;

    // Shared with the operations that are running, so that a callback may destroy the timer while another
    // thread is still returning from Start.
    const std::shared_ptr<State> mState;
};

}  // namespace mwl::Timer
