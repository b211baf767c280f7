// The extension whose costs with and without diagnostics are compared: a typed Echo(s) -> s on the frame.

#ifdef TERN_SHOWS_DIAGNOSTICS
#include <tern/diagnostics/diagnostics.h>
#endif
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <memory>
#include <string>
#include <string_view>

#include "benchmarks/peers/server_options.h"

namespace {

using mw::tern::StatusCode;

struct Bench1 {
    static constexpr const char* NAME = "org.example.Bench.Interface0";

    static constexpr mwl::Typed::Method<std::string(std::string_view)> Echo{
        "Echo", {"text", "copy"}, mwl::Typed::OPEN};

    static constexpr mwl::Typed::Members<Echo> ALL{};
};

class EchoInterface final : public mwl::Typed::Implements<EchoInterface, Bench1> {
public:
    static constexpr auto Describe() {
        return mwl::Typed::Bindings<mwl::Typed::Bind<Bench1::Echo, &EchoInterface::Echo>>();
    }

private:
    std::string Echo(std::string_view text) { return std::string(text); }
};

class EchoServer : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const StatusCode status = mBus.Open(manager, loop);
        if (status != StatusCode::Ok) {
            return status;
        }
        mObject = mBus.Export(ServerOptions::Path(0), std::make_unique<EchoInterface>());
#ifdef TERN_SHOWS_DIAGNOSTICS
        mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mBus);
        Require(mDiagnostics.GetStatus() == StatusCode::Ok, "Diagnostics");
#endif
        return mObject.GetStatus();
    }
    void Stop() override {
#ifdef TERN_SHOWS_DIAGNOSTICS
        mDiagnostics.Reset();
#endif
        mBus.Close();
    }

private:
    mwl::Typed::Bus mBus;
    mwl::Typed::Exported mObject;
#ifdef TERN_SHOWS_DIAGNOSTICS
    mwl::Diagnostics::Diagnostics mDiagnostics;
#endif
};

}  // namespace

int main(int argc, char* argv[]) {
    const ServerOptions options(argc, argv);
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    EchoServer server;
    mwl::DBusService::Component service(options.name, monitor, server);
    Require(service.Initialize() == StatusCode::Ok && service.Start() == StatusCode::Ok, "start");
    service.JoinThread();
    return monitor.HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
}
