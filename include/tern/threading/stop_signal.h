#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

namespace mwl::Threading {

/// The stop signal, SIGUSR1: it brings a thread out of a blocking system call, which then fails with EINTR,
/// so that the thread looks again whether it has to stop. Its handler does nothing.
///
/// A signal that arrives just before the call blocks is spent without effect: a thread whose stop depends on
/// it is signalled again until it has left. Messages carry the logger name "Threading::StopSignal".
class TERN_API StopSignal {
public:
    /// Installs the handler (sigaction(2), without SA_RESTART). REQUIRES: called by the extension's main
    /// before its first thread; nothing in the library calls it, and without it the signal ends the process.
    /// Ok; Failure, logged, when sigaction fails. Repeating it is harmless.
    static StatusCode Register();

    /// Sends the signal to one thread of this process (pthread_kill(3)); `threadId` is its pthread_self().
    /// The outcome is logged only; id 0 is refused with ESRCH. Does not block; any thread.
    /// REQUIRES: the thread has not been joined, nor has it ended detached.
    static void SendToThread(unsigned long threadId);
};

}  // namespace mwl::Threading
