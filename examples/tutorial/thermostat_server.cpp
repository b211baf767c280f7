#include "thermostat_server.h"

#include <memory>

#include "names.h"

using mw::tern::StatusCode;

namespace my_thermostat {

StatusCode ThermostatServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    const StatusCode status = mBus.Open(manager, loop);
    if (status == StatusCode::Ok) {
        auto interface = std::make_unique<ThermostatInterface>(mRoom);
        mInterface = interface.get();
        mObject = mBus.Export(OBJECT_PATH, std::move(interface));
    }
    return status == StatusCode::Ok ? mObject.GetStatus() : status;
}

void ThermostatServer::Report(double celsius) {
    // Refused when the bus has closed: then there is nobody to be told.
    static_cast<void>(mBus.Post([this, celsius] { mInterface->Measure(celsius); }));
}

}  // namespace my_thermostat
