// Stand-ins for the calls at which threads meet. Threads of a run go to the engine, all others to the real
// function. They are symbols of the program, so that every library in it finds them first.

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>

#include "engine.h"
#include "real.h"

using tern::schedules::Action;
using tern::schedules::Engine;
using tern::schedules::Real;
using tern::schedules::Thread;

namespace {

constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;
constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;

bool IsOfRun() {
    return Engine::Self() != nullptr;
}

std::int64_t ToNanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * NANOSECONDS_PER_SECOND + time.tv_nsec;
}

/// The limit of a wait in milliseconds from now on, negative for none.
std::int64_t LimitOf(int milliseconds) {
    return milliseconds < 0 ? Thread::NO_LIMIT
                            : Engine::Get()->Now() + milliseconds * NANOSECONDS_PER_MILLISECOND;
}

/// Where threads may meet: pipes, sockets and what else is no file.
bool IsMeetingPlace(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 &&
           (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || (status.st_mode & S_IFMT) == 0);
}

bool IsBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

/// As the kernel does it: tried at first, and waited for when there is no room. Nobody else runs while the
/// flag is another one.
ssize_t TryWrite(int fd, const void* data, std::size_t size) {
    const int flags = fcntl(fd, F_GETFL);
    static_cast<void>(fcntl(fd, F_SETFL, flags | O_NONBLOCK));
    const ssize_t written = Real::Get().write(fd, data, size);
    const int error = errno;
    static_cast<void>(fcntl(fd, F_SETFL, flags));
    errno = error;
    return written;
}

}  // namespace

#define TERN_STAND_IN(result, name, parameters)                                                     \
    extern "C" __attribute__((visibility("default"))) result stand_in_##name parameters asm(#name); \
    extern "C" result stand_in_##name parameters

TERN_STAND_IN(int, pthread_mutex_lock, (pthread_mutex_t * mutex)) {
    return IsOfRun() ? Engine::Get()->Lock(mutex, Thread::NO_LIMIT, __builtin_return_address(0))
                     : Real::Get().lock(mutex);
}

TERN_STAND_IN(int, pthread_mutex_trylock, (pthread_mutex_t * mutex)) {
    return IsOfRun() ? Engine::Get()->TryLock(mutex, __builtin_return_address(0))
                     : Real::Get().tryLock(mutex);
}

TERN_STAND_IN(int, pthread_mutex_timedlock, (pthread_mutex_t * mutex, const timespec* limit)) {
    return IsOfRun() ? Engine::Get()->Lock(mutex, ToNanoseconds(*limit), __builtin_return_address(0))
                     : Real::Get().timedLock(mutex, limit);
}

TERN_STAND_IN(int, pthread_mutex_clocklock,
              (pthread_mutex_t * mutex, clockid_t clock, const timespec* limit)) {
    return IsOfRun() ? Engine::Get()->Lock(mutex, ToNanoseconds(*limit), __builtin_return_address(0))
                     : Real::Get().clockLock(mutex, clock, limit);
}

TERN_STAND_IN(int, pthread_mutex_unlock, (pthread_mutex_t * mutex)) {
    return IsOfRun() ? Engine::Get()->Unlock(mutex, __builtin_return_address(0)) : Real::Get().unlock(mutex);
}

TERN_STAND_IN(int, pthread_mutex_destroy, (pthread_mutex_t * mutex)) {
    if (IsOfRun()) {
        Engine::Get()->ForgetMutex(mutex);
    }
    return Real::Get().destroyMutex(mutex);
}

TERN_STAND_IN(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex)) {
    return IsOfRun() ? Engine::Get()->Wait(condition, mutex, Thread::NO_LIMIT, __builtin_return_address(0))
                     : Real::Get().wait(condition, mutex);
}

TERN_STAND_IN(int, pthread_cond_timedwait,
              (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* limit)) {
    return IsOfRun()
               ? Engine::Get()->Wait(condition, mutex, ToNanoseconds(*limit), __builtin_return_address(0))
               : Real::Get().timedWait(condition, mutex, limit);
}

TERN_STAND_IN(int, pthread_cond_clockwait,
              (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* limit)) {
    return IsOfRun()
               ? Engine::Get()->Wait(condition, mutex, ToNanoseconds(*limit), __builtin_return_address(0))
               : Real::Get().clockWait(condition, mutex, clock, limit);
}

TERN_STAND_IN(int, pthread_cond_signal, (pthread_cond_t * condition)) {
    if (!IsOfRun()) {
        return Real::Get().signalOne(condition);
    }
    Engine::Get()->Wake(condition, false, __builtin_return_address(0));
    return 0;
}

TERN_STAND_IN(int, pthread_cond_broadcast, (pthread_cond_t * condition)) {
    if (!IsOfRun()) {
        return Real::Get().broadcast(condition);
    }
    Engine::Get()->Wake(condition, true, __builtin_return_address(0));
    return 0;
}

TERN_STAND_IN(int, pthread_cond_destroy, (pthread_cond_t * condition)) {
    if (IsOfRun()) {
        Engine::Get()->ForgetCondition(condition);
    }
    return Real::Get().destroyCondition(condition);
}

