// The server of the typed comparison, by sdbus-c++'s convenience layer.

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <string>
#include <vector>

#include "bench_types.h"

int main() {
    const auto connection = sdbus::createSystemBusConnection(bench::NAME);
    const auto object = sdbus::createObject(*connection, bench::PATH);
    double held = 1.0;
    using Item = sdbus::Struct<double, std::string>;
    using Values = std::map<std::string, sdbus::Variant>;
    const auto add = [&](const char* name, auto handler) {
        object->registerMethod(name).onInterface(bench::INTERFACE).implementedAs(handler);
    };
    add("Empty", [] {});
    add("Number", [](std::uint32_t number) { return number + 1; });
    add("Text", [](const std::string& text) { return text; });
    add("Four", [&held](std::uint32_t number, double value, bool flag, const std::string& text) {
        held = number + value + flag + static_cast<double>(text.size());
    });
    add("Items", [](const std::vector<Item>& items) { return static_cast<std::uint32_t>(items.size()); });
    add("Options", [](const Values& values) {
        bench::Options options;
        for (const auto& [key, value] : values) {
            if (key == "Seconds") {
                options.seconds = value.get<std::uint32_t>();
            } else if (key == "Note") {
                options.note = value.get<std::string>();
            }
        }
        return options.seconds;
    });
    add("Bytes",
        [](const std::vector<std::uint8_t>& bytes) { return static_cast<std::uint32_t>(bytes.size()); });
    object->registerProperty("Value")
        .onInterface(bench::INTERFACE)
        .withGetter([&held] { return held; })
        .withSetter([&held](const double& value) { held = value; });
    object->registerMethod("Quit").onInterface("com.example.Control1").implementedAs([&] {
        connection->leaveEventLoop();
    });
    object->finishRegistration();
    connection->enterEventLoop();
}
