#include "engine.h"

#include <link.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "real.h"

namespace tern::schedules {

namespace {

Engine* gEngine = nullptr;
thread_local Thread* tSelf = nullptr;

constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;
constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;
/// Where virtual time begins: not at 0, which code may take for "never".
constexpr std::int64_t BEGIN = 1000 * NANOSECONDS_PER_SECOND;

void WaitAtGate(Thread& thread) {
    while (thread.gate.exchange(0, std::memory_order_acquire) == 0) {
        Real::Get().systemCall(SYS_futex, &thread.gate, FUTEX_WAIT_PRIVATE, 0, nullptr);
    }
}

void OpenGate(Thread& thread) {
    thread.gate.store(1, std::memory_order_release);
    Real::Get().systemCall(SYS_futex, &thread.gate, FUTEX_WAKE_PRIVATE, 1);
}

constexpr std::uint64_t BitOf(int signal) {
    return std::uint64_t{1} << (signal - 1);
}

std::uint64_t BitsOf(const sigset_t& set) {
    std::uint64_t bits = 0;
    for (int signal = 1; signal <= 64; ++signal) {
        bits |= sigismember(&set, signal) == 1 ? BitOf(signal) : 0;
    }
    return bits;
}

bool IsRecursive(const pthread_mutex_t* mutex) {
    return (mutex->__data.__kind & 3) == PTHREAD_MUTEX_RECURSIVE_NP;
}

bool IsChecked(const pthread_mutex_t* mutex) {
    return (mutex->__data.__kind & 3) == PTHREAD_MUTEX_ERRORCHECK_NP;
}

std::int64_t ToNanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * NANOSECONDS_PER_SECOND + time.tv_nsec;
}

timespec ToTimespec(std::int64_t nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / NANOSECONDS_PER_SECOND);
    time.tv_nsec = static_cast<long>(nanoseconds % NANOSECONDS_PER_SECOND);
    return time;
}

const void* AsObject(long value) {
    return reinterpret_cast<const void*>(value);  // for the record only
}

}  // namespace

Engine::Engine(Record& record) : mRecord(record) {
    gEngine = this;
    static_cast<void>(pthread_key_create(&mKey, &Engine::OnThreadEnd));
    // The variables of shared libraries: locks there are held for a few instructions, and nobody waits under
    // them.
    static_cast<void>(dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            if (info->dlpi_name != nullptr && info->dlpi_name[0] != '\0') {
                for (int index = 0; index < info->dlpi_phnum; ++index) {
                    const auto& header = info->dlpi_phdr[index];
                    if (header.p_type == PT_LOAD && (header.p_flags & PF_W) != 0) {
                        const std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
                        static_cast<Engine*>(data)->mQuiet.emplace_back(begin, begin + header.p_memsz);
                    }
                }
            }
            return 0;
        },
        this));
}

Engine::~Engine() {
    static_cast<void>(pthread_key_delete(mKey));
    gEngine = nullptr;
}

Engine* Engine::Get() {
    return gEngine;
}

Thread* Engine::Self() {
    return tSelf;
}

void Engine::Run(const std::function<void()>& body, const Limits& limits, Chooser& chooser) {
    mLimits = limits;
    mChooser = &chooser;
    mThreads.clear();
    mMutexes.clear();
    mOnce.clear();
    mTimers.clear();
    mNow = BEGIN;
    mIdle = 0;
    mHeldUp = 0;
    mIsStopping = false;
    mRecord.choiceCount = 0;
    mRecord.stepCount = 0;
    mRecord.threadCount = 0;
    ++mRecord.schedules;

    Thread& me = Add();
    me.handle = pthread_self();
    me.id = gettid();
    static_cast<void>(Real::Get().sigMask(SIG_BLOCK, nullptr, &me.mask));
    const sigset_t mask = me.mask;
    SetName("main");
    body();
    me.wait = Thread::Wait::Others;
    Note(Step::Kind::Reaches, Action::End, me, nullptr, nullptr);
    Block();
    EndLeftovers();
    tSelf = nullptr;
    static_cast<void>(Real::Get().sigMask(SIG_SETMASK, &mask, nullptr));
    mRecord.allSteps += mRecord.stepCount;
    mRecord.mostChoices = std::max(mRecord.mostChoices, mRecord.choiceCount);
}

void Engine::EndLeftovers() {
    for (Thread& thread : mThreads) {
        if (!thread.hasEnded && &thread != &Me()) {
            thread.isToLeave = true;
            thread.wait = Thread::Wait::Nothing;
            Me().wait = Thread::Wait::Join;
            Me().other = &thread;
            Block();
        }
    }
}

