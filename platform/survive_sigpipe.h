#pragma once

#include <signal.h>

namespace mwl {

/// Keeps a write to a pipe without a reader from ending the process: it fails with EPIPE. A handler and not
/// SIG_IGN, because programs run by this process would inherit the latter. Only where the signal's action is
/// the default: under systemd it is ignored already, and an application's own action stays. Any thread, any
/// number of times.
inline void SurviveSigpipe() noexcept {
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
        action.sa_handler == SIG_DFL) {
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        static_cast<void>(sigaction(SIGPIPE, &action, nullptr));  // cannot fail with these arguments
    }
}

}  // namespace mwl
