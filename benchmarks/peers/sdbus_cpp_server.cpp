// The server of the comparisons on sdbus-c++, by its convenience layer.

#include <sdbus-c++/sdbus-c++.h>

#include <memory>
#include <vector>

#include "server_options.h"

int main(int argc, char* argv[]) {
    const ServerOptions options(argc, argv);
    const auto connection = sdbus::createSystemBusConnection(options.name);
    std::vector<std::unique_ptr<sdbus::IObject>> objects;
    for (int i = 0; i < options.objects; ++i) {
        auto object = sdbus::createObject(*connection, ServerOptions::Path(i));
        for (int interface = 0; interface < options.interfaces; ++interface) {
            object->registerMethod("Echo")
                .onInterface(ServerOptions::Interface(interface))
                .implementedAs([](const std::string& text) { return text; });
        }
        object->finishRegistration();
        objects.push_back(std::move(object));
    }
    for (int i = 0; i < options.matches; ++i) {
        connection->addMatch(
            ServerOptions::Match(i), [](sdbus::Message&) {}, sdbus::floating_slot);
    }
    connection->enterEventLoop();
}
