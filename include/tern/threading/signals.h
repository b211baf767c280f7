#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/signals_interface.h>

namespace mwl::Threading {

/// Signals threads with pthread_kill(3). Thread-safe, without state.
class TERN_API Signals : public SignalsInterface {
public:
    /// 0, or the error number of pthread_kill(3); ESRCH for thread id 0. Nothing is logged; does not block.
    /// REQUIRES: the thread has not been joined, nor has it ended detached.
    int SendSignal(unsigned long threadId, int signal) override;
};

}  // namespace mwl::Threading
