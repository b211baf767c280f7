// The engine: signals.

#include <cerrno>

#include "engine.h"
#include "engine_parts.h"
#include "real.h"

namespace tern::schedules {

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

}  // namespace tern::schedules
