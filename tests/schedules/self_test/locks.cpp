// Faults of locks.

#include <functional>
#include <mutex>
#include <thread>

#include "../scenario.h"
#include "toys.h"

namespace tern::schedules {

namespace {

/// Two accounts, and sums that move between them.
template <Flaw FLAW>
void MoveBothWays() {
    std::mutex first;
    std::mutex second;
    int sum = 0;
    std::thread other([&] {
        Call("other");
        if constexpr (FLAW == Flaw::OrderInverted) {
            const std::lock_guard outer(second);
            const std::lock_guard inner(first);
            ++sum;
        } else {
            const std::lock_guard outer(first);
            const std::lock_guard inner(second);
            ++sum;
        }
    });
    {
        const std::lock_guard outer(first);
        const std::lock_guard inner(second);
        ++sum;
    }
    other.join();
    Promise(sum == 2, "both have moved");
}

/// One who is told of a change; he stops being told from within the call when he comes late.
template <Flaw FLAW>
class Teller {
public:
    void SetListener(std::function<void()> listener) {
        const std::lock_guard lock(mMutex);
        mListener = std::move(listener);
    }
    void Tell() {
        std::unique_lock lock(mMutex);
        const std::function<void()> listener = mListener;
        if constexpr (FLAW != Flaw::CallbackUnderLock) {
            lock.unlock();
        }
        if (listener) {
            listener();
        }
    }

private:
    std::mutex mMutex;
    std::function<void()> mListener;
};

template <Flaw FLAW>
void StopWithinCall() {
    Teller<FLAW> teller;
    std::thread other([&] {
        Call("listener");
        teller.SetListener([&] { teller.SetListener(nullptr); });
    });
    teller.Tell();
    other.join();
}

/// A wait that its owner does not wait for.
template <Flaw FLAW>
void DestroyBesideWait() {
    Box<Flaw::None> done;
    std::mutex mutex;
    bool isSet = false;
    auto changed = std::make_unique<std::condition_variable>();
    std::thread waiter([&] {
        Call("waiter");
        std::unique_lock lock(mutex);
        done.Put(1);
        while (!isSet) {
            changed->wait(lock);
        }
    });
    static_cast<void>(done.Take());
    {
        const std::lock_guard lock(mutex);
        isSet = true;
        if constexpr (FLAW != Flaw::DestroyedWhileWaiting) {
            changed->notify_all();
        }
    }
    if constexpr (FLAW == Flaw::DestroyedWhileWaiting) {
        changed.reset();
    }
    waiter.join();
}

}  // namespace

TERN_SCENARIO(self_order_inverted, "two mutexes in two orders", .expected = {Record::Fault::Deadlock}) {
    MoveBothWays<Flaw::OrderInverted>();
}
TERN_SCENARIO(self_order_sound, "the same without a fault") {
    MoveBothWays<Flaw::None>();
}
TERN_SCENARIO(self_callback_under_lock, "the user's code comes back", .expected = {Record::Fault::Deadlock}) {
    StopWithinCall<Flaw::CallbackUnderLock>();
}
TERN_SCENARIO(self_callback_sound, "the same without a fault") {
    StopWithinCall<Flaw::None>();
}
TERN_SCENARIO(self_destroyed_while_waiting, "a condition variable goes while one waits at it",
              .expected = {Record::Fault::Misuse}) {
    DestroyBesideWait<Flaw::DestroyedWhileWaiting>();
}
TERN_SCENARIO(self_destroy_sound, "the same without a fault") {
    DestroyBesideWait<Flaw::None>();
}

}  // namespace tern::schedules
