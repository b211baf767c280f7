#include "real.h"

#include <dlfcn.h>

namespace tern::schedules {

namespace {

template <typename Function>
void Find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

Real FindAll() {
    Real real{};
    Find(real.lock, "pthread_mutex_lock");
    Find(real.tryLock, "pthread_mutex_trylock");
    Find(real.unlock, "pthread_mutex_unlock");
    Find(real.timedLock, "pthread_mutex_timedlock");
    Find(real.clockLock, "pthread_mutex_clocklock");
    Find(real.destroyMutex, "pthread_mutex_destroy");
    Find(real.wait, "pthread_cond_wait");
    Find(real.timedWait, "pthread_cond_timedwait");
    Find(real.clockWait, "pthread_cond_clockwait");
    Find(real.signalOne, "pthread_cond_signal");
    Find(real.broadcast, "pthread_cond_broadcast");
    Find(real.destroyCondition, "pthread_cond_destroy");
    Find(real.create, "pthread_create");
    Find(real.join, "pthread_join");
    Find(real.detach, "pthread_detach");
    Find(real.once, "pthread_once");
    Find(real.kill, "pthread_kill");
    Find(real.sigMask, "pthread_sigmask");
    Find(real.processMask, "sigprocmask");
    Find(real.sigWait, "sigwait");
    Find(real.sigTimedWait, "sigtimedwait");
    Find(real.systemCall, "syscall");
    Find(real.read, "read");
    Find(real.write, "write");
    Find(real.poll, "poll");
    Find(real.epollWait, "epoll_wait");
    Find(real.clockGetTime, "clock_gettime");
    Find(real.nanoSleep, "nanosleep");
    Find(real.clockNanoSleep, "clock_nanosleep");
    Find(real.timerCreate, "timer_create");
    Find(real.timerSetTime, "timer_settime");
    Find(real.timerGetTime, "timer_gettime");
    Find(real.timerDelete, "timer_delete");
    return real;
}

// Not a variable of a function's: its guard would call the stand-ins.
Real gReal;
bool gIsFound = false;

}  // namespace

const Real& Real::Get() {
    if (!gIsFound) {
        gReal = FindAll();
        gIsFound = true;
    }
    return gReal;
}

}  // namespace tern::schedules
