#include "timer/timer_registry.h"

#include <pthread.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

#include "platform/static_text.h"

namespace mwl::Timer {

namespace {

const StaticText LOGGER("Timer::Timer");

/// From when an expiry is due to the guard's first look, to its second one, and to each further try.
constexpr std::chrono::milliseconds PATIENCE{1000};

/// Starts a thread that nobody joins, with all signals blocked, like those that the system makes for
/// expiries. Returns 0 or the error number.
int StartDetached(void* (*body)(void*), void* argument) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    static_cast<void>(pthread_sigmask(SIG_SETMASK, &all, &former));  // cannot fail with these arguments
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, body, argument);
    static_cast<void>(pthread_sigmask(SIG_SETMASK, &former, nullptr));
    if (error == 0) {
        static_cast<void>(pthread_detach(thread));
    }
    return error;
}

// Made at load: a child that is forked while another thread makes it would wait for the end of that for ever.
[[maybe_unused]] const TimerRegistry& gAtLoad = TimerRegistry::GetInstance();

}  // namespace

TimerRegistry& TimerRegistry::GetInstance() {
    alignas(TimerRegistry) static std::byte storage[sizeof(TimerRegistry)];
    static TimerRegistry* const instance = new (storage) TimerRegistry;
    return *instance;
}

/// A child of a process with several threads finds the lock free and nobody waiting. The guard of its parent
/// would count as waiting there, and a notification would wait for it to wake up. So the former condition
/// variable is left as it is: its destruction would wait as well.
TimerRegistry::TimerRegistry() {
    static_cast<void>(pthread_atfork([] { GetInstance().mMutex.lock(); },
                                     [] { GetInstance().mMutex.unlock(); },
                                     [] {
                                         TimerRegistry& registry = GetInstance();
                                         new (&registry.mEarlier) std::condition_variable;
                                         registry.mMutex.unlock();
                                     }));
}

int TimerRegistry::Add(std::shared_ptr<TimerCalls> calls, Token& token) {
    const std::lock_guard lock(mMutex);
    if (const int error = StartGuard(); error != 0) {
        return error;
    }
    do {
        ++mLastToken;
    } while (mLastToken == 0 || mEntries.contains(mLastToken));
    mEntries.emplace(mLastToken, Entry{std::move(calls), std::nullopt});
    token = mLastToken;
    return 0;
}

void TimerRegistry::Remove(Token token) {
    const std::lock_guard lock(mMutex);
    mEntries.erase(token);
}

std::optional<TimerRegistry::Expiry> TimerRegistry::Expect(Token token, std::optional<Expiry> expiry) {
    const std::lock_guard lock(mMutex);
    const auto found = mEntries.find(token);
    if (found == mEntries.end()) {
        return std::nullopt;
    }
    Entry& entry = found->second;
    entry.missed.reset();
    entry.isServed = false;
    if (expiry && expiry->due + PATIENCE < mNextLook) {
        mEarlier.notify_all();
    }
    return std::exchange(entry.expected, expiry);
}

std::optional<TimerRegistry::Expiry> TimerRegistry::ExpiryIn(unsigned int periodMs, bool periodic) {
    if (periodMs == 0) {
        return std::nullopt;
    }
    const std::chrono::milliseconds period(periodMs);
    return Expiry{Clock::now() + period, periodic ? period : period.zero()};
}

sigval TimerRegistry::ToValue(Token token) {
    sigval value{};
    value.sival_ptr = reinterpret_cast<void*>(token);  // NOLINT(performance-no-int-to-ptr): never followed
    return value;
}

void TimerRegistry::Notify(sigval token) noexcept {
    std::chrono::nanoseconds late{0};
    if (const auto calls = GetInstance().Arrive(reinterpret_cast<Token>(token.sival_ptr), late)) {
        calls->Serve(late);
    }
}

/// The body of the thread by which the guard announces.
void* TimerRegistry::ServeLost(void* token) noexcept {
    TimerRegistry& registry = GetInstance();
    std::shared_ptr<TimerCalls> calls;
    std::chrono::nanoseconds late{0};
    {
        const std::lock_guard lock(registry.mMutex);
        const auto found = registry.mEntries.find(reinterpret_cast<Token>(token));
        if (found == registry.mEntries.end()) {
            return nullptr;
        }
        calls = found->second.calls;
        late = found->second.late;
    }
    calls->Serve(late);
    return nullptr;
}

