#pragma once

#include <signal.h>
#include <time.h>

namespace mwl::Timer {

/// Owner of one POSIX timer on CLOCK_MONOTONIC (timer_create(2)). A flag beside the id says whether it
/// exists, because the id of an existing timer can be null.
///
/// Each operation returns 0 or the error number, and leaves everything as it was when it fails; without a
/// timer that is EINVAL, and the system is not called. Thread-safety: one thread at a time.
///
/// A forked child has none of its parent's timers, so there is none then: what has the id in the child is
/// another timer, of the child's own.
class PosixTimer {
public:
    PosixTimer() = default;
    ~PosixTimer();
    PosixTimer(const PosixTimer&) = delete;
    PosixTimer& operator=(const PosixTimer&) = delete;

    bool Exists() const;
    /// Null as long as there is none.
    timer_t GetId() const { return mId; }
    /// An expiry may come, or has come.
    bool IsArmed() const { return mIsArmed; }

    /// Makes the timer, not yet armed. REQUIRES: there is none.
    int Create(sigevent& notification);
    /// The first expiry comes `periodMs` from now, and further ones every `periodMs` if `periodic`. A period
    /// of 0 disarms.
    int Arm(unsigned int periodMs, bool periodic);
    int Disarm();
    /// Stores the time to the next expiry, zero when there is none to come.
    int GetRemaining(timespec& remaining) const;
    int Delete();

private:
    int SetTime(const itimerspec& time);

    timer_t mId = nullptr;
    bool mExists = false;
    unsigned int mForks = 0;  ///< at its creation
    bool mIsArmed = false;
};

}  // namespace mwl::Timer
