#pragma once

#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>

#include "room.h"
#include "thermostat_interface.h"

namespace my_thermostat {

/// The extension's side of the D-Bus thread.
class ThermostatServer : public mwl::DBusService::IpcServer {
public:
    /// The room outlives the server.
    explicit ThermostatServer(Room& room) : mRoom(room) {}

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override { mBus.Close(); }

    /// Has the D-Bus thread announce a measurement. Any thread, once `Start` has succeeded.
    void Report(double celsius);

private:
    Room& mRoom;
    mwl::Typed::Bus mBus;
    mwl::Typed::Exported mObject;               ///< keeps the object on the bus
    ThermostatInterface* mInterface = nullptr;  ///< the object's
};

}  // namespace my_thermostat
