#include "timer/timer_registry.h"

#include <array>
#include <new>
#include <utility>

namespace mwl::Timer {

namespace {

// The value that travels with a notification is the timer's address; its generation travels in the choice of
// the function. Generations repeat after this many timers, long after a late notification has come.
constexpr std::size_t GENERATIONS = 64;

// What a callback throws ends the process, as on any thread: there is no caller to whom it could go.
template <std::size_t Generation>
void NotifyGeneration(sigval value) noexcept {
    TimerRegistry::GetInstance().Notify(value.sival_ptr, Generation);
}

template <std::size_t... Generation>
constexpr std::array<TimerRegistry::Notification, sizeof...(Generation)> MakeNotifications(
    std::index_sequence<Generation...> /*generations*/) {
    return {&NotifyGeneration<Generation>...};
}

constexpr auto NOTIFICATIONS = MakeNotifications(std::make_index_sequence<GENERATIONS>());

}  // namespace

TimerRegistry& TimerRegistry::GetInstance() {
    alignas(TimerRegistry) static std::byte storage[sizeof(TimerRegistry)];
    static TimerRegistry* const instance = new (storage) TimerRegistry;
    return *instance;
}

TimerRegistry::Notification TimerRegistry::Add(const void* timer, std::shared_ptr<const Callback> callback) {
    const std::lock_guard lock(mMutex);
    const std::size_t generation = mNextGeneration;
    mNextGeneration = (mNextGeneration + 1) % GENERATIONS;
    mEntries.insert_or_assign(timer, Entry{generation, std::move(callback)});
    return NOTIFICATIONS[generation];
}

void TimerRegistry::Remove(const void* timer) {
    const std::lock_guard lock(mMutex);
    mEntries.erase(timer);
}

void TimerRegistry::Notify(const void* timer, std::size_t generation) {
    std::shared_ptr<const Callback> callback;
    {
        const std::lock_guard lock(mMutex);
        const auto entry = mEntries.find(timer);
        if (entry == mEntries.end() || entry->second.generation != generation) {
            return;
        }
        callback = entry->second.callback;
    }
    if (*callback) {
        (*callback)();
    }
}

}  // namespace mwl::Timer
