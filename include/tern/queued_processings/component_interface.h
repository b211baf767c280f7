#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::QueuedProcessings {

/// A worker thread that sleeps until it is woken: `Component` is the real one, a test may stand in.
class TERN_API ComponentInterface {
public:
    virtual ~ComponentInterface();

    /// Starts the thread and waits until it is initialised.
    virtual StatusCode Start() = 0;
    /// Asks the thread to end. Does not wait for it.
    virtual void Stop() = 0;
    /// Waits until the thread has ended.
    virtual void Join() = 0;
    /// Asks for one more run of the processing.
    virtual void WakeUp() = 0;
};

}  // namespace mwl::QueuedProcessings
