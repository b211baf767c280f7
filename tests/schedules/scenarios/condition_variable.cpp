// Mutex, lock and condition variable of the library.

#include <tern/threading/condition_variable.h>
#include <tern/threading/lock.h>
#include <tern/threading/mutex.h>

#include <chrono>
#include <thread>

#include "../scenario.h"

namespace tern::schedules {

namespace {

using mw::tern::StatusCode;
using mwl::Threading::ConditionVariable;
using mwl::Threading::Lock;
using mwl::Threading::Mutex;

}  // namespace

TERN_SCENARIO(lock_excludes, "two threads count under a recursive mutex, taken twice by each") {
    Mutex mutex;
    int within = 0;
    int sum = 0;
    const auto count = [&] {
        const Lock outer(mutex);
        Promise(++within == 1, "one thread at a time has the mutex");
        {
            const Lock inner(mutex);
            Meet();
            ++sum;
        }
        Meet();
        Promise(--within == 0, "the inner lock's end does not give the mutex up");
    };
    std::thread one(count);
    std::thread other(count);
    count();
    one.join();
    other.join();
    Promise(sum == 3, "each has counted once");
}

TERN_SCENARIO(lock_inheriting, "the same with priority inheritance") {
    Mutex mutex(Mutex::Protocol::PriorityInheritance);
    int within = 0;
    const auto count = [&] {
        const Lock lock(mutex);
        Promise(++within == 1, "one thread at a time has the mutex");
        Meet();
        --within;
    };
    std::thread one(count);
    std::thread other(count);
    one.join();
    other.join();
}

TERN_SCENARIO(condition_predicate, "two wait with a predicate and a limit, one tells both") {
    Mutex mutex;
    ConditionVariable changed;
    int tickets = 0;
    int taken = 0;
    const auto take = [&] {
        Call("taker");
        Lock lock(mutex);
        const StatusCode status = changed.WaitFor(lock, 1000, [&] { return tickets > 0; });
        if (status == StatusCode::Ok) {
            Promise(tickets > 0, "Ok only while the predicate holds");
            --tickets;
            ++taken;
        } else {
            Promise(status == StatusCode::Timeout, "otherwise the time is over");
        }
    };
    std::thread one(take);
    std::thread other(take);
    {
        const Lock lock(mutex);
        tickets = 2;
    }
    changed.NotifyAll();
    one.join();
    other.join();
    Promise(taken + tickets == 2, "no ticket is lost");
    if (Engine::Get()->IdleTime() > 0) {
        Promise(false, "nobody has to wait for the limit");
    }
}

TERN_SCENARIO(condition_notify_one, "each of two is told by one call, whoever it is that wakes") {
    Mutex mutex;
    ConditionVariable changed;
    int tickets = 0;
    const auto take = [&] {
        Call("taker");
        Lock lock(mutex);
        while (tickets == 0) {
            Promise(changed.Wait(lock) == StatusCode::Ok, "a wait without a limit is Ok");
        }
        --tickets;
    };
    std::thread one(take);
    std::thread other(take);
    for (int round = 0; round < 2; ++round) {
        {
            const Lock lock(mutex);
            ++tickets;
        }
        changed.NotifyOne();
    }
    one.join();
    other.join();
    Promise(tickets == 0, "both have been taken");
}

TERN_SCENARIO(condition_limit, "nobody tells: the wait ends at its limit and not before") {
    Mutex mutex;
    ConditionVariable changed;
    const auto wait = [&](int milliseconds) {
        const auto begin = std::chrono::steady_clock::now();
        Lock lock(mutex);
        const StatusCode status = changed.WaitFor(lock, milliseconds, [] { return false; });
        Promise(status == StatusCode::Timeout, "the time is over");
        Promise(std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(milliseconds),
                "not before its limit");
    };
    std::thread other([&] { wait(20); });
    wait(10);
    other.join();
}

}  // namespace tern::schedules