void Engine::Fail(Record::Fault fault, const std::string& text) {
    mRecord.fault = fault;
    mRecord.text[text.copy(mRecord.text.data(), mRecord.text.size() - 1)] = '\0';
    _exit(FAILED);
}

void Engine::SetName(const char* name) {
    auto& place = mRecord.names[Me().number];
    place[std::string_view(name).copy(place.data(), place.size() - 1)] = '\0';
}

Thread& Engine::Add() {
    if (mThreads.size() == Record::MOST_THREADS) {
        Fail(Record::Fault::NoEnd, "more threads than there is room for");
    }
    Thread& thread = mThreads.emplace_back();
    thread.number = static_cast<unsigned>(mThreads.size() - 1);
    mRecord.threadCount = mThreads.size();
    mRecord.names[thread.number][0] = '\0';
    if (thread.number == 0) {
        tSelf = &thread;
    }
    return thread;
}

Thread* Engine::Find(pthread_t handle) const {
    const auto found = std::find_if(mThreads.rbegin(), mThreads.rend(), [&](const Thread& thread) {
        return !thread.isJoined && !(thread.isDetached && thread.hasEnded) &&
               pthread_equal(thread.handle, handle) != 0;
    });
    return found == mThreads.rend() ? nullptr : const_cast<Thread*>(&*found);
}

bool Engine::IsQuiet(const void* object) const {
    const auto address = reinterpret_cast<std::uintptr_t>(object);
    return std::any_of(mQuiet.begin(), mQuiet.end(),
                       [&](const auto& range) { return address >= range.first && address < range.second; });
}

void Engine::Note(Step::Kind kind, Action action, const Thread& thread, const void* object,
                  const void* caller) {
    Step& step = mRecord.steps[mRecord.stepCount++ % Record::MOST_STEPS];
    step.kind = kind;
    step.action = action;
    step.thread = static_cast<std::uint8_t>(thread.number);
    step.isChoice = false;
    step.object = object;
    step.caller = caller;
    step.now = mNow - BEGIN;
    if (mRecord.stepCount > mLimits.steps) {
        Fail(mIsStopping ? Record::Fault::MissedStop : Record::Fault::NoEnd,
             "no end after " + std::to_string(mLimits.steps) + " steps");
    }
}

void Engine::Point(Action action, const void* object, const void* caller) {
    Thread& me = Me();
    Note(Step::Kind::Reaches, action, me, object, caller);
    GoOn(me);
    RunHandlers();
}

void Engine::Block() {
    GoOn(Me());
}

void Engine::GoOn(Thread& me) {
    Thread* const next = Decide(me);
    if (next == &me) {
        return;
    }
    // Read before: when the other goes on the run may end, and this object with it.
    const bool hasEnded = me.hasEnded;
    OpenGate(*next);
    if (hasEnded) {
        return;
    }
    WaitAtGate(me);
    if (me.isToLeave) {
        me.isToLeave = false;
        pthread_exit(nullptr);
    }
}

