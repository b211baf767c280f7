#pragma once

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "chooser.h"
#include "record.h"
#include "step.h"
#include "thread.h"

namespace tern::schedules {

/// Runs a scenario with one thread at a time. Every call at which threads meet comes here (stand_ins.cpp) on
/// the thread that makes it; a chooser decides who goes on. Time stands still, and passes when everybody
/// waits, or when the chooser lets it. The order of memory is that of the schedule: what weaker orders allow
/// is not seen.
///
/// One in the process. A run that fails does not return: it ends the process, with the record filled in.
class Engine {
public:
    /// Exit status of a process whose run failed.
    static constexpr int FAILED = 3;

    /// What a scenario may have different.
    struct Limits {
        std::size_t steps = 60000;
        std::int64_t virtualSeconds = 3600;
        bool pointsAfterUnlock = false;  ///< for code that uses atomics between its locks
        bool spuriousWakeUps = true;
        /// At the end of the run, as threads of timers that are destroyed do.
        bool signalWaitersMayStay = false;
        /// For how long threads that could run are held up together, while waits end by their limits. Beyond
        /// it time passes only when everybody waits. 0: never.
        std::int64_t heldUpMilliseconds = 15000;
    };

    explicit Engine(Record& record);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// The process's one, or null.
    static Engine* Get();
    /// The calling thread as one of the run; null for all others, whose calls are not the engine's.
    static Thread* Self();

    /// Runs the body on the calling thread until it has returned and all its threads have ended.
    void Run(const std::function<void()>& body, const Limits& limits, Chooser& chooser);

    // For scenarios, see scenario.h.
    [[noreturn]] void Fail(Record::Fault fault, const std::string& text);
    void Mark(const void* object, const void* caller);
    std::int64_t Now() const { return mNow; }
    /// The time that passed only because everybody waited.
    std::int64_t IdleTime() const { return mIdle; }
    void SetStopping(bool isStopping) { mIsStopping = isStopping; }
    void LetStay(bool mayStay) { Self()->mayStay = mayStay; }
    void SetName(const char* name);

    // For the stand-ins: as the functions of the same names.
    int Lock(pthread_mutex_t* mutex, std::int64_t limit, const void* caller);
    int TryLock(pthread_mutex_t* mutex, const void* caller);
    int Unlock(pthread_mutex_t* mutex, const void* caller);
    void ForgetMutex(pthread_mutex_t* mutex);
    int Wait(pthread_cond_t* condition, pthread_mutex_t* mutex, std::int64_t limit, const void* caller);
    void Wake(pthread_cond_t* condition, bool all, const void* caller);
    void ForgetCondition(pthread_cond_t* condition);
    int Create(pthread_t* handle, const pthread_attr_t* attributes, void* (*body)(void*), void* argument,
               const void* caller);
    int Join(pthread_t handle, void** result, const void* caller);
    int Detach(pthread_t handle, const void* caller);
    long FutexWait(const int* word, int expected, std::int64_t limit, const void* caller);
    long FutexWake(const int* word, int count, const void* caller);
    int Kill(pthread_t handle, int signal, const void* caller);
    /// The signal, or -1 with errno.
    int TakeSignal(const sigset_t* set, std::int64_t limit, const void* caller);
    void NoteMask(const sigset_t& mask);
    /// Waits until one is ready: the number, 0 when the time is over, or -1 with errno.
    int Poll(pollfd* descriptors, nfds_t count, std::int64_t limit, Action action, const void* caller);
    int Sleep(std::int64_t limit, const void* caller);
    int Once(pthread_once_t* once, void (*routine)(), const void* caller);
    int CreateTimer(const sigevent* event, timer_t* id);
    int SetTimer(timer_t id, int flags, const itimerspec* time, itimerspec* former, const void* caller);
    int GetTimer(timer_t id, itimerspec* time);
    int DeleteTimer(timer_t id, const void* caller);

private:
    struct Owned {
        Thread* owner = nullptr;
        unsigned count = 0;
    };
    struct Timer {
        bool exists = false;
        Thread* target = nullptr;
        int signal = 0;
        void (*function)(sigval) = nullptr;
        sigval value{};
        std::int64_t end = Thread::NO_LIMIT;
        std::int64_t period = 0;
    };
    static void* Begin(void* argument);
    static void OnThreadEnd(void* argument);

    Thread& Me() const { return *Self(); }
    void Point(Action action, const void* object, const void* caller);
    void Note(Step::Kind kind, Action action, const Thread& thread, const void* object, const void* caller);
    /// The thread's wait begins; it has been described. Returns when it is over.
    void Block();
    /// Decides who goes on and lets him, when it is another than `me`, who waits then unless it has ended.
    void GoOn(Thread& me);
    Thread* Decide(Thread& me);
    std::size_t Choose(std::vector<Option>& options, unsigned running);
    bool IsEnabled(Thread& thread);
    bool IsQuiet(const void* object) const;
    void Release(Thread& thread);
    static void EndConditionWait(Thread& thread, Thread::Reason reason);
    void Acquire(pthread_mutex_t* mutex, unsigned count);
    void PassTime(std::int64_t until, bool isIdle);
    void Expire(Timer& timer);
    void Send(Thread& target, int signal);
    bool HasHandled(Thread& thread) const;
    void RunHandlers();
    [[noreturn]] void FailStuck();
    std::string Describe(const Thread& thread) const;
    Thread* Find(pthread_t handle) const;
    Thread& Add();
    Timer* FindTimer(timer_t id);
    void EndLeftovers();
    bool AddTimed(unsigned cost);
    Thread* FindStarved(const Thread& me);
    int StartThread(Thread& thread, pthread_t* handle, const pthread_attr_t* attributes);

    Record& mRecord;
    Limits mLimits;
    Chooser* mChooser = nullptr;
    pthread_key_t mKey{};
    std::deque<Thread> mThreads;
    std::unordered_map<const void*, Owned> mMutexes;
    std::unordered_map<const void*, Thread*> mOnce;  ///< routines under way
    std::deque<Timer> mTimers;
    std::int64_t mNow = 0;
    std::int64_t mIdle = 0;
    std::int64_t mHeldUp = 0;
    bool mIsStopping = false;
    std::vector<Option> mOptions;
    std::vector<std::pair<std::uintptr_t, std::uintptr_t>> mQuiet;  ///< the libraries' variables
};

}  // namespace tern::schedules
