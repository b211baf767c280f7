// The engine: mutexes, condition variables, futexes, and what is done once.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "engine.h"
#include "engine_parts.h"
#include "real.h"

namespace tern::schedules {

// ---- mutexes

int Engine::Lock(pthread_mutex_t* mutex, std::int64_t limit, const void* caller) {
    Thread& me = Me();
    Owned& owned = mMutexes[mutex];
    if (owned.owner == &me) {
        if (IsRecursive(mutex)) {
            ++owned.count;
            return Real::Get().lock(mutex);
        }
        if (IsChecked(mutex)) {
            return Real::Get().lock(mutex);
        }
    }
    if (!IsQuiet(mutex)) {
        Point(Action::Lock, mutex, caller);
    }
    if (owned.owner != nullptr) {
        me.wait = Thread::Wait::Mutex;
        me.object = mutex;
        me.limit = limit;
        me.reason = Thread::Reason::Come;
        Block();
        if (me.reason == Thread::Reason::TimedOut) {
            return ETIMEDOUT;
        }
    }
    Acquire(mutex, 1);
    return 0;
}

void Engine::Acquire(pthread_mutex_t* mutex, unsigned count) {
    Owned& owned = mMutexes[mutex];
    for (unsigned round = 0; round < count; ++round) {
        if (const int error = Real::Get().tryLock(mutex); error != 0) {
            Fail(Record::Fault::Misuse,
                 std::string("a mutex that is free cannot be locked (") + strerrorname_np(error) +
                     "): it is no mutex any more, or a thread outside of the run has it");
        }
    }
    owned.owner = &Me();
    owned.count = count;
}

int Engine::TryLock(pthread_mutex_t* mutex, const void* caller) {
    if (!IsQuiet(mutex)) {
        Point(Action::TryLock, mutex, caller);
    }
    Owned& owned = mMutexes[mutex];
    if (owned.owner == &Me() && IsRecursive(mutex)) {
        ++owned.count;
        return Real::Get().tryLock(mutex);
    }
    if (owned.owner != nullptr) {
        return EBUSY;
    }
    Acquire(mutex, 1);
    return 0;
}

int Engine::Unlock(pthread_mutex_t* mutex, const void* caller) {
    Owned& owned = mMutexes[mutex];
    if (owned.owner != &Me()) {
        if (IsRecursive(mutex) || IsChecked(mutex)) {
            return Real::Get().unlock(mutex);
        }
        Fail(Record::Fault::Misuse, "a mutex is unlocked by a thread that does not have it");
    }
    if (--owned.count == 0) {
        owned.owner = nullptr;
    }
    const int error = Real::Get().unlock(mutex);
    if (mLimits.pointsAfterUnlock && owned.owner == nullptr && !IsQuiet(mutex)) {
        Point(Action::Unlock, mutex, caller);
    }
    return error;
}

void Engine::ForgetMutex(pthread_mutex_t* mutex) {
    const auto found = mMutexes.find(mutex);
    if (found != mMutexes.end()) {
        if (found->second.owner != nullptr) {
            Fail(Record::Fault::Misuse, "a mutex is destroyed that a thread has");
        }
        for (const Thread& thread : mThreads) {
            if (!thread.hasEnded && thread.wait == Thread::Wait::Mutex && thread.object == mutex) {
                Fail(Record::Fault::Misuse, "a mutex is destroyed that a thread is about to have");
            }
        }
    }
}

// ---- condition variables

int Engine::Wait(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t limit, const void* caller) {
    Thread& me = Me();
    Point(Action::Wait, condition, caller);
    Owned& owned = mMutexes[mutex];
    if (owned.owner != &me) {
        Fail(Record::Fault::Misuse, "a wait at a condition variable without its mutex");
    }
    // A second lock stays: the C library gives up one.
    const unsigned count = owned.count;
    if (count == 1) {
        owned = {};
    }
    static_cast<void>(Real::Get().unlock(mutex));
    me.wait = Thread::Wait::Condition;
    me.object = condition;
    me.mutex = mutex;
    me.limit = limit;
    me.reason = Thread::Reason::Come;
    Block();
    Acquire(mutex, 1);
    owned.count = count;
    RunHandlers();
    return me.reason == Thread::Reason::TimedOut ? ETIMEDOUT : 0;
}

void Engine::Wake(pthread_cond_t* condition, bool all, const void* caller) {
    if (!IsQuiet(condition)) {
        Point(all ? Action::Broadcast : Action::Signal, condition, caller);
    }
    std::vector<Option> waiting;
    for (const Thread& thread : mThreads) {
        if (!thread.hasEnded && thread.wait == Thread::Wait::Condition && thread.object == condition) {
            waiting.push_back({Option::Kind::Wake, static_cast<std::uint8_t>(thread.number), 0});
        }
    }
    if (waiting.empty()) {
        return;
    }
    if (!all) {
        waiting = {waiting[Choose(waiting, Me().number)]};
    }
    for (const Option& option : waiting) {
        EndConditionWait(mThreads[option.thread], Thread::Reason::Come);
    }
}

void Engine::ForgetCondition(pthread_cond_t* condition) {
    for (const Thread& thread : mThreads) {
        if (!thread.hasEnded && thread.wait == Thread::Wait::Condition && thread.object == condition) {
            Fail(Record::Fault::Misuse, "a condition variable is destroyed at which a thread waits");
        }
    }
}

// ---- futexes, and what is done once

long Engine::FutexWait(const int* word, int expected, std::int64_t limit, const void* caller) {
    Thread& me = Me();
    Point(Action::FutexWait, word, caller);
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != expected) {
        errno = EAGAIN;
        return -1;
    }
    me.wait = Thread::Wait::Futex;
    me.object = word;
    me.limit = limit;
    me.reason = Thread::Reason::Come;
    Block();
    RunHandlers();
    if (me.reason == Thread::Reason::TimedOut) {
        errno = ETIMEDOUT;
        return -1;
    }
    return 0;
}