Thread* Engine::Decide(Thread& me) {
    while (true) {
        mOptions.clear();
        const bool goesOn = !me.hasEnded && IsEnabled(me);
        if (Thread* const starved = goesOn ? FindStarved(me) : nullptr; starved != nullptr) {
            Release(*starved);
            Note(Step::Kind::Runs, Action::Mark, *starved, nullptr, nullptr);
            return starved;
        }
        if (goesOn) {
            mOptions.push_back({Option::Kind::Run, static_cast<std::uint8_t>(me.number), 0});
        }
        const std::uint8_t cost = goesOn ? 1 : 0;
        for (Thread& thread : mThreads) {
            if (&thread != &me && !thread.hasEnded && IsEnabled(thread)) {
                mOptions.push_back({Option::Kind::Run, static_cast<std::uint8_t>(thread.number), cost});
            }
        }
        const bool isIdle = mOptions.empty();
        if (!AddTimed(isIdle ? 0 : 1) && isIdle) {
            FailStuck();
        }
        if (mLimits.spuriousWakeUps) {
            for (const Thread& thread : mThreads) {
                if (!thread.hasEnded && thread.wait == Thread::Wait::Condition) {
                    mOptions.push_back({Option::Kind::Spurious, static_cast<std::uint8_t>(thread.number), 1});
                }
            }
        }
        const Option option = mOptions[Choose(mOptions, me.number)];
        if (option.kind == Option::Kind::Expire) {
            Timer& timer = mTimers[option.thread];
            Note(Step::Kind::TimerExpires, Action::Mark, timer.target == nullptr ? me : *timer.target,
                 nullptr, nullptr);
            PassTime(timer.end, isIdle);
            if (timer.target == nullptr || timer.target->hasEnded || !IsEnabled(*timer.target)) {
                continue;
            }
            Release(*timer.target);
            return timer.target;
        }
        Thread& thread = mThreads[option.thread];
        if (option.kind == Option::Kind::TimeOut) {
            Note(Step::Kind::TimesOut, Action::Mark, thread, nullptr, nullptr);
            PassTime(thread.limit, isIdle);
        } else if (option.kind == Option::Kind::Spurious) {
            Note(Step::Kind::Spurious, Action::Mark, thread, nullptr, nullptr);
            EndConditionWait(thread, Thread::Reason::Spurious);
        }
        if (thread.wait == Thread::Wait::Condition) {
            EndConditionWait(thread, Thread::Reason::TimedOut);
        }
        if (!IsEnabled(thread)) {
            continue;  // it needs the mutex first
        }
        Release(thread);
        if (&thread != &me) {
            Note(Step::Kind::Runs, Action::Mark, thread, nullptr, nullptr);
        }
        return &thread;
    }
}

/// One that could run, and has not for so long that no real scheduler would do that: threads that look again
/// and again must not hold up the one that they look for.
Thread* Engine::FindStarved(const Thread& me) {
    constexpr std::size_t PATIENCE = 300;
    Thread* starved = nullptr;
    for (Thread& thread : mThreads) {
        if (thread.hasEnded || &thread == &me || !IsEnabled(thread) ||
            thread.wait == Thread::Wait::Condition) {
            thread.couldRunSince = mRecord.stepCount;
        } else if (mRecord.stepCount - thread.couldRunSince > PATIENCE) {
            starved = &thread;
        }
    }
    return starved;
}

/// The waits and timers that end next by time.
bool Engine::AddTimed(unsigned cost) {
    std::int64_t earliest = INT64_MAX;
    const auto isTimed = [this](Thread& thread) {
        return !thread.hasEnded && thread.wait != Thread::Wait::Nothing && thread.limit != Thread::NO_LIMIT &&
               !IsEnabled(thread);
    };
    for (Thread& thread : mThreads) {
        if (isTimed(thread)) {
            earliest = std::min(earliest, thread.limit);
        }
    }
    for (const Timer& timer : mTimers) {
        if (timer.exists && timer.end != Thread::NO_LIMIT) {
            earliest = std::min(earliest, timer.end);
        }
    }
    if (earliest == INT64_MAX ||
        (cost != 0 && mHeldUp + earliest - mNow > mLimits.heldUpMilliseconds * NANOSECONDS_PER_MILLISECOND)) {
        return false;
    }
    for (Thread& thread : mThreads) {
        if (isTimed(thread) && thread.limit == earliest) {
            mOptions.push_back({Option::Kind::TimeOut, static_cast<std::uint8_t>(thread.number),
                                static_cast<std::uint8_t>(cost)});
        }
    }
    for (std::size_t index = 0; index < mTimers.size(); ++index) {
        if (mTimers[index].exists && mTimers[index].end == earliest) {
            mOptions.push_back(
                {Option::Kind::Expire, static_cast<std::uint8_t>(index), static_cast<std::uint8_t>(cost)});
        }
    }
    return true;
}

std::size_t Engine::Choose(std::vector<Option>& options, unsigned running) {
    if (options.size() == 1) {
        return 0;
    }
    if (mRecord.choiceCount == Record::MOST_CHOICES) {
        Fail(Record::Fault::NoEnd, "more choices than there is room for");
    }
    const std::size_t number = mRecord.choiceCount;
    const std::size_t taken = mChooser->Choose(number, options, running);
    mRecord.choices[number] = static_cast<unsigned char>(taken);
    mRecord.choiceCount = number + 1;
    if (mRecord.stepCount > 0) {
        Step& step = mRecord.steps[(mRecord.stepCount - 1) % Record::MOST_STEPS];
        step.isChoice = true;
        step.choice = static_cast<std::uint32_t>(number);
    }
    return taken;
}

