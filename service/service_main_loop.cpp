#include <tern/service/service_main_loop.h>

#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <cerrno>
#include <csignal>

#include "foundation/error_text.h"
#include "service/loop_guard.h"

namespace mw::tern {

using mwl::ErrorText;

namespace {

int ExitCallback(sd_event_source* source, const signalfd_siginfo* info, void*) {
    TERN_LOG_TRACE(
        ServiceCommon::mLogger,
        "ExitCallback: signalfd_siginfo:\n    - ssi_signo: %u\n    - ssi_code: %d\n    - ssi_pid: %u\n"
        "    - ssi_uid: %u\n    - ssi_status: %d    ",
        info->ssi_signo, info->ssi_code, info->ssi_pid, info->ssi_uid, info->ssi_status);
    TERN_LOG_INFO(ServiceCommon::mLogger, "Exiting now!");
    sd_event_exit(sd_event_source_get_event(source), 0);
    return 0;
}

}  // namespace

StatusCode ServiceMainLoop::BlockSignalsForRunningThread() {
    sigset_t signals;
    if (sigemptyset(&signals) < 0 || sigaddset(&signals, SIGTERM) < 0 || sigaddset(&signals, SIGINT) < 0) {
        return MakeStatusCodeFromReturnCode(-errno);
    }
    // This one returns the error number and leaves errno alone.
    return MakeStatusCodeFromReturnCode(-pthread_sigmask(SIG_BLOCK, &signals, nullptr));
}

StatusCode ServiceMainLoop::Init() {
    if (mEvent != nullptr) {
        return MakeStatusCodeFromReturnCode(-EINPROGRESS);
    }
    int r = sd_event_default(&mEvent);
    if (r < 0) {
        // Fixed by the interface: the missing parenthesis.
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to init event loop (%d, %s", r, ErrorText(-r));
        return MakeStatusCodeFromReturnCode(r);
    }
    r = sd_event_set_watchdog(mEvent, 1);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to set automatic watchdog (%d, %s)", r, ErrorText(-r));
    }
    return MakeStatusCodeFromReturnCode(r);
}

StatusCode ServiceMainLoop::Run() {
    int r = sd_event_add_signal(mEvent, nullptr, SIGTERM, ExitCallback, nullptr);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to add SIGTERM handler (%d, %s)", r, ErrorText(-r));
    } else {
        r = sd_event_add_signal(mEvent, nullptr, SIGINT, ExitCallback, nullptr);
        if (r < 0) {
            TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to add SIGINT handler, (%d, %s)", r,
                           ErrorText(-r));
        }
    }
    TERN_LOG_INFO(ServiceCommon::mLogger, "Entering D-Bus event loop");
    if (r >= 0) {
        r = RunLoop(mEvent);
    }
    TERN_LOG_INFO(ServiceCommon::mLogger, "sd_event_loop exited with %d", r);
    static_cast<void>(
        sd_notify(0, "STOPPING=1\nShutting down..."));  // without systemd there is nobody to notify
    return MakeStatusCodeFromReturnCode(r);
}

}  // namespace mw::tern
