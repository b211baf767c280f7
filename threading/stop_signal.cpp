#include <tern/threading/stop_signal.h>

#include <signal.h>
#include <tern/foundation/log.h>

#include <cerrno>
#include <string>

#include "platform/static_text.h"
#include "threading/thread_signal.h"

namespace mwl::Threading {

namespace {

const StaticText LOGGER("Threading::StopSignal");

constexpr int STOP_SIGNAL = SIGUSR1;

extern "C" void IgnoreStopSignal(int /*signal*/) {
    // Interrupting the system call is all that the signal is for.
}

}  // namespace

StatusCode StopSignal::Register() {
    TERN_LOG_INFO(LOGGER, "Register signal %d and signal handler before multi-threading", STOP_SIGNAL);
    struct sigaction action {};
    action.sa_handler = IgnoreStopSignal;
    static_cast<void>(sigemptyset(&action.sa_mask));
    action.sa_flags = 0;  // above all no SA_RESTART: blocking calls must fail with EINTR
    if (sigaction(STOP_SIGNAL, &action, nullptr) != 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "Failed to define action for signal %d, errno[%d]", STOP_SIGNAL, error);
        return StatusCode::Failure;
    }
    return StatusCode::Ok;
}

void StopSignal::SendToThread(unsigned long threadId) {
    TERN_LOG_INFO(LOGGER, "Notify thread [%lu]", threadId);
    const int error = SendThreadSignal(threadId, STOP_SIGNAL);
    if (error != 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to notify thread [%lu], error=%d", threadId, error);
    } else {
        TERN_LOG_INFO(LOGGER, "Notification sent to thread [%lu]", threadId);
    }
}

}  // namespace mwl::Threading
