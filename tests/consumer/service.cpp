#include <tern/foundation/log.h>
#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>

#include <string>

namespace {

class Server : public mwl::DBusService::IpcServer {
public:
    void Stop() override { stopped = true; }
    bool stopped = false;
};

}  // namespace

// Without a bus at DBUS_SYSTEM_BUS_ADDRESS, as the test runs it, the start has to fail and everything to end
// in order.
int main() {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Server server;
    const std::string name = "com.example.Consumer";
    mwl::DBusService::Component component(name, monitor, server);
    component.Initialize();
    const mwl::StatusCode status = component.Start();
    component.JoinThread();
    TERN_LOG_INFO(name, "start gave %u", status);
    return status == mwl::StatusCode::NotFound && server.stopped && !monitor.HasFailure() ? 0 : 1;
}
