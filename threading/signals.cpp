#include <tern/threading/signals.h>

#include "threading/thread_signal.h"

namespace mwl::Threading {

int Signals::SendSignal(unsigned long threadId, int signal) {
    return SendThreadSignal(threadId, signal);
}

}  // namespace mwl::Threading
