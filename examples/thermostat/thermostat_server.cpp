#include "thermostat_server.h"

#include <systemd/sd-daemon.h>

#include <memory>
#include <utility>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

ThermostatServer::ThermostatServer(Room& room, mwl::Typed::Bus& bus, ThermostatInterface::Actions actions,
                                   std::function<StatusCode()> openFolders)
    : mRoom(room), mBus(bus), mActions(std::move(actions)), mOpenFolders(std::move(openFolders)) {}

StatusCode ThermostatServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    StatusCode status = mOpenFolders();
    if (status == StatusCode::Ok) {
        status = mBus.Open(manager, loop);
    }
    if (status != StatusCode::Ok) {
        return status;
    }
    auto interface = std::make_unique<ThermostatInterface>(mRoom, mActions);
    mInterface = interface.get();
    mObject = mBus.Export(OBJECT_PATH, std::move(interface));
    // A thermostat that cannot be looked into still heats: what goes wrong is logged, no more.
    mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mBus);
    return mObject.GetStatus();
}

void ThermostatServer::Stop() {
    // The library's own notification carries no STATUS=, so systemd shows only that the service is stopping.
    sd_notify(0, "STATUS=Stopping the workers");
    mBus.Close();
    mObject.Reset();
    mDiagnostics.Reset();
}

bool ThermostatServer::Show(double celsius) {
    return mBus.Post([this, celsius] { mInterface->SetTemperature(celsius); });
}

}  // namespace thermostat
