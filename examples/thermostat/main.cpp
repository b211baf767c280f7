#include <pthread.h>
#include <systemd/sd-daemon.h>
#include <tern/foundation/composite_runtime.h>
#include <tern/foundation/log.h>
#include <tern/service/component.h>
#include <tern/synchronizer/subject.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bus_reporter.h"
#include "control_loop.h"
#include "control_worker.h"
#include "job_pool.h"
#include "log_exporter.h"
#include "measurement_channel.h"
#include "measurement_log.h"
#include "names.h"
#include "room.h"
#include "sampling.h"
#include "settings.h"
#include "target_store.h"
#include "thermostat_server.h"

using mwl::StatusCode;

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_TRIAL = 3;

/// For trials: whatever calls it never comes back, not even for a signal.
[[noreturn]] void HangForEver() {
    for (;;) {
        pause();
    }
}

int Run(const thermostat::Settings& settings) {
    // The monitor outlives everything: it knows every worker and the D-Bus thread.
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    mwl::Threading::ThreadsWatcher watcher(monitor);

    thermostat::Room room;
    const thermostat::TargetStore store(settings.stateFolder);
    mwl::tern::Synchronizer::Subject measurements;
    thermostat::MeasurementChannel channel;
    thermostat::BusReporter reporter(measurements, channel);
    thermostat::MeasurementLog log(measurements, settings.logFolder);
    if (store.Open() != StatusCode::Ok || log.Open() != StatusCode::Ok) {
        TERN_LOG_ERROR(thermostat::LOGGER, "The folders %s and %s cannot be used",
                       settings.stateFolder.c_str(), settings.logFolder.c_str());
        return EXIT_FAILURE;
    }
    room.SetTarget(store.Load().value_or(settings.target));

    // The workers: started in this order, stopped in the reverse one.
    thermostat::JobPool pool(watcher, signals);
    thermostat::ControlLoop loop(room, measurements, watcher);
    thermostat::ControlWorker control(monitor, loop);
    thermostat::Sampling sampling(settings.samplingMs, [&control] { control.WakeUp(); });
    mw::tern::CompositeRuntime workers{&pool, &control, &sampling};

    // What the bus may ask for; all of it runs on the D-Bus thread.
    thermostat::LogExporter exporter(pool, settings.logFolder, settings.stateFolder);
    thermostat::ThermostatInterface::Actions actions;
    actions.boost = [&](unsigned int seconds) { room.Boost(seconds * 1000 / settings.samplingMs); };
    actions.setTarget = [&](double celsius) {
        const bool stored = store.Save(celsius) == StatusCode::Ok;
        if (stored) {
            room.SetTarget(celsius);
        }
        return stored;
    };
    actions.exportLog = [&](const std::string& password) {
        exporter.Export(password);
        return exporter.GetArchivePath();
    };
    if (settings.debug) {
        actions.trial = [&](const std::string& what) {
            if (what == "hang-bus") {
                HangForEver();
            } else if (what == "hang-control") {
                loop.Hang();
            } else if (what == "hang-pool") {
                pool.Queue(HangForEver);
            } else if (what == "fail-control") {
                loop.Fail();
            } else if (what == "exit") {
                _exit(EXIT_TRIAL);
            } else {
                return false;
            }
            return true;
        };
    }
    thermostat::ThermostatServer server(room, channel, exporter, std::move(actions));
    mwl::DBusService::Component service(thermostat::BUS_NAME, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }

    const bool serving = service.Start() == StatusCode::Ok;
    if (serving) {
        if (workers.Initialize() == StatusCode::Ok && workers.Start() == StatusCode::Ok) {
            sd_notify(0, "READY=1");
        } else {
            monitor.NotifyDBusThreadToStopOnFailure();
        }
    }
    service.JoinThread();
    // The D-Bus thread has told the workers to stop; one that started late is told here.
    static_cast<void>(workers.Stop());
    static_cast<void>(workers.Destroy());
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string option = argc > 1 ? argv[1] : "";
    if (argc > 2 || option.starts_with("-")) {
        const bool help = option == "--help" && argc == 2;
        fprintf(help ? stdout : stderr, "Usage: tern-thermostat [SETTINGS.ini]\n");
        return help ? EXIT_SUCCESS : EXIT_USAGE;
    }
    thermostat::Settings settings;
    if (!option.empty() && thermostat::LoadSettings(option, settings) != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    return Run(settings);
}
