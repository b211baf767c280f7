// The server of the comparisons, as an extension: the library's component with its D-Bus thread.

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <tern/service/component.h>
#include <tern/service/dbus_interface.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>

#include "server_options.h"

namespace {

using mw::tern::StatusCode;

class EchoInterface : public mw::tern::DBusInterface {
public:
    using DBusInterface::DBusInterface;

    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(0), SdBusMethod("Echo", "s", "s", &OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return this; }

private:
    static int OnEcho(sd_bus_message* message, void*, sd_bus_error*) {
        const char* text = nullptr;
        const int r = sd_bus_message_read_basic(message, 's', &text);
        return r < 0 ? r : sd_bus_reply_method_return(message, "s", text);
    }
};

class EchoServer : public mwl::DBusService::IpcServer {
public:
    explicit EchoServer(const ServerOptions& options) : mOptions(options) {}

    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const ExportClock clock;
        for (int object = 0; object < mOptions.objects; ++object) {
            const std::string path = ServerOptions::Path(object);
            Require(manager.AddDBusObject(path) == StatusCode::Ok, "AddDBusObject");
            for (int i = 0; i < mOptions.interfaces; ++i) {
                auto* const interface = new EchoInterface(ServerOptions::Interface(i));
                Require(manager.AddInterfaceToDBusObject(path, interface) == StatusCode::Ok,
                        "AddInterfaceToDBusObject");
            }
            Require(manager.ExportObject(path) == StatusCode::Ok, "ExportObject");
        }
        for (int i = 0; i < mOptions.matches; ++i) {
            Require(manager.AddMatch(
                        nullptr, ServerOptions::Match(i),
                        [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr) == StatusCode::Ok,
                    "AddMatch");
        }
        for (int i = 0; i < mOptions.sources; ++i) {
            Require(loop.AddIo(eventfd(0, EFD_CLOEXEC), EPOLLIN,
                               [](sd_event_source*, int, unsigned int) { return StatusCode::Ok; }) ==
                        StatusCode::Ok,
                    "AddIo");
        }
        return StatusCode::Ok;
    }
    void Stop() override {}

private:
    const ServerOptions& mOptions;
};

}  // namespace

int main(int argc, char* argv[]) {
    const ServerOptions options(argc, argv);
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    EchoServer server(options);
    mwl::DBusService::Component service(options.name, monitor, server);
    Require(service.Initialize() == StatusCode::Ok && service.Start() == StatusCode::Ok, "start");
    service.JoinThread();
    return monitor.HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
}
