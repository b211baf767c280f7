#include <dlfcn.h>
#include <gmock/gmock.h>
#include <tern/threading/lock.h>

#include <cerrno>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/log_capture.h"
#include "support/wait_until.h"

// The next call on this thread with this mutex fails. TERN_INTERPOSE takes a mutex itself, so it does not
// serve for these two.
namespace {

struct MutexFault {
    const void* mutex = nullptr;
    int error = 0;
};
thread_local MutexFault tLockFault;
thread_local MutexFault tUnlockFault;

int CallOrFail(MutexFault& fault, pthread_mutex_t* mutex, int (*real)(pthread_mutex_t*)) {
    if (fault.mutex == mutex) {
        fault.mutex = nullptr;
        return fault.error;
    }
    return real(mutex);
}

int (*Real(const char* name))(pthread_mutex_t*) {
    return reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int InterposedLock(pthread_mutex_t* mutex) asm(
    "pthread_mutex_lock");
extern "C" __attribute__((visibility("default"))) int InterposedUnlock(pthread_mutex_t* mutex) asm(
    "pthread_mutex_unlock");
extern "C" int InterposedLock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    if (real.load(std::memory_order_relaxed) == nullptr) {
        real.store(Real("pthread_mutex_lock"), std::memory_order_relaxed);
    }
    return CallOrFail(tLockFault, mutex, real.load(std::memory_order_relaxed));
}
extern "C" int InterposedUnlock(pthread_mutex_t* mutex) {
    static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
    if (real.load(std::memory_order_relaxed) == nullptr) {
        real.store(Real("pthread_mutex_unlock"), std::memory_order_relaxed);
    }
    return CallOrFail(tUnlockFault, mutex, real.load(std::memory_order_relaxed));
}

namespace mwl::Threading {
namespace {

using tern::test::LogCapture;
using tern::test::Warning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The POSIX mutex is all that a Mutex holds.
const void* HandleOf(const Mutex& mutex) {
    return &mutex;
}

/// Whether another thread finds the mutex free.
bool IsFree(Mutex& mutex) {
    auto* const handle = reinterpret_cast<pthread_mutex_t*>(&mutex);
    bool free = false;
    std::thread([&] {
        free = pthread_mutex_trylock(handle) == 0;
        if (free) {
            pthread_mutex_unlock(handle);
        }
    }).join();
    return free;
}

TEST(Lock, IsNeitherCopiedNorPolymorphic) {
    EXPECT_FALSE(std::is_copy_constructible_v<Lock>);
    EXPECT_FALSE(std::is_polymorphic_v<Lock>);
    EXPECT_EQ(sizeof(Lock), sizeof(void*));
}

TEST(Lock, HoldsTheMutexUntilTheEndOfItsBlock) {
    LogCapture log;
    Mutex mutex;
    {
        const Lock lock(mutex);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Lock, ThreadThatHoldsTheMutexLocksItAgain) {
    LogCapture log;
    Mutex mutex;
    {
        const Lock outer(mutex);
        {
            const Lock inner(mutex);
            const Lock innermost(mutex);
        }
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Lock, LetsOneThreadInAtATime) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 20000 / tern::test::SLOWNESS;
    Mutex mutex;
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                const Lock lock(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, THREADS * ROUNDS);
}

TEST(Lock, FailingLockIsLoggedAndTheCallerGoesOn) {
    LogCapture log;
    Mutex mutex;
    bool wentOn = false;
    {
        tLockFault = {HandleOf(mutex), EDEADLK};
        const Lock lock(mutex);
        wentOn = IsFree(mutex);
        tUnlockFault = {HandleOf(mutex), 0};  // nothing is held that could be unlocked
    }
    EXPECT_TRUE(wentOn);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Warning("Threading", "Lock: pthread_mutex_lock FAILED (Deadlock)")));
}

TEST(Lock, FailingUnlockIsLogged) {
    LogCapture log;
    Mutex mutex;
    {
        const Lock lock(mutex);
        tUnlockFault = {HandleOf(mutex), EPERM};
    }
    EXPECT_THAT(log.Entries(),
                ElementsAre(Warning("Threading", "~Lock: pthread_mutex_unlock FAILED (NotPermitted)")));
    pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t*>(&mutex));
    EXPECT_TRUE(IsFree(mutex));
}

}  // namespace
}  // namespace mwl::Threading
