#include "engine.h"

#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "engine_parts.h"
#include "real.h"

namespace tern::schedules {

namespace {

Engine* gEngine = nullptr;
thread_local Thread* tSelf = nullptr;

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

}  // namespace tern::schedules
