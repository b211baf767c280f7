#pragma once

#include <tern/foundation/api.h>

namespace mwl::Threading {

/// Signals one thread of the process; `Signals` does it, a test may stand in.
class TERN_API SignalsInterface {
public:
    virtual ~SignalsInterface();

    /// Sends `signal` to the thread whose pthread_self() is `threadId`. Returns 0, or the error number; may
    /// be called by any thread.
    virtual int SendSignal(unsigned long threadId, int signal) = 0;
};

}  // namespace mwl::Threading
