#include "thermostat_server.h"

#include <systemd/sd-daemon.h>
#include <tern/service/dbus_server_manager.h>

#include <memory>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

ThermostatServer::ThermostatServer(Room& room, MeasurementChannel& channel, LogExporter& exporter,
                                   ThermostatInterface::Actions actions,
                                   std::function<StatusCode()> openFolders)
    : mRoom(room),
      mChannel(channel),
      mExporter(exporter),
      mActions(std::move(actions)),
      mOpenFolders(std::move(openFolders)) {}

StatusCode ThermostatServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    StatusCode status = mOpenFolders();
    if (status != StatusCode::Ok) {
        return status;
    }
    auto interface = std::make_unique<ThermostatInterface>(mRoom, mActions);
    ThermostatInterface* const shown = interface.get();
    status = manager.AddDBusObject(OBJECT_PATH);
    if (status == StatusCode::Ok) {
        status = manager.AddInterfaceToDBusObject(OBJECT_PATH, shown);
    }
    if (status == StatusCode::Ok) {
        static_cast<void>(interface.release());  // the object's now
        status = manager.ExportObject(OBJECT_PATH);
    }
    if (status == StatusCode::Ok) {
        status = mChannel.Open(manager, loop,
                               [shown](sd_bus* bus, double celsius) { shown->SetTemperature(bus, celsius); });
    }
    if (status == StatusCode::Ok) {
        status = mExporter.Open(loop);
    }
    return status;
}

void ThermostatServer::Stop() {
    // The library's own notification carries no STATUS=, so systemd shows only that the service is stopping.
    sd_notify(0, "STATUS=Stopping the workers");
    // No worker may wait in a pipe that nobody reads any more, and messages are released on this thread.
    mChannel.Close();
    mExporter.Close();
}

}  // namespace thermostat