bool Engine::IsEnabled(Thread& thread) {
    const bool isOver = thread.limit != Thread::NO_LIMIT && thread.limit <= mNow;
    switch (thread.wait) {
        case Thread::Wait::Nothing:
            return true;
        case Thread::Wait::Mutex:
            return mMutexes[thread.object].owner == nullptr || isOver;
        case Thread::Wait::Condition:
        case Thread::Wait::Futex:
            return isOver;
        case Thread::Wait::Join:
            return thread.other->hasEnded;
        case Thread::Wait::Signal:
            return isOver || (thread.pending & BitsOf(thread.awaited)) != 0 || HasHandled(thread);
        case Thread::Wait::Descriptors:
            return isOver || HasHandled(thread) ||
                   Real::Get().poll(thread.descriptors.data(), thread.descriptors.size(), 0) != 0;
        case Thread::Wait::Sleep:
            return isOver || HasHandled(thread);
        case Thread::Wait::Once:
            return mOnce.count(thread.object) == 0;
        case Thread::Wait::Others:
            return std::all_of(mThreads.begin(), mThreads.end(), [&](Thread& other) {
                const bool mayStay =
                    other.mayStay || (mLimits.signalWaitersMayStay && other.wait == Thread::Wait::Signal);
                return &other == &thread || other.hasEnded || (mayStay && !IsEnabled(other));
            });
    }
    return true;
}

/// Ends the wait of one that can go on, and tells how.
void Engine::Release(Thread& thread) {
    using Wait = Thread::Wait;
    if (thread.wait == Wait::Nothing) {
        return;
    }
    const bool isOver = thread.limit != Thread::NO_LIMIT && thread.limit <= mNow;
    switch (thread.wait) {
        case Wait::Mutex:
            if (mMutexes[thread.object].owner != nullptr) {
                thread.reason = Thread::Reason::TimedOut;
            }
            break;
        case Wait::Futex:
            thread.reason = Thread::Reason::TimedOut;
            break;
        case Wait::Signal:
            thread.reason = (thread.pending & BitsOf(thread.awaited)) != 0 ? Thread::Reason::Come
                            : isOver                                       ? Thread::Reason::TimedOut
                                                                           : Thread::Reason::Interrupted;
            break;
        case Wait::Descriptors:
            thread.reason = Real::Get().poll(thread.descriptors.data(), thread.descriptors.size(), 0) != 0
                                ? Thread::Reason::Come
                            : isOver ? Thread::Reason::TimedOut
                                     : Thread::Reason::Interrupted;
            break;
        case Wait::Sleep:
            thread.reason = isOver ? Thread::Reason::TimedOut : Thread::Reason::Interrupted;
            break;
        default:
            break;
    }
    thread.wait = Wait::Nothing;
    thread.limit = Thread::NO_LIMIT;
}

/// The thread is to have its mutex again.
void Engine::EndConditionWait(Thread& thread, Thread::Reason reason) {
    thread.wait = Thread::Wait::Mutex;
    thread.object = thread.mutex;
    thread.limit = Thread::NO_LIMIT;
    thread.reason = reason;
}

void Engine::PassTime(std::int64_t until, bool isIdle) {
    if (until > mNow) {
        (isIdle ? mIdle : mHeldUp) += until - mNow;
        mNow = until;
    }
    for (std::size_t index = 0; index < mTimers.size(); ++index) {
        Timer& timer = mTimers[index];
        if (timer.exists && timer.end != Thread::NO_LIMIT && timer.end <= mNow) {
            timer.end = timer.period == 0 ? Thread::NO_LIMIT : mNow + timer.period;
            Expire(timer);
        }
    }
    if (mNow - BEGIN > mLimits.virtualSeconds * NANOSECONDS_PER_SECOND) {
        std::string text =
            "no end after " + std::to_string(mLimits.virtualSeconds) + " s of virtual time, in which\n";
        for (const Thread& thread : mThreads) {
            text += thread.hasEnded ? "" : Describe(thread);
        }
        Fail(mIsStopping ? Record::Fault::MissedStop : Record::Fault::NoEnd, text);
    }
}

void Engine::Expire(Timer& timer) {
    if (timer.target != nullptr) {
        if (!timer.target->hasEnded) {
            Send(*timer.target, timer.signal);
        }
        return;
    }
    // As the C library does: a thread for each call.
    struct Call {
        void (*function)(sigval);
        sigval value;
    };
    Thread& thread = Add();
    sigfillset(&thread.mask);
    thread.isDetached = true;
    thread.body = [](void* argument) -> void* {
        const std::unique_ptr<Call> call(static_cast<Call*>(argument));
        call->function(call->value);
        return nullptr;
    };
    thread.argument = new Call{timer.function, timer.value};
    if (StartThread(thread, &thread.handle, nullptr) != 0) {
        Fail(Record::Fault::NoEnd, "no thread for a timer");
    }
    static_cast<void>(Real::Get().detach(thread.handle));
}