TERN_STAND_IN(int, pthread_create,
              (pthread_t * handle, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)) {
    return IsOfRun() ? Engine::Get()->Create(handle, attributes, body, argument, __builtin_return_address(0))
                     : Real::Get().create(handle, attributes, body, argument);
}

TERN_STAND_IN(int, pthread_join, (pthread_t handle, void** result)) {
    return IsOfRun() ? Engine::Get()->Join(handle, result, __builtin_return_address(0))
                     : Real::Get().join(handle, result);
}

TERN_STAND_IN(int, pthread_detach, (pthread_t handle)) {
    return IsOfRun() ? Engine::Get()->Detach(handle, __builtin_return_address(0))
                     : Real::Get().detach(handle);
}

TERN_STAND_IN(int, pthread_once, (pthread_once_t * once, void (*routine)())) {
    return IsOfRun() ? Engine::Get()->Once(once, routine, __builtin_return_address(0))
                     : Real::Get().once(once, routine);
}

TERN_STAND_IN(int, pthread_kill, (pthread_t handle, int signal)) {
    return IsOfRun() ? Engine::Get()->Kill(handle, signal, __builtin_return_address(0))
                     : Real::Get().kill(handle, signal);
}

TERN_STAND_IN(int, pthread_sigmask, (int how, const sigset_t* set, sigset_t* former)) {
    const int error = Real::Get().sigMask(how, set, former);
    if (IsOfRun() && error == 0 && set != nullptr) {
        sigset_t mask;
        static_cast<void>(Real::Get().sigMask(SIG_BLOCK, nullptr, &mask));
        Engine::Get()->NoteMask(mask);
    }
    return error;
}

TERN_STAND_IN(int, sigprocmask, (int how, const sigset_t* set, sigset_t* former)) {
    const int result = Real::Get().processMask(how, set, former);
    if (IsOfRun() && result == 0 && set != nullptr) {
        sigset_t mask;
        static_cast<void>(Real::Get().sigMask(SIG_BLOCK, nullptr, &mask));
        Engine::Get()->NoteMask(mask);
    }
    return result;
}

TERN_STAND_IN(int, sigwait, (const sigset_t* set, int* signal)) {
    if (!IsOfRun()) {
        return Real::Get().sigWait(set, signal);
    }
    int taken = -1;
    do {
        taken = Engine::Get()->TakeSignal(set, Thread::NO_LIMIT, __builtin_return_address(0));
    } while (taken < 0);
    *signal = taken;
    return 0;
}

TERN_STAND_IN(int, sigtimedwait, (const sigset_t* set, siginfo_t* information, const timespec* limit)) {
    if (!IsOfRun()) {
        return Real::Get().sigTimedWait(set, information, limit);
    }
    const int signal = Engine::Get()->TakeSignal(set, Engine::Get()->Now() + ToNanoseconds(*limit),
                                                 __builtin_return_address(0));
    if (signal > 0 && information != nullptr) {
        *information = {};
        information->si_signo = signal;
    }
    return signal;
}

TERN_STAND_IN(long, syscall, (long number, ...)) {
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (IsOfRun() && number == SYS_futex) {
        const auto* const word = reinterpret_cast<const int*>(arguments[0]);
        const int operation = static_cast<int>(arguments[1]) & ~(FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME);
        const auto value = static_cast<int>(arguments[2]);
        const auto* const time = reinterpret_cast<const timespec*>(arguments[3]);
        std::int64_t limit = Thread::NO_LIMIT;
        switch (operation) {
            case FUTEX_WAIT:
                limit = time == nullptr ? limit : Engine::Get()->Now() + ToNanoseconds(*time);
                return Engine::Get()->FutexWait(word, value, limit, __builtin_return_address(0));
            case FUTEX_WAIT_BITSET:
                limit = time == nullptr ? limit : ToNanoseconds(*time);
                return Engine::Get()->FutexWait(word, value, limit, __builtin_return_address(0));
            case FUTEX_WAKE:
            case FUTEX_WAKE_BITSET:
                return Engine::Get()->FutexWake(word, value, __builtin_return_address(0));
            default:
                break;
        }
    }
    return Real::Get().systemCall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                                  arguments[4], arguments[5]);
}

TERN_STAND_IN(ssize_t, read, (int fd, void* data, std::size_t size)) {
    if (IsOfRun() && IsMeetingPlace(fd)) {
        pollfd ready{fd, POLLIN, 0};
        const std::int64_t limit = IsBlocking(fd) ? Thread::NO_LIMIT : Engine::Get()->Now();
        if (Engine::Get()->Poll(&ready, 1, limit, Action::Read, __builtin_return_address(0)) < 0) {
            return -1;
        }
    }
    return Real::Get().read(fd, data, size);
}

