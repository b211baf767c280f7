#include "process_execution/start_sharing.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace mwl::ProcessExecution {

namespace {

/// ThreadSanitizer's stand-ins for the calls that the child makes keep books of descriptors, which the two
/// would share: there the child gets a copy.
#if defined(__SANITIZE_THREAD__)
constexpr bool IS_FORKED = true;
#else
constexpr bool IS_FORKED = false;
#endif

/// Far more than a few system calls take.
constexpr std::size_t STACK_BYTES = std::size_t{64} * 1024;

/// The child's stack, with a page below it that nobody can write to.
class Stack {
public:
    Stack() : mGuard(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
        void* const memory = mmap(nullptr, mGuard + STACK_BYTES, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (memory != MAP_FAILED) {
            mMemory = static_cast<std::byte*>(memory);
            // Only a precaution: without it all works the same.
            static_cast<void>(mprotect(memory, mGuard, PROT_NONE));
        }
    }
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;
    ~Stack() {
        if (mMemory != nullptr) {
            const int error = errno;
            munmap(mMemory, mGuard + STACK_BYTES);
            errno = error;
        }
    }

    bool IsThere() const { return mMemory != nullptr; }
    /// Stacks grow downwards on every platform of ours.
    void* GetTop() const { return mMemory + mGuard + STACK_BYTES; }

private:
    const std::size_t mGuard;
    std::byte* mMemory = nullptr;
};

struct Child {
    int (*run)(void* data);
    void* data;
    /// The calling thread's.
    sigset_t mask;
};

/// As executing does it: what is ignored stays ignored. A program's table of handlers is its own from the
/// start; the memory that they work on is not.
void ResetHandlers() {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        // Numbers that the C library keeps to itself are refused: nobody sends them to a process.
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = SIG_DFL;
            static_cast<void>(sigaction(number, &action, nullptr));
        }
    }
}

int RunWithSignals(void* data) {
    Child& child = *static_cast<Child*>(data);
    ResetHandlers();
    static_cast<void>(pthread_sigmask(SIG_SETMASK, &child.mask, nullptr));
    return child.run(child.data);
}

/// Returns what clone(2) returns.
pid_t CloneOnOwnStack(int (*run)(void* data), void* data) {
    const Stack stack;
    if (!stack.IsThere()) {
        return -1;
    }
    Child child{run, data, {}};
    sigset_t all;
    static_cast<void>(sigfillset(&all));
    // No signal is handled in the child before the handlers are reset.
    if (const int error = pthread_sigmask(SIG_SETMASK, &all, &child.mask); error != 0) {
        errno = error;
        return -1;
    }
    const pid_t pid = clone(RunWithSignals, stack.GetTop(), CLONE_VM | CLONE_VFORK | SIGCHLD, &child);
    const int error = errno;
    static_cast<void>(pthread_sigmask(SIG_SETMASK, &child.mask, nullptr));
    errno = error;
    return pid;
}

}  // namespace

pid_t StartSharing(int (*run)(void* data), void* data) {
    if constexpr (!IS_FORKED) {
        return CloneOnOwnStack(run, data);
    }
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(run(data));
    }
    return pid;
}

}  // namespace mwl::ProcessExecution