std::string Engine::Describe(const Thread& thread) const {
    const auto name = [this](const Thread& one) {
        const char* const given = mRecord.names[one.number].data();
        return "thread " + std::to_string(one.number) +
               (given[0] == '\0' ? "" : std::string(" (") + given + ")");
    };
    std::string text = "  " + name(thread);
    switch (thread.wait) {
        case Thread::Wait::Nothing:
            return text + " can run\n";
        case Thread::Wait::Mutex: {
            const auto found = mMutexes.find(thread.object);
            return text + " waits for a mutex" +
                   (found == mMutexes.end() || found->second.owner == nullptr
                        ? ""
                        : " that " + name(*found->second.owner) + " holds") +
                   "\n";
        }
        case Thread::Wait::Condition:
            return text + " waits at a condition variable" +
                   (thread.limit == Thread::NO_LIMIT ? "\n" : " with a limit\n");
        case Thread::Wait::Join:
            return text + " waits for the end of " + name(*thread.other) + "\n";
        case Thread::Wait::Futex:
            return text + " waits for a future or an atomic\n";
        case Thread::Wait::Signal:
            return text + " waits for a signal\n";
        case Thread::Wait::Descriptors:
            return text + " waits at descriptor " +
                   (thread.descriptors.empty() ? "-" : std::to_string(thread.descriptors.front().fd)) + "\n";
        case Thread::Wait::Sleep:
            return text + " sleeps\n";
        case Thread::Wait::Once:
            return text + " waits for what is done once\n";
        case Thread::Wait::Others:
            return text + " waits for the end of all others\n";
    }
    return text;
}

void Engine::FailStuck() {
    std::string text = "nobody can go on:\n";
    bool hasMutex = false;
    bool hasWait = false;
    for (const Thread& thread : mThreads) {
        if (!thread.hasEnded) {
            text += Describe(thread);
            hasMutex = hasMutex || thread.wait == Thread::Wait::Mutex;
            hasWait = hasWait || thread.wait == Thread::Wait::Condition ||
                      thread.wait == Thread::Wait::Futex || thread.wait == Thread::Wait::Signal ||
                      thread.wait == Thread::Wait::Descriptors;
        }
    }
    Fail(hasMutex || !hasWait ? Record::Fault::Deadlock
         : mIsStopping        ? Record::Fault::MissedStop
                              : Record::Fault::LostWakeUp,
         text);
}

void Engine::Mark(const void* object, const void* caller) {
    Point(Action::Mark, object, caller);
}

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

// ---- threads

int Engine::StartThread(Thread& thread, pthread_t* handle, const pthread_attr_t* attributes) {
    return Real::Get().create(handle, attributes, &Engine::Begin, &thread);
}

int Engine::Create(pthread_t* handle, const pthread_attr_t* attributes, void* (*body)(void*), void* argument,
                   const void* caller) {
    Thread& thread = Add();
    thread.mask = Me().mask;
    thread.body = body;
    thread.argument = argument;
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        static_cast<void>(pthread_attr_getdetachstate(attributes, &state));
    }
    thread.isDetached = state == PTHREAD_CREATE_DETACHED;
    pthread_t made{};
    if (const int error = StartThread(thread, &made, attributes); error != 0) {
        thread.hasEnded = true;
        thread.isJoined = true;
        return error;
    }
    thread.handle = made;
    *handle = made;
    Point(Action::Create, AsObject(static_cast<long>(thread.number)), caller);
    return 0;
}

void* Engine::Begin(void* argument) {
    Thread& thread = *static_cast<Thread*>(argument);
    tSelf = &thread;
    thread.id = gettid();
    static_cast<void>(pthread_setspecific(gEngine->mKey, &thread));
    WaitAtGate(thread);
    return thread.body(thread.argument);
}

/// Runs when the thread's other thread-local objects have gone.
void Engine::OnThreadEnd(void* argument) {
    Thread& me = *static_cast<Thread*>(argument);
    me.hasEnded = true;
    gEngine->Note(Step::Kind::Reaches, Action::End, me, nullptr, nullptr);
    gEngine->GoOn(me);
    tSelf = nullptr;
}

