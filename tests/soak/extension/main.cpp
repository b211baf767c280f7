// The extension of the soak test: everything that the library offers an extension, busy all the time.

#include <systemd/sd-daemon.h>
#include <tern/diagnostics/recorder.h>
#include <tern/foundation/composite_runtime.h>
#include <tern/service/component.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/utilities/file_system.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "examples/thermostat/control_worker.h"
#include "examples/thermostat/job_pool.h"
#include "examples/thermostat/sampling.h"
#include "fault.h"
#include "job_desk.h"
#include "jobs.h"
#include "names.h"
#include "notifying_timer.h"
#include "progress.h"
#include "soak_server.h"
#include "ticker.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;

namespace {

constexpr int EXIT_USAGE = 2;
constexpr unsigned int SHORT_PERIOD_MS = 20;
constexpr unsigned int PERIOD_MS = 70;

int Run(const std::string& folder, unsigned int clients, soak::Fault& fault) {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    mwl::Threading::ThreadsWatcher watcher(monitor);

    const auto progress = std::make_shared<soak::Progress>();
    const std::string watched = folder + "/watched";
    soak::Jobs jobs(*progress, folder);
    mw::tern::MessagePipe ticks;
    if (FileSystem::CreateFolder(watched) != StatusCode::Ok || jobs.Open() != StatusCode::Ok ||
        ticks.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }

    thermostat::JobPool pool(watcher, signals);
    soak::JobDesk desk(pool, jobs);
    soak::Ticker ticker(progress, watched, pool, jobs, ticks, watcher);
    thermostat::ControlWorker worker(monitor, ticker);
    thermostat::Sampling sampling(SHORT_PERIOD_MS, [&] {
        ++progress->shortTicks;
        worker.WakeUp();
    });
    mw::tern::CompositeRuntime workers{&pool, &worker, &sampling};
    // Its callback may outlive everything here.
    soak::NotifyingTimer touching(PERIOD_MS, true, [progress, path = watched + "/touched"] {
        if (FileSystem::WriteContent(path, "touched") != StatusCode::Ok) {
            ++progress->failures;
        }
        ++progress->timerTicks;
    });

    soak::SoakServer server(clients, *progress, desk, ticks, fault);
    mwl::DBusService::Component service(soak::BUS_NAME, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool serving = service.Start() == StatusCode::Ok;
    if (serving) {
        if (workers.Initialize() == StatusCode::Ok && workers.Start() == StatusCode::Ok &&
            touching.Start() == StatusCode::Ok) {
            sd_notify(0, "READY=1");
        } else {
            monitor.NotifyDBusThreadToStopOnFailure();
        }
    }
    service.JoinThread();
    static_cast<void>(touching.Stop());
    static_cast<void>(workers.Stop());
    static_cast<void>(workers.Destroy());
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        fprintf(stderr, "Usage: tern-soak-extension FOLDER CLIENTS\n");
        return EXIT_USAGE;
    }
    static_cast<void>(mwl::Diagnostics::Recorder::Begin());  // logged
    try {
        const char* const name = getenv("TERN_SOAK_FAULT");  // NOLINT(concurrency-mt-unsafe): no threads yet
        soak::Fault fault(name == nullptr ? "" : name);
        return fault.ExitStatus(Run(argv[1], static_cast<unsigned int>(atoi(argv[2])), fault));  // NOLINT
    } catch (const std::invalid_argument& failure) {
        fprintf(stderr, "tern-soak-extension: %s\n", failure.what());
        return EXIT_USAGE;
    }
}
