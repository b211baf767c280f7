// The heater on this library.
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

using namespace mwl::Typed;

// [interface]
struct Heater1 {
    static constexpr const char* NAME = "com.example.Heater1";
    static constexpr Method<void(std::uint32_t)> Boost{"Boost", {"seconds"}, OPEN};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN};
    static constexpr Signal<double> Measured{"Measured", {"celsius"}};
    static constexpr Members<Boost, Target, Measured> ALL{};
};

class Heater final : public Implements<Heater, Heater1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Heater1::Boost, &Heater::Boost>,
                        Bind<Heater1::Target, &Heater::mTarget, &Heater::SetTarget>>();
    }

private:
    Outcome<void> Boost(std::uint32_t seconds) {
        if (seconds > 3600) {
            return Error::InvalidArgs("more than an hour");
        }
        Emit<Heater1::Measured>(mTarget);
        return {};
    }
    Outcome<void> SetTarget(double celsius) {
        if (!(celsius >= 5 && celsius <= 30)) {
            return Error::InvalidArgs("the target is 5 to 30 degrees");
        }
        mTarget = celsius;
        return {};
    }

    double mTarget = 20.0;
};
// [end]

class Server final : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const StatusCode status = mBus.Open(manager, loop);
        if (status == StatusCode::Ok) {
            mObject = mBus.Export("/com/example/Heater", std::make_unique<Heater>());
        }
        return status == StatusCode::Ok ? mObject.GetStatus() : status;
    }
    void Stop() override { mBus.Close(); }

private:
    mwl::Typed::Bus mBus;
    Exported mObject;
};

int main() {
    static const std::string NAME = "com.example.Heater";
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Server server;
    mwl::DBusService::Component service(NAME, monitor, server);
    const bool serving = service.Initialize() == StatusCode::Ok && service.Start() == StatusCode::Ok;
    service.JoinThread();
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
