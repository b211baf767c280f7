#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace tern::schedules {

/// What is wrong with a toy; None for the sound one.
enum class Flaw {
    None,
    NoNotify,            ///< the value is put in and nobody told
    FlagOutsideLock,     ///< the flag is set and told without the mutex: between test and wait
    NotifyOne,           ///< one is told where all have to know
    IfInsteadOfWhile,    ///< the condition is not looked at again
    CheckedOutsideLock,  ///< looked at, and taken later
    TimeOutIsSuccess,    ///< what a wait says is taken for the condition
    OrderInverted,       ///< two mutexes in two orders
    CallbackUnderLock,   ///< the user's code comes back
    JoinedTwice,         ///< by two who both may stop it
    UsedAfterEnd,        ///< by a thread that nobody waited for
    StopForgotten,       ///< the thread sets "running" itself
    StopNotTold,         ///< the flag is set; only the time-out of the wait helps
    SignalMissed,        ///< flag looked at, then poll(2)
    DestroyedWhileWaiting,
    ReaderGone,  ///< a writer waits for room that nobody makes
};

/// A place for one value that is put in by one thread and taken by others.
template <Flaw FLAW>
class Box {
public:
    void Put(int value) {
        if constexpr (FLAW == Flaw::FlagOutsideLock) {
            mCount += value;
        } else {
            const std::lock_guard lock(mMutex);
            mCount += value;
        }
        if constexpr (FLAW == Flaw::NotifyOne) {
            mChanged.notify_one();
        } else if constexpr (FLAW != Flaw::NoNotify) {
            mChanged.notify_all();
        }
    }

    /// Waits for a value and takes one away.
    bool Take() {
        std::unique_lock lock(mMutex);
        if constexpr (FLAW == Flaw::IfInsteadOfWhile) {
            if (mCount == 0) {
                mChanged.wait(lock);
            }
        } else if constexpr (FLAW == Flaw::CheckedOutsideLock) {
            mChanged.wait(lock, [this] { return mCount > 0; });
            lock.unlock();
            lock.lock();
        } else if constexpr (FLAW == Flaw::TimeOutIsSuccess) {
            while (mCount == 0) {
                if (mChanged.wait_for(lock, std::chrono::seconds(1)) == std::cv_status::timeout) {
                    break;
                }
            }
        } else {
            mChanged.wait(lock, [this] { return mCount > 0; });
        }
        --mCount;
        return mCount >= 0;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mCount = 0;
};

}  // namespace tern::schedules
