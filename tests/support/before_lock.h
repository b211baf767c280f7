#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>
#include <utility>

#include "interpose.h"

namespace tern::test {

/// Runs an action of the test on this thread when it is about to lock a mutex for the `count`-th time from
/// now, std::mutex and the library's calls included: so an operation is met at each point at which it may
/// have let go of what it holds. One at a time for each thread; its locks within the action are not counted.
/// Include it in the test program's one source.
class BeforeLock {
public:
    /// `count` is 1 or more.
    BeforeLock(int count, std::function<void()> action) : mCount(count), mAction(std::move(action)) {
        sCurrent = this;
    }
    ~BeforeLock() { sCurrent = nullptr; }
    BeforeLock(const BeforeLock&) = delete;
    BeforeLock& operator=(const BeforeLock&) = delete;

    /// Whether that lock has come.
    bool WasMet() const { return mCount <= 0; }

    /// What the interposed function calls.
    static void OnLock() {
        BeforeLock* const current = std::exchange(sCurrent, nullptr);
        if (current != nullptr) {
            if (--current->mCount == 0) {
                current->mAction();
            }
            sCurrent = current;
        }
    }

private:
    static constinit inline thread_local BeforeLock* sCurrent = nullptr;

    int mCount;
    std::function<void()> mAction;
};

}  // namespace tern::test

// Not by TERN_INTERPOSE, which locks a mutex itself.
extern "C" __attribute__((visibility("default"))) int interposed_pthread_mutex_lock(
    pthread_mutex_t* mutex) asm("pthread_mutex_lock");
extern "C" int interposed_pthread_mutex_lock(pthread_mutex_t* mutex) {
    using Function = int (*)(pthread_mutex_t*);
    static constinit std::atomic<Function> real{nullptr};
    if (real.load(std::memory_order_relaxed) == nullptr) {
        real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    }
    tern::test::BeforeLock::OnLock();
    return real.load(std::memory_order_relaxed)(mutex);
}