/// An announcement of the system's has come. Nothing when nobody is to be called; else `late` is since when
/// it was due, as far as that is known.
std::shared_ptr<TimerCalls> TimerRegistry::Arrive(Token token, std::chrono::nanoseconds& late) {
    const std::lock_guard lock(mMutex);
    const auto found = mEntries.find(token);
    if (found == mEntries.end()) {
        return nullptr;
    }
    Entry& entry = found->second;
    if (std::exchange(entry.isServed, false)) {
        return nullptr;
    }
    const auto now = Clock::now();
    // A notification that comes before the expiry is due belongs to the time to which the timer was set
    // before.
    if (entry.expected && now >= entry.expected->due) {
        late = now - entry.expected->due;
        Advance(entry, now);
    }
    return entry.calls;
}

/// The expected expiry, which is due, is served at this time. The timer's further ones come whole intervals
/// after it, however late this one is served: reckoned from now, the next one would come before it is due,
/// and would then look lost.
void TimerRegistry::Advance(Entry& entry, Clock::time_point now) {
    Expiry& expiry = *entry.expected;
    if (expiry.interval.count() > 0) {
        expiry.due += ((now - expiry.due) / expiry.interval + 1) * expiry.interval;
    } else {
        entry.expected.reset();
    }
    entry.missed.reset();
    entry.isTold = false;
}

/// With the mutex locked.
int TimerRegistry::StartGuard() {
    const pid_t process = getpid();
    if (mGuarded == process) {
        return 0;
    }
    const auto guard = [](void*) -> void* { GetInstance().Guard(); };
    if (const int error = StartDetached(guard, nullptr); error != 0) {
        return error;
    }
    mGuarded = process;
    // A child has none of its parent's timers (fork(2)).
    for (auto& [token, entry] : mEntries) {
        entry.expected.reset();
    }
    return 0;
}

void TimerRegistry::Guard() {
    std::unique_lock lock(mMutex);
    for (;;) {
        if (const std::optional<Lost> lost = FindLost(mNextLook)) {
            lock.unlock();
            if (lost->error == 0) {
                TERN_LOG_WARNING(LOGGER, "Handler: The system announced no expiry, it is served %lld ms late",
                                 static_cast<long long>(lost->late.count()));
            } else if (lost->isToBeTold) {
                TERN_LOG_ERROR(LOGGER, "Handler: No thread for an expiry, tried again every %lld ms: %d",
                               static_cast<long long>(PATIENCE.count()), lost->error);
            }
            lock.lock();
        } else if (mNextLook == Clock::time_point::max()) {
            mEarlier.wait(lock);
        } else {
            mEarlier.wait_until(lock, mNextLook);
        }
    }
}

/// Announces one expiry that the system did not; with the mutex locked. Nothing when there is none (any
/// more); then stores when to look again.
std::optional<TimerRegistry::Lost> TimerRegistry::FindLost(Clock::time_point& nextLook) {
    const auto now = Clock::now();
    nextLook = Clock::time_point::max();
    for (auto& [token, entry] : mEntries) {
        if (!entry.expected) {
            continue;
        }
        const auto look = entry.missed.value_or(entry.expected->due) + PATIENCE;
        if (now < look) {
            nextLook = std::min(nextLook, look);
            continue;
        }
        if (!entry.missed) {
            entry.missed = now;
            nextLook = std::min(nextLook, now + PATIENCE);
            continue;
        }
        entry.late = now - entry.expected->due;
        Lost lost{std::chrono::duration_cast<std::chrono::milliseconds>(now - entry.expected->due),
                  StartDetached(&ServeLost, ToValue(token).sival_ptr), !entry.isTold};
        if (lost.error == 0) {
            Advance(entry, now);
            entry.isServed = !entry.expected;
        } else {
            entry.missed = now;
            entry.isTold = true;
        }
        return lost;
    }
    return std::nullopt;
}

}  // namespace mwl::Timer
