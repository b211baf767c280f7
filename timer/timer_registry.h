#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "timer/timer_calls.h"

namespace mwl::Timer {

/// The timers whose expiries the system may announce, and what is to come of them.
///
/// The system announces an expiry on a thread of its own, which may get to run only after the timer was
/// deleted, its object destroyed, and another one created at the same address. So the expiry carries a token
/// that no two timers share. By it a notification finds its timer here, or nothing.
///
/// Without a thread for it the system drops an expiry and notifies nobody. So there is a guard, one thread of
/// a process that has such timers. Some time after an expiry was due it looks whether the expiry was
/// announced, and otherwise announces it itself, again and again until it gets a thread. It looks twice,
/// because threads that were all stopped, or had no processor for long, go on in any order.
///
/// One per process, never destroyed: notifications may come while the process is leaving. Thread-safe; no
/// lock is held while a callback runs or a message is written.
class TimerRegistry {
public:
    using Clock = std::chrono::steady_clock;  ///< CLOCK_MONOTONIC, as the timers'
    using Token = std::uintptr_t;             ///< 0 is no timer's

    /// The next expiry of a timer.
    struct Expiry {
        Clock::time_point due;
        std::chrono::milliseconds interval;  ///< to the one after it, 0 if there is none
    };

    static TimerRegistry& GetInstance();

    /// Enters a timer. No other timer of the process has had its token (of 2^32 before it, where addresses
    /// have 32 bits). Returns 0 or the error number when the guard cannot be started; then nothing is
    /// entered.
    int Add(std::shared_ptr<TimerCalls> calls, Token& token);
    /// Announcements that come later find nothing; one that has found the timer may still call back. Harmless
    /// for one that is not entered.
    void Remove(Token token);
    /// Notes when the next expiry is due, before the timer is armed; nothing when it is disarmed. Returns
    /// what was expected before, to be put back when arming fails.
    std::optional<Expiry> Expect(Token token, std::optional<Expiry> expiry);

    /// The first expiry of a timer that is armed now; nothing with a period of 0, which disarms.
    static std::optional<Expiry> ExpiryIn(unsigned int periodMs, bool periodic);
    /// The token as it travels with a notification.
    static sigval ToValue(Token token);
    /// The notification function to be given to timer_create(2), with the token as its value. An exception of
    /// the callback ends the process, as on any thread: there is no caller to whom it could go.
    static void Notify(sigval token) noexcept;

private:
    struct Entry {
        std::shared_ptr<TimerCalls> calls;
        std::optional<Expiry> expected;
        /// Of the guard: when it first missed the expiry.
        std::optional<Clock::time_point> missed{};
        /// Of the guard: that it gets no thread was logged.
        bool isTold = false;
        /// It announced the only expiry: should the system still do so, this is not another one.
        bool isServed = false;
        /// Of the expiry that is announced now: since when it was due.
        std::chrono::nanoseconds late{0};
    };
    /// An expiry that was not announced, for the log.
    struct Lost {
        std::chrono::milliseconds late;
        int error;  ///< of making a thread for it
        bool isToBeTold;
    };

    TimerRegistry();
    std::shared_ptr<TimerCalls> Arrive(Token token, std::chrono::nanoseconds& late);
    static void* ServeLost(void* token) noexcept;
    static void Advance(Entry& entry, Clock::time_point now);
    int StartGuard();
    [[noreturn]] void Guard();
    std::optional<Lost> FindLost(Clock::time_point& nextLook);

    std::mutex mMutex;                 ///< guards the rest
    std::condition_variable mEarlier;  ///< the guard must look earlier than it planned
    Clock::time_point mNextLook = Clock::time_point::max();
    pid_t mGuarded = 0;  ///< the process that has the guard: a forked child has not
    Token mLastToken = 0;
    std::unordered_map<Token, Entry> mEntries;
};

}  // namespace mwl::Timer