TERN_STAND_IN(ssize_t, write, (int fd, const void* data, std::size_t size)) {
    if (!IsOfRun() || !IsMeetingPlace(fd)) {
        return Real::Get().write(fd, data, size);
    }
    const auto* const bytes = static_cast<const char*>(data);
    std::size_t done = 0;
    Engine::Get()->Mark(reinterpret_cast<const void*>(static_cast<std::intptr_t>(fd)),
                        __builtin_return_address(0));
    do {
        const ssize_t written = TryWrite(fd, bytes + done, size - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
            continue;
        }
        if (errno != EAGAIN) {
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
        if (!IsBlocking(fd)) {
            errno = EAGAIN;
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
        pollfd room{fd, POLLOUT, 0};
        if (Engine::Get()->Poll(&room, 1, Thread::NO_LIMIT, Action::Write, __builtin_return_address(0)) < 0) {
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
    } while (done < size);
    return static_cast<ssize_t>(done);
}

TERN_STAND_IN(int, poll, (pollfd * descriptors, nfds_t count, int timeout)) {
    return IsOfRun() ? Engine::Get()->Poll(descriptors, count, LimitOf(timeout), Action::Poll,
                                           __builtin_return_address(0))
                     : Real::Get().poll(descriptors, count, timeout);
}

TERN_STAND_IN(int, epoll_wait, (int fd, epoll_event* events, int most, int timeout)) {
    if (IsOfRun()) {
        pollfd ready{fd, POLLIN, 0};
        if (Engine::Get()->Poll(&ready, 1, LimitOf(timeout), Action::Poll, __builtin_return_address(0)) < 0) {
            return -1;
        }
        timeout = 0;
    }
    return Real::Get().epollWait(fd, events, most, timeout);
}

TERN_STAND_IN(int, epoll_pwait2,
              (int fd, epoll_event* events, int most, const timespec* timeout, const sigset_t* /*mask*/)) {
    const std::int64_t nanoseconds = timeout == nullptr ? -1 : ToNanoseconds(*timeout);
    if (IsOfRun()) {
        pollfd ready{fd, POLLIN, 0};
        const std::int64_t limit = nanoseconds < 0 ? Thread::NO_LIMIT : Engine::Get()->Now() + nanoseconds;
        if (Engine::Get()->Poll(&ready, 1, limit, Action::Poll, __builtin_return_address(0)) < 0) {
            return -1;
        }
        return Real::Get().epollWait(fd, events, most, 0);
    }
    return Real::Get().epollWait(
        fd, events, most,
        static_cast<int>(std::clamp<std::int64_t>(
            nanoseconds < 0 ? -1 : nanoseconds / NANOSECONDS_PER_MILLISECOND, -1, INT_MAX)));
}

TERN_STAND_IN(int, clock_gettime, (clockid_t clock, timespec* time)) {
    if (!IsOfRun() || clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID) {
        return Real::Get().clockGetTime(clock, time);
    }
    const std::int64_t now = Engine::Get()->Now();
    time->tv_sec = static_cast<time_t>(now / NANOSECONDS_PER_SECOND);
    time->tv_nsec = static_cast<long>(now % NANOSECONDS_PER_SECOND);
    return 0;
}

TERN_STAND_IN(int, nanosleep, (const timespec* time, timespec* left)) {
    if (!IsOfRun()) {
        return Real::Get().nanoSleep(time, left);
    }
    const std::int64_t end = Engine::Get()->Now() + ToNanoseconds(*time);
    const int error = Engine::Get()->Sleep(end, __builtin_return_address(0));
    if (error == 0) {
        return 0;
    }
    if (left != nullptr) {
        const std::int64_t rest = std::max<std::int64_t>(end - Engine::Get()->Now(), 0);
        left->tv_sec = static_cast<time_t>(rest / NANOSECONDS_PER_SECOND);
        left->tv_nsec = static_cast<long>(rest % NANOSECONDS_PER_SECOND);
    }
    errno = error;
    return -1;
}

TERN_STAND_IN(int, clock_nanosleep, (clockid_t clock, int flags, const timespec* time, timespec* left)) {
    if (!IsOfRun()) {
        return Real::Get().clockNanoSleep(clock, flags, time, left);
    }
    const std::int64_t begin = (flags & TIMER_ABSTIME) != 0 ? 0 : Engine::Get()->Now();
    return Engine::Get()->Sleep(begin + ToNanoseconds(*time), __builtin_return_address(0));
}

TERN_STAND_IN(int, timer_create, (clockid_t clock, sigevent* event, timer_t* id)) {
    return IsOfRun() ? Engine::Get()->CreateTimer(event, id) : Real::Get().timerCreate(clock, event, id);
}

TERN_STAND_IN(int, timer_settime, (timer_t id, int flags, const itimerspec* time, itimerspec* former)) {
    return IsOfRun() ? Engine::Get()->SetTimer(id, flags, time, former, __builtin_return_address(0))
                     : Real::Get().timerSetTime(id, flags, time, former);
}

TERN_STAND_IN(int, timer_gettime, (timer_t id, itimerspec* time)) {
    return IsOfRun() ? Engine::Get()->GetTimer(id, time) : Real::Get().timerGetTime(id, time);
}

TERN_STAND_IN(int, timer_delete, (timer_t id)) {
    return IsOfRun() ? Engine::Get()->DeleteTimer(id, __builtin_return_address(0))
                     : Real::Get().timerDelete(id);
}
