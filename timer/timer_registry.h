#pragma once

#include <signal.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace mwl::Timer {

/// The timers whose expiry may be announced, by address.
///
/// The system announces an expiry on a thread of its own, which may get to run only after the timer was
/// deleted, its object destroyed, and perhaps another one made at the same address. So a notification looks
/// here for its timer, and does nothing when it is gone. While the callback runs it is kept alive, so that it
/// may stop or destroy its own timer.
///
/// One per process, never destroyed: notifications may come while the process is leaving. Thread-safe; no
/// lock is held while a callback runs.
class TimerRegistry {
public:
    using Callback = std::function<void()>;
    using Notification = void (*)(sigval);

    static TimerRegistry& GetInstance();

    /// Enters the timer and returns the notification function to be given to timer_create(2), with the
    /// address as its value. It calls `callback`, unless that is empty.
    Notification Add(const void* timer, std::shared_ptr<const Callback> callback);
    /// Notifications that come later do not find the timer; one that has found it may still call the
    /// callback. Harmless for one that is not entered.
    void Remove(const void* timer);
    /// What a notification function does. `generation` tells the timer from a former one at its address.
    void Notify(const void* timer, std::size_t generation);

private:
    struct Entry {
        std::size_t generation;
        std::shared_ptr<const Callback> callback;
    };

    TimerRegistry() = default;

    std::mutex mMutex;
    std::size_t mNextGeneration = 0;
    std::unordered_map<const void*, Entry> mEntries;
};

}  // namespace mwl::Timer
