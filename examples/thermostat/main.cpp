#include <systemd/sd-daemon.h>
#include <tern/diagnostics/recorder.h>
#include <tern/foundation/composite_runtime.h>
#include <tern/foundation/log.h>
#include <tern/service/component.h>
#include <tern/synchronizer/subject.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "bus_reporter.h"
#include "control_loop.h"
#include "control_worker.h"
#include "job_pool.h"
#include "log_exporter.h"
#include "measurement_log.h"
#include "names.h"
#include "room.h"
#include "sampling.h"
#include "settings.h"
#include "target_store.h"
#include "thermostat_server.h"
#include "trials.h"

using mwl::StatusCode;

namespace {

constexpr int EXIT_USAGE = 2;

/// Says what a person can do about a bus that does not let the service start.
void ExplainRefusal(StatusCode status) {
    const char* const name = thermostat::BUS_NAME.c_str();
    if (status == StatusCode::AlreadyExists) {
        TERN_LOG_ERROR(thermostat::LOGGER, "The name %s is taken: another instance is running", name);
    } else if (status == StatusCode::AccessDenied || status == StatusCode::NotPermitted) {
        TERN_LOG_ERROR(
            thermostat::LOGGER,
            "The bus's policy refuses the name %s: is %s.conf installed, and is this the user that "
            "it names?",
            name, name);
    } else if (status == StatusCode::NotFound) {
        TERN_LOG_ERROR(thermostat::LOGGER, "There is no system bus: is dbus running?");
    } else {
        TERN_LOG_ERROR(thermostat::LOGGER, "The system bus cannot be used: %s",
                       mw::tern::ConvertStatusCodeToString(status).c_str());
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
    thermostat::MeasurementLog log(measurements, settings.logFolder);

    // The workers: started in this order, stopped in the reverse one.
    thermostat::JobPool pool(watcher, signals);
    thermostat::ControlLoop loop(room, measurements, watcher);
    thermostat::ControlWorker control(monitor, loop);
    thermostat::Sampling sampling(settings.samplingMs, [&control] { control.WakeUp(); });
    mw::tern::CompositeRuntime workers{&pool, &control, &sampling};

    // The extension's side of the bus: all of it runs on the D-Bus thread.
    mwl::Typed::Bus bus;
    thermostat::LogExporter exporter(pool, bus, settings.logFolder, settings.stateFolder);
    thermostat::ThermostatInterface::Actions actions;
    actions.boost = [&](unsigned int seconds) { room.Boost(seconds * 1000 / settings.samplingMs); };
    actions.setTarget = [&](double celsius) {
        const bool stored = store.Save(celsius) == StatusCode::Ok;
        if (stored) {
            room.SetTarget(celsius);
        }
        return stored;
    };
    actions.exportLog = [&](const std::string& password, thermostat::ThermostatInterface::ExportDone done) {
        exporter.Export(password, [&exporter, done = std::move(done)](StatusCode result) mutable {
            done(exporter.GetArchivePath(), result);
        });
    };
    thermostat::Trials trials(loop, pool);
    if (settings.debug) {
        actions.trial = [&](const std::string& what) { return trials.Begin(what); };
    }
    bool ownsName = false;
    const auto openFolders = [&] {
        ownsName = true;
        const StatusCode opened = store.Open();
        const StatusCode status = opened == StatusCode::Ok ? log.Open() : opened;
        room.SetTarget(store.Load().value_or(settings.target));
        return status;
    };
    thermostat::ThermostatServer server(room, bus, std::move(actions), openFolders);
    thermostat::BusReporter reporter(measurements, server);
    mwl::DBusService::Component service(thermostat::BUS_NAME, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }

    const StatusCode started = service.Start();
    const bool serving = started == StatusCode::Ok;
    if (!serving && !ownsName) {
        ExplainRefusal(started);
    }
    if (serving) {
        if (workers.Initialize() == StatusCode::Ok && workers.Start() == StatusCode::Ok) {
            sd_notify(0, "READY=1");
        } else {
            monitor.NotifyDBusThreadToStopOnFailure();
        }
    }
    service.JoinThread();
    // The D-Bus thread has asked the workers to stop; a worker that started late is asked here.
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
    // Before anything else, so that the start is recorded too. Its first lines say how the former life ended.
    static_cast<void>(mwl::Diagnostics::Recorder::Begin());
    thermostat::Settings settings;
    if (!option.empty() && thermostat::LoadSettings(option, settings) != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    return Run(settings);
}
