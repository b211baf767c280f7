// The server of the comparisons on GLib's GDBus.

#include <gio/gio.h>

#include <string>

#include "server_options.h"

namespace {

void OnMethodCall(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant* parameters,
                  GDBusMethodInvocation* invocation, void*) {
    const char* text = nullptr;
    g_variant_get(parameters, "(&s)", &text);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", text));
}

void OnSignal(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*, void*) {}

const GDBusInterfaceVTable TABLE = {OnMethodCall, nullptr, nullptr, {}};

void Export(GDBusConnection* connection, const ServerOptions& options) {
    std::string xml = "<node>";
    for (int i = 0; i < options.interfaces; ++i) {
        xml += "<interface name='" + ServerOptions::Interface(i) +
               "'><method name='Echo'><arg type='s' direction='in'/><arg type='s' direction='out'/></method>"
               "</interface>";
    }
    xml += "</node>";
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    Require(node != nullptr, "g_dbus_node_info_new_for_xml");
    for (int object = 0; object < options.objects; ++object) {
        for (int i = 0; i < options.interfaces; ++i) {
            Require(g_dbus_connection_register_object(connection, ServerOptions::Path(object).c_str(),
                                                      node->interfaces[i], &TABLE, nullptr, nullptr,
                                                      nullptr) != 0,
                    "g_dbus_connection_register_object");
        }
    }
    g_dbus_node_info_unref(node);
    for (int i = 0; i < options.matches; ++i) {
        g_dbus_connection_signal_subscribe(connection, nullptr, "org.example.Other",
                                           ("Changed" + std::to_string(i)).c_str(), "/org/example/Other",
                                           nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, nullptr, nullptr);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    const ServerOptions options(argc, argv);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    Require(connection != nullptr, "g_bus_get_sync");
    Export(connection, options);
    g_bus_own_name_on_connection(connection, options.name.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
    g_main_loop_run(loop);
}
