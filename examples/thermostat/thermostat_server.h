#pragma once

#include <tern/service/ipc_server.h>

#include <functional>

#include "log_exporter.h"
#include "measurement_channel.h"
#include "room.h"
#include "thermostat_interface.h"

namespace thermostat {

/// Puts the thermostat on the bus when the D-Bus thread is ready for it, and takes its messages back at the
/// end.
class ThermostatServer : public mwl::DBusService::IpcServer {
public:
    /// Room, channel and exporter outlive the server. `openFolders` runs first of all when the name is owned:
    /// until then the folders may belong to another instance that runs.
    ThermostatServer(Room& room, MeasurementChannel& channel, LogExporter& exporter,
                     ThermostatInterface::Actions actions, std::function<mw::tern::StatusCode()> openFolders);

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

private:
    Room& mRoom;
    MeasurementChannel& mChannel;
    LogExporter& mExporter;
    ThermostatInterface::Actions mActions;
    std::function<mw::tern::StatusCode()> mOpenFolders;
};

}  // namespace thermostat
