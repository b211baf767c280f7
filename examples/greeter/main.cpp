#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

using namespace mwl::Typed;

struct Greeter1 {  // the interface: names and types, for server, client and introspection
    static constexpr const char* NAME = "com.example.Greeter1";
    static constexpr Method<std::string(std::string_view)> Greet{"Greet", {"name", "greeting"}, OPEN};
    static constexpr Members<Greet> ALL{};
};

struct Greeter final : Implements<Greeter, Greeter1> {
    static constexpr auto Describe() { return Bindings<Bind<Greeter1::Greet, &Greeter::Greet>>(); }
    Outcome<std::string> Greet(std::string_view name) {
        if (name.empty()) {
            return Error::InvalidArgs("whom?");
        }
        return "Hello, " + std::string(name);
    }
};

struct Server final : mwl::DBusService::IpcServer {  // on the D-Bus thread
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const StatusCode status = bus.Open(manager, loop);
        object = bus.Export("/com/example/Greeter", std::make_unique<Greeter>());
        return status == StatusCode::Ok ? object.GetStatus() : status;
    }
    void Stop() override { bus.Close(); }
    Bus bus;
    Exported object;
};

int main() {
    static const std::string NAME = "com.example.Greeter";
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Server server;
    mwl::DBusService::Component service(NAME, monitor, server);
    const bool serving = service.Initialize() == StatusCode::Ok && service.Start() == StatusCode::Ok;
    service.JoinThread();
    return serving && !monitor.HasFailure() ? 0 : 1;
}
