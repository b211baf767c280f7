#include "process_execution/quick_fork.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <memory>

namespace mwl::ProcessExecution {

namespace {

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer keeps what it knows of a thread in the memory that would be shared: the child would change
// it.
constexpr int SHARING = 0;
#else
constexpr int SHARING = CLONE_VM | CLONE_VFORK;
#endif

constexpr std::size_t STACK_SIZE = 64UL * 1024;
constexpr std::size_t STACK_ALIGNMENT = 64;  // more than any processor asks for

struct Child {
    int (*body)(void* argument);
    void* argument;
    sigset_t mask;     ///< the caller's
    sigset_t handled;  ///< signals that have a handler
};

/// While it lives, neither a signal handler nor a cancellation runs on the thread: in the child it would run
/// on the memory of the parent.
class Undisturbed {
public:
    explicit Undisturbed(sigset_t& formerMask) : mFormerMask(formerMask) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mFormerState);
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &mFormerMask);
    }
    ~Undisturbed() {
        pthread_sigmask(SIG_SETMASK, &mFormerMask, nullptr);
        pthread_setcancelstate(mFormerState, nullptr);
    }
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;

private:
    sigset_t& mFormerMask;
    int mFormerState = PTHREAD_CANCEL_ENABLE;
};

void CollectHandled(sigset_t& handled) {
    sigemptyset(&handled);
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN) {
            sigaddset(&handled, number);
        }
    }
}

/// What execve(2) does to handlers, done before signals may come.
void DropHandler(int number) {
    // All zero is the default action, whatever the order of the kernel's structure. Not by sigaction(3),
    // which a sanitizer stands in for and notes, in the memory of the parent.
    const unsigned char defaultAction[64] = {};
    static_cast<void>(syscall(SYS_rt_sigaction, number, defaultAction, nullptr, _NSIG / 8));
}

int RunChild(void* argument) {
    const Child& child = *static_cast<const Child*>(argument);
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&child.handled, number) == 1) {
            DropHandler(number);
        }
    }
    pthread_sigmask(SIG_SETMASK, &child.mask, nullptr);
    return child.body(child.argument);
}

}  // namespace

pid_t QuickFork(int (*body)(void* argument), void* argument) {
    const auto stack = std::make_unique_for_overwrite<std::byte[]>(STACK_SIZE + STACK_ALIGNMENT);
    void* top = stack.get() + STACK_SIZE;
    std::size_t room = STACK_ALIGNMENT;
    top = std::align(STACK_ALIGNMENT, 0, top, room);
    Child child{body, argument, {}, {}};
    CollectHandled(child.handled);
    const Undisturbed undisturbed(child.mask);
    return clone(RunChild, top, SHARING | SIGCHLD, &child);
}

}  // namespace mwl::ProcessExecution
