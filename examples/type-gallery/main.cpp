// The type gallery: a service that gives every type that D-Bus can carry back, for looking at how each is
// described (contract.h) and handled (gallery.h), and for trying other D-Bus libraries and tools against it.
//
//     type-gallery &
//     busctl call com.example.TypeGallery /com/example/TypeGallery com.example.TypeGallery1 EchoString s
//     hello
//
// com.example.TypeGallery.conf lets root own the name on the system bus. On a bus of one's own nothing needs
// to be installed:
//
//     dbus-run-session -- bash
//     export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS

#include <systemd/sd-daemon.h>
#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>

#include <cstdlib>
#include <string>

#include "gallery_server.h"

using mwl::StatusCode;

int main() {
    constexpr unsigned int WORKERS = 4;
    const std::string name = "com.example.TypeGallery";
    // The monitor outlives everything: it knows every worker and the D-Bus thread.
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    mwl::Threading::ThreadsWatcher watcher(monitor);
    mwl::Threading::ThreadPool::ThreadPool pool(WORKERS, watcher, signals);

    type_gallery::GalleryServer server(pool);
    mwl::DBusService::Component service(name, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool isServing = service.Start() == StatusCode::Ok;
    if (isServing) {
        pool.Start();  // what has been asked for meanwhile has waited in the queue
        sd_notify(0, "READY=1");
    }
    service.JoinThread();
    pool.Stop(true);
    return isServing && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