long Engine::FutexWake(const int* word, int count, const void* caller) {
    Point(Action::FutexWake, word, caller);
    long woken = 0;
    while (woken < count) {
        std::vector<Option> waiting;
        for (const Thread& thread : mThreads) {
            if (!thread.hasEnded && thread.wait == Thread::Wait::Futex && thread.object == word) {
                waiting.push_back({Option::Kind::Wake, static_cast<std::uint8_t>(thread.number), 0});
            }
        }
        if (waiting.empty()) {
            break;
        }
        const bool isForAll = static_cast<std::size_t>(count - woken) >= waiting.size();
        Thread& thread = mThreads[waiting[isForAll ? 0 : Choose(waiting, Me().number)].thread];
        thread.wait = Thread::Wait::Nothing;
        thread.limit = Thread::NO_LIMIT;
        ++woken;
    }
    return woken;
}

int Engine::Once(pthread_once_t* once, void (*routine)(), const void* caller) {
    constexpr int DONE = 2;  // as the C library has it, inline code of others looks at it
    if (__atomic_load_n(once, __ATOMIC_ACQUIRE) == DONE) {
        return 0;
    }
    Point(Action::Once, once, caller);
    while (mOnce.count(once) != 0) {
        Me().wait = Thread::Wait::Once;
        Me().object = once;
        Block();
    }
    if (__atomic_load_n(once, __ATOMIC_ACQUIRE) == DONE) {
        return 0;
    }
    struct Entry {
        std::unordered_map<const void*, Thread*>& entries;
        const void* once;
        ~Entry() { entries.erase(once); }
    };
    mOnce[once] = &Me();
    const Entry entry{mOnce, once};
    routine();
    __atomic_store_n(once, DONE, __ATOMIC_RELEASE);
    return 0;
}

}  // namespace tern::schedules
