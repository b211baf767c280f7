#include <systemd/sd-daemon.h>
#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>

#include <cstdlib>
#include <string>

#include "heating_watch.h"

using mwl::StatusCode;

int main() {
    const std::string name = "com.example.HeatingWatch";
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();

    heating_watch::HeatingWatch watch;
    mwl::DBusService::Component service(name, monitor, watch);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool serving = service.Start() == StatusCode::Ok;
    if (serving) {
        sd_notify(0, "READY=1");
    }
    service.JoinThread();
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
