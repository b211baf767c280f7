#include "threading/thread_signal.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>

namespace mwl::Threading {

int SendThreadSignal(unsigned long threadId, int signal) noexcept {
    return threadId == 0 ? ESRCH : pthread_kill(static_cast<pthread_t>(threadId), signal);
}

}  // namespace mwl::Threading
