// Prints the host name, and each new one, until it is asked to end: a client that is generated from the XML
// of systemd's hostnamed. hostname1.xml is the introspection of hostnamed; while this is built,
// tern_dbus_generate makes the proxy from it that host_watch.cpp uses.
//
//     hostname-client &
//     hostnamectl set-hostname kitchen
//
// A client, too, has a name on the bus here, as the service frame is for services. On a bus of one's own
// nothing needs to be installed, see the type gallery.

#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>

#include <cstdlib>
#include <string>

#include "host_watch.h"

using mwl::StatusCode;

int main() {
    const std::string name = "com.example.HostnameClient";
    // The monitor outlives everything: it knows the D-Bus thread.
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();

    hostname_client::HostWatch watch;
    mwl::DBusService::Component service(name, monitor, watch);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool isServing = service.Start() == StatusCode::Ok;
    service.JoinThread();
    return isServing && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
