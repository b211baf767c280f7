#pragma once

#include <tern/diagnostics/diagnostics.h>
#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>

#include <functional>

#include "room.h"
#include "thermostat_interface.h"

namespace thermostat {

/// Puts the thermostat on the bus when the D-Bus thread is ready for it, and takes it back at the end.
class ThermostatServer : public mwl::DBusService::IpcServer {
public:
    /// Room and bus outlive the server. `openFolders` runs first of all when the name is owned: until then
    /// the folders may belong to another instance that runs.
    ThermostatServer(Room& room, mwl::Typed::Bus& bus, ThermostatInterface::Actions actions,
                     std::function<mw::tern::StatusCode()> openFolders);

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

    /// Shows a measurement on the bus. Any thread; never waits. False when it is not going to be shown: the
    /// bus is closed, or the D-Bus thread has not kept up for thousands of measurements.
    bool Show(double celsius);

private:
    Room& mRoom;
    mwl::Typed::Bus& mBus;
    ThermostatInterface::Actions mActions;
    std::function<mw::tern::StatusCode()> mOpenFolders;
    ThermostatInterface* mInterface = nullptr;  ///< the exported object's
    mwl::Typed::Exported mObject;
    mwl::Diagnostics::Diagnostics mDiagnostics;  ///< what ternctl(1) shows
};

}  // namespace thermostat
