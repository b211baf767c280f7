// The engine: descriptors, sleep and timers.

#include <algorithm>
#include <cerrno>

#include "engine.h"
#include "engine_parts.h"
#include "real.h"

namespace tern::schedules {

// ---- descriptors and time

int Engine::Poll(pollfd* descriptors, nfds_t count, std::int64_t limit, Action action, const void* caller) {
    Thread& me = Me();
    Point(action, AsObject(count > 0 ? descriptors->fd : -1), caller);
    while (true) {
        const int ready = Real::Get().poll(descriptors, count, 0);
        if (ready != 0) {
            return ready;
        }
        if (limit != Thread::NO_LIMIT && limit <= mNow) {
            return 0;
        }
        me.wait = Thread::Wait::Descriptors;
        me.descriptors.assign(descriptors, descriptors + count);
        me.limit = limit;
        Block();
        RunHandlers();
        if (me.reason == Thread::Reason::Interrupted) {
            errno = EINTR;
            return -1;
        }
    }
}

int Engine::Sleep(std::int64_t limit, const void* caller) {
    Thread& me = Me();
    Note(Step::Kind::Reaches, Action::Sleep, me, nullptr, caller);
    me.wait = Thread::Wait::Sleep;
    me.limit = limit;
    Block();
    RunHandlers();
    return me.reason == Thread::Reason::Interrupted ? EINTR : 0;
}

// ---- timers

Engine::Timer* Engine::FindTimer(timer_t id) {
    const auto number = reinterpret_cast<std::uintptr_t>(id);
    return number == 0 || number > mTimers.size() || !mTimers[number - 1].exists ? nullptr
                                                                                 : &mTimers[number - 1];
}

int Engine::CreateTimer(const sigevent* event, timer_t* id) {
    Timer timer;
    timer.exists = true;
    if (event->sigev_notify == SIGEV_THREAD) {
        timer.function = event->sigev_notify_function;
        timer.value = event->sigev_value;
    } else if (event->sigev_notify == SIGEV_THREAD_ID) {
        const auto found = std::find_if(mThreads.begin(), mThreads.end(), [&](const Thread& thread) {
            return !thread.hasEnded && thread.id == event->_sigev_un._tid;
        });
        if (found == mThreads.end()) {
            errno = EINVAL;
            return -1;
        }
        timer.target = &*found;
        timer.signal = event->sigev_signo;
    } else {
        Fail(Record::Fault::NoEnd, "a timer of a kind that is not known here");
    }
    mTimers.push_back(timer);
    *id = reinterpret_cast<timer_t>(mTimers.size());
    return 0;
}

int Engine::SetTimer(timer_t id, int flags, const itimerspec* time, itimerspec* former, const void* caller) {
    Point(Action::SetTimer, id, caller);
    Timer* const timer = FindTimer(id);
    if (timer == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (former != nullptr) {
        static_cast<void>(GetTimer(id, former));
    }
    const std::int64_t value = ToNanoseconds(time->it_value);
    timer->end = value == 0 ? Thread::NO_LIMIT : (flags & TIMER_ABSTIME) != 0 ? value : mNow + value;
    timer->period = ToNanoseconds(time->it_interval);
    return 0;
}

int Engine::GetTimer(timer_t id, itimerspec* time) {
    const Timer* const timer = FindTimer(id);
    if (timer == nullptr) {
        errno = EINVAL;
        return -1;
    }
    time->it_interval = ToTimespec(timer->period);
    time->it_value =
        ToTimespec(timer->end == Thread::NO_LIMIT ? 0 : std::max<std::int64_t>(timer->end - mNow, 1));
    return 0;
}

int Engine::DeleteTimer(timer_t id, const void* caller) {
    Point(Action::SetTimer, id, caller);
    Timer* const timer = FindTimer(id);
    if (timer == nullptr) {
        errno = EINVAL;
        return -1;
    }
    timer->exists = false;
    timer->end = Thread::NO_LIMIT;
    return 0;
}

}  // namespace tern::schedules
