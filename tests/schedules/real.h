#pragma once

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/types.h>
#include <time.h>

namespace tern::schedules {

/// The functions that the stand-ins stand in for.
struct Real {
    int (*lock)(pthread_mutex_t*);
    int (*tryLock)(pthread_mutex_t*);
    int (*unlock)(pthread_mutex_t*);
    int (*timedLock)(pthread_mutex_t*, const timespec*);
    int (*clockLock)(pthread_mutex_t*, clockid_t, const timespec*);
    int (*destroyMutex)(pthread_mutex_t*);
    int (*wait)(pthread_cond_t*, pthread_mutex_t*);
    int (*timedWait)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    int (*clockWait)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    int (*signalOne)(pthread_cond_t*);
    int (*broadcast)(pthread_cond_t*);
    int (*destroyCondition)(pthread_cond_t*);
    int (*create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    int (*join)(pthread_t, void**);
    int (*detach)(pthread_t);
    int (*once)(pthread_once_t*, void (*)());
    int (*kill)(pthread_t, int);
    int (*sigMask)(int, const sigset_t*, sigset_t*);
    int (*processMask)(int, const sigset_t*, sigset_t*);
    int (*sigWait)(const sigset_t*, int*);
    int (*sigTimedWait)(const sigset_t*, siginfo_t*, const timespec*);
    long (*systemCall)(long, ...);
    ssize_t (*read)(int, void*, size_t);
    ssize_t (*write)(int, const void*, size_t);
    int (*poll)(pollfd*, nfds_t, int);
    int (*epollWait)(int, epoll_event*, int, int);
    int (*clockGetTime)(clockid_t, timespec*);
    int (*nanoSleep)(const timespec*, timespec*);
    int (*clockNanoSleep)(clockid_t, int, const timespec*, timespec*);
    int (*timerCreate)(clockid_t, sigevent*, timer_t*);
    int (*timerSetTime)(timer_t, int, const itimerspec*, itimerspec*);
    int (*timerGetTime)(timer_t, itimerspec*);
    int (*timerDelete)(timer_t);

    /// Looked up by the first call.
    static const Real& Get();
};

}  // namespace tern::schedules