int Engine::Join(pthread_t handle, void** result, const void* caller) {
    Thread& me = Me();
    Thread* const other = Find(handle);
    if (other == nullptr || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is joined that has been joined or detached");
    }
    if (other == &me) {
        return EDEADLK;
    }
    Note(Step::Kind::Reaches, Action::Join, me, AsObject(static_cast<long>(other->number)), caller);
    me.wait = Thread::Wait::Join;
    me.other = other;
    Block();
    RunHandlers();
    if (other->isJoined || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is joined that has been joined or detached meanwhile");
    }
    other->isJoined = true;
    return Real::Get().join(handle, result);
}

int Engine::Detach(pthread_t handle, const void* caller) {
    Point(Action::Detach, nullptr, caller);
    Thread* const other = Find(handle);
    if (other == nullptr || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is detached that has been joined or detached");
    }
    other->isDetached = true;
    return Real::Get().detach(handle);
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

// ---- signals

int Engine::Kill(pthread_t handle, int signal, const void* caller) {
    Point(Action::Kill, AsObject(signal), caller);
    Thread* const target = Find(handle);
    if (target == nullptr) {
        Fail(Record::Fault::Misuse,
             "signal " + std::to_string(signal) +
                 " is sent to a thread that has been joined, or was detached and has ended");
    }
    if (signal != 0 && !target->hasEnded) {
        Send(*target, signal);
        RunHandlers();
    }
    return 0;
}

void Engine::Send(Thread& target, int signal) {
    const bool isAwaited = target.wait == Thread::Wait::Signal && sigismember(&target.awaited, signal) == 1;
    if (signal != SIGKILL && (isAwaited || sigismember(&target.mask, signal) == 1)) {
        target.pending |= BitOf(signal);
        return;
    }
    struct sigaction action {};
    static_cast<void>(sigaction(signal, nullptr, &action));
    if (signal == SIGKILL || (action.sa_handler == SIG_DFL && signal != SIGCHLD && signal != SIGURG &&
                              signal != SIGWINCH && signal != SIGCONT)) {
        Fail(Record::Fault::Killed, "signal " + std::to_string(signal) + " ends the process");
    }
    if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
        target.pending |= BitOf(signal);
    }
}

/// Whether a signal has come for which there is a handler, and which the thread does not block.
bool Engine::HasHandled(Thread& thread) const {
    std::uint64_t handled = thread.pending & ~BitsOf(thread.mask);
    if (thread.wait == Thread::Wait::Signal) {
        handled &= ~BitsOf(thread.awaited);
    }
    return handled != 0;
}

void Engine::RunHandlers() {
    Thread& me = Me();
    if (me.pending == 0) {
        return;
    }
    const std::uint64_t handled = me.pending & ~BitsOf(me.mask);
    for (int signal = 1; signal <= 64; ++signal) {
        if ((handled & BitOf(signal)) != 0) {
            me.pending &= ~BitOf(signal);
            struct sigaction action {};
            static_cast<void>(sigaction(signal, nullptr, &action));
            const int error = errno;
            if (action.sa_handler == SIG_DFL) {
                Fail(Record::Fault::Killed, "signal " + std::to_string(signal) + " ends the process");
            }
            if ((action.sa_flags & SA_SIGINFO) != 0) {
                siginfo_t information{};
                information.si_signo = signal;
                action.sa_sigaction(signal, &information, nullptr);
            } else if (action.sa_handler != SIG_IGN) {
                action.sa_handler(signal);
            }
            errno = error;
        }
    }
}

int Engine::TakeSignal(const sigset_t* set, std::int64_t limit, const void* caller) {
    Thread& me = Me();
    Point(Action::TakeSignal, nullptr, caller);
    const std::uint64_t awaited = BitsOf(*set);
    if ((me.pending & awaited) == 0 && (limit == Thread::NO_LIMIT || limit > mNow)) {
        me.wait = Thread::Wait::Signal;
        me.awaited = *set;
        me.limit = limit;
        Block();
        RunHandlers();
    }
    const std::uint64_t come = me.pending & awaited;
    if (come == 0) {
        errno = me.reason == Thread::Reason::Interrupted ? EINTR : EAGAIN;
        return -1;
    }
    const int signal = __builtin_ctzll(come) + 1;
    me.pending &= ~BitOf(signal);
    return signal;
}

void Engine::NoteMask(const sigset_t& mask) {
    Me().mask = mask;
    RunHandlers();
}

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
