#include <systemd/sd-daemon.h>
#include <tern/queued_processings/component.h>
#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/timer/short_period_timer.h>

#include <cstdlib>

#include "control_loop.h"
#include "names.h"
#include "room.h"
#include "thermostat_server.h"

using mwl::StatusCode;

int main() {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    mwl::Threading::ThreadsWatcher watcher(monitor);

    my_thermostat::Room room;
    my_thermostat::ThermostatServer server(room);
    my_thermostat::ControlLoop loop(room, server, watcher);
    mwl::QueuedProcessings::Component control("control", "control", monitor, loop);
    mwl::Timer::ShortPeriodTimer tick(100, true, [&control] { control.WakeUp(); });

    mwl::DBusService::Component service(my_thermostat::BUS_NAME, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool serving = service.Start() == StatusCode::Ok;
    if (serving) {
        if (control.Start() == StatusCode::Ok && tick.Start() == StatusCode::Ok) {
            sd_notify(0, "READY=1");
        } else {
            monitor.NotifyDBusThreadToStopOnFailure();
        }
    }
    service.JoinThread();
    if (serving) {
        static_cast<void>(tick.Stop());
        control.Stop();
        control.Join();
    }
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
