#include <tern/service/component.h>
#include <tern/service/dbus_interface.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>

#include <cstdlib>
#include <memory>

#include "names.h"
#include "room.h"

using mwl::StatusCode;

namespace {

class ByHand : public mw::tern::DBusInterface {
public:
    explicit ByHand(my_thermostat::Room& room) : DBusInterface("com.example.MyThermostat1"), mRoom(room) {}

    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(0), SdBusMethod("Boost", "u", "", &OnBoost, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusProperty("Temperature", "d", &OnGetTemperature, 0, 0), SdBusVtableEnd()};
        return table;
    }
    /// What sd-bus passes to the handlers as `userdata`: so they find their object again.
    void* GetUserData() override { return this; }

private:
    static int OnBoost(sd_bus_message* message, void* userdata, sd_bus_error* error) {
        unsigned int seconds = 0;
        const int r = sd_bus_message_read(message, "u", &seconds);  // the text has to fit the table's "u"
        if (r < 0) {
            return r;
        }
        if (seconds > 3600) {
            return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "that is more than an hour");
        }
        static_cast<ByHand*>(userdata)->mRoom.Boost(seconds * 10);
        return sd_bus_reply_method_return(message, "");
    }
    static int OnGetTemperature(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                                void* userdata, sd_bus_error*) {
        return sd_bus_message_append(reply, "d", static_cast<ByHand*>(userdata)->mRoom.GetTemperature());
    }

    my_thermostat::Room& mRoom;
};

class Server : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop&) override {
        auto interface = std::make_unique<ByHand>(mRoom);
        StatusCode status = manager.AddDBusObject(my_thermostat::OBJECT_PATH);
        if (status == StatusCode::Ok) {
            status = manager.AddInterfaceToDBusObject(my_thermostat::OBJECT_PATH, interface.get());
        }
        if (status == StatusCode::Ok) {
            static_cast<void>(interface.release());  // the object owns it now
            status = manager.ExportObject(my_thermostat::OBJECT_PATH);
        }
        return status;
    }
    void Stop() override {}

private:
    my_thermostat::Room mRoom;
};

}  // namespace

int main() {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Server server;
    mwl::DBusService::Component service(my_thermostat::BUS_NAME, monitor, server);
    const bool serving = service.Initialize() == StatusCode::Ok && service.Start() == StatusCode::Ok;
    service.JoinThread();
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
