#include "thermostat_server.h"

#include <sys/epoll.h>
#include <tern/service/dbus_server_manager.h>

#include <memory>

#include "names.h"
#include "thermostat_interface.h"

using mw::tern::StatusCode;

namespace my_thermostat {

StatusCode ThermostatServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    auto interface = std::make_unique<ThermostatInterface>(mRoom);
    StatusCode status = manager.AddDBusObject(OBJECT_PATH);
    if (status == StatusCode::Ok) {
        status = manager.AddInterfaceToDBusObject(OBJECT_PATH, interface.get());
    }
    if (status == StatusCode::Ok) {
        static_cast<void>(interface.release());  // the object owns it now
        status = manager.ExportObject(OBJECT_PATH);
    }
    if (status == StatusCode::Ok) {
        status = mMeasurements.Initialize();
    }
    if (status == StatusCode::Ok) {
        status =
            loop.AddIo(mMeasurements.GetReadFd(), EPOLLIN,
                       [this, bus = manager.GetBus()](sd_event_source*, int, unsigned int) {
                           double celsius = 0.0;
                           if (mMeasurements.ReadMessage(&celsius, sizeof celsius, 0) == StatusCode::Ok) {
                               ThermostatInterface::EmitMeasured(bus, celsius);
                           }
                           return StatusCode::Ok;
                       });
    }
    return status;
}

void ThermostatServer::Report(double celsius) {
    // A failure has been logged; the next measurement makes it good, or there is none to come.
    static_cast<void>(mMeasurements.WriteMessage(&celsius, sizeof celsius));
}

}  // namespace my_thermostat
