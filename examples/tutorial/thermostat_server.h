#pragma once

#include <tern/service/ipc_server.h>
#include <tern/service/message_pipe.h>

#include "room.h"

namespace my_thermostat {

/// The extension's side of the D-Bus thread.
class ThermostatServer : public mwl::DBusService::IpcServer {
public:
    /// The room outlives the server.
    explicit ThermostatServer(Room& room) : mRoom(room) {}

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override { mMeasurements.Close(); }

    /// Has the D-Bus thread send a measurement. Any thread, once `Start` has succeeded.
    void Report(double celsius);

private:
    Room& mRoom;
    mw::tern::MessagePipe mMeasurements;
};

}  // namespace my_thermostat
