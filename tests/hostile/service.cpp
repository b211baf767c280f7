// A service as an extension has it, that parses what it is sent: the one under attack.

#include <systemd/sd-bus.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/dbus_message/asv_signature_parser.h>
#include <tern/service/component.h>
#include <tern/service/dbus_interface.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "names.h"

using mwl::StatusCode;

namespace {

/// A call that is never answered.
class AskTheMute : public mw::tern::DBusCommand::Command {
public:
    int CallMethod(sd_bus* bus) override {
        return sd_bus_call_method(bus, hostile::MUTE_NAME, "/", hostile::MUTE_NAME, "Ask", nullptr, nullptr,
                                  nullptr);
    }
};

class StringsReader : public mw::tern::DBusMessage::ASASVsignatureParser {
public:
    using ASASVsignatureParser::ASASVsignatureParser;
    void OnEntry(const std::string&, const mw::tern::DBusMessage::ValuesList&) override {}
};

class AttackedInterface : public mw::tern::DBusInterface {
public:
    AttackedInterface() : DBusInterface(hostile::INTERFACE) {}

    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {
            SdBusVtableStart(0),
            SdBusMethod("Ping", "", "u", &OnPing, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusMethod("ParseDictionary", "a{sv}", "", &OnDictionary, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusMethod("ParseStructures", "a(sa{sv})", "", &OnStructures, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusMethod("AskTheMute", "", "", &OnAskTheMute, SD_BUS_VTABLE_UNPRIVILEGED),
            SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return this; }

private:
    /// Tells how many of the others have been done.
    static int OnPing(sd_bus_message* message, void* self, sd_bus_error*) {
        return sd_bus_reply_method_return(message, "u", static_cast<AttackedInterface*>(self)->mDone);
    }
    static int OnDictionary(sd_bus_message* message, void* self, sd_bus_error*) {
        mw::tern::DBusMessage::ASVsignatureParser parser(message);
        return Done(message, self, parser.ParseMessage());
    }
    static int OnStructures(sd_bus_message* message, void* self, sd_bus_error*) {
        StringsReader parser(message);
        return Done(message, self, parser.ParseMessage());
    }
    static int OnAskTheMute(sd_bus_message* message, void* self, sd_bus_error*) {
        AskTheMute command;
        command.SetBus(sd_bus_message_get_bus(message));
        return Done(message, self, command.Execute() == StatusCode::Ok ? 0 : -ETIMEDOUT);
    }
    static int Done(sd_bus_message* message, void* self, int r) {
        ++static_cast<AttackedInterface*>(self)->mDone;
        return r < 0 ? r : sd_bus_reply_method_return(message, nullptr);
    }

    unsigned mDone = 0;
};

class AttackedServer : public mwl::DBusService::IpcServer {
public:
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop&) override {
        StatusCode status = manager.AddDBusObject(hostile::PATH);
        if (status == StatusCode::Ok) {
            auto interface = std::make_unique<AttackedInterface>();
            status = manager.AddInterfaceToDBusObject(hostile::PATH, interface.get());
            if (status == StatusCode::Ok) {
                static_cast<void>(interface.release());  // the object's now
                status = manager.ExportObject(hostile::PATH);
            }
        }
        return status;
    }
    void Stop() override {}
};

}  // namespace

int main() {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    AttackedServer server;
    const std::string name = hostile::BUS_NAME;
    mwl::DBusService::Component service(name, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool serving = service.Start() == StatusCode::Ok;
    service.JoinThread();
    return serving && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
