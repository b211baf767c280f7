#include <tern/dbus_client/dbus_client_manager.h>
#include <tern/dbus_client/interface_properties_get_all.h>
#include <tern/dbus_client/reboot_system.h>

#include <algorithm>
#include <set>
#include <string>

#include "peer.h"
#include "scenarios.h"

namespace tern::test {

namespace {

void RunManager(Stage& stage) {
    const Peer peer(stage.BusName());
    if (!stage.Expect(peer.IsReady(), "the peer is there")) {
        return;
    }
    stage.Sweep([&] {
        mw::tern::DBusClientManager manager;
        if (!stage.Accept(manager.Connect(), "Connect")) {
            return;
        }
        std::set<std::string> names;
        if (stage.Accept(manager.LookupServices("com.example.", names), "LookupServices")) {
            stage.Expect(names.contains(stage.BusName()), "the service is found");
        }
        std::string address;
        if (stage.Accept(manager.GetRequestSocketAddress(stage.BusName(), address),
                         "GetRequestSocketAddress")) {
            stage.Expect(address == "/run/socket", "the address is told");
        }
    });
}

void RunGetAll(Stage& stage) {
    const Peer peer(stage.BusName());
    stage.Sweep([&] {
        std::string path = "/" + stage.BusName();
        std::replace(path.begin(), path.end(), '.', '/');
        mw::tern::DBusCommand::InterfacePropertiesGetAll command(stage.BusName(), path);
        if (stage.Accept(command.Execute(), "Execute")) {
            stage.Expect(command.GetValuesList().Size() == 1, "the property is there");
        }
    });
}

void RunReboot(Stage& stage) {
    const Peer peer(stage.BusName());
    stage.Sweep([&] {
        mw::tern::DBusCommand::RebootSystem command(mw::tern::DBusCommand::RebootSystem::REBOOT_TYPE_REMOTE);
        stage.Accept(command.Execute(), "Execute");
    });
}

}  // namespace

std::vector<Scenario> ClientScenarios() {
    return {{"client-manager", RunManager}, {"client-get-all", RunGetAll}, {"client-reboot", RunReboot}};
}

}  // namespace tern::test
