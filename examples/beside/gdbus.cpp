// The heater on GDBus, without its code generator.
#include <gio/gio.h>
#include <glib-unix.h>

#include <cstdlib>

// [interface]
const char XML[] =
    "<node><interface name='com.example.Heater1'>"
    "<method name='Boost'><arg name='seconds' type='u' direction='in'/></method>"
    "<property name='Target' type='d' access='readwrite'/>"
    "<signal name='Measured'><arg name='celsius' type='d'/></signal>"
    "</interface></node>";

double target = 20.0;

void OnCall(GDBusConnection* connection, const char*, const char* path, const char* interface, const char*,
            GVariant* arguments, GDBusMethodInvocation* call, void*) {
    guint32 seconds = 0;
    g_variant_get(arguments, "(u)", &seconds);
    if (seconds > 3600) {
        g_dbus_method_invocation_return_dbus_error(call, "org.freedesktop.DBus.Error.InvalidArgs",
                                                   "more than an hour");
        return;
    }
    g_dbus_connection_emit_signal(connection, nullptr, path, interface, "Measured",
                                  g_variant_new("(d)", target), nullptr);
    g_dbus_method_invocation_return_value(call, nullptr);
}

GVariant* OnGet(GDBusConnection*, const char*, const char*, const char*, const char*, GError**, void*) {
    return g_variant_new_double(target);
}

gboolean OnSet(GDBusConnection* connection, const char*, const char* path, const char* interface,
               const char* property, GVariant* value, GError** error, void*) {
    const double celsius = g_variant_get_double(value);
    if (!(celsius >= 5 && celsius <= 30)) {
        g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "the target is 5 to 30 degrees");
        return FALSE;
    }
    target = celsius;
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&changed, "{sv}", property, g_variant_new_double(target));
    g_dbus_connection_emit_signal(connection, nullptr, path, "org.freedesktop.DBus.Properties",
                                  "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", interface, &changed, nullptr), nullptr);
    return TRUE;
}

const GDBusInterfaceVTable TABLE = {OnCall, OnGet, OnSet, {}};
// [end]

void OnBus(GDBusConnection* connection, const char*, void* node) {
    auto* const info = static_cast<GDBusNodeInfo*>(node);
    g_dbus_connection_register_object(connection, "/com/example/Heater", info->interfaces[0], &TABLE, nullptr,
                                      nullptr, nullptr);
}

gboolean OnTerm(void* loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

int main() {
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(XML, nullptr);
    g_unix_signal_add(SIGTERM, OnTerm, loop);
    const guint owner = g_bus_own_name(G_BUS_TYPE_SYSTEM, "com.example.Heater", G_BUS_NAME_OWNER_FLAGS_NONE,
                                       OnBus, nullptr, nullptr, node, nullptr);
    g_main_loop_run(loop);
    g_bus_unown_name(owner);
    g_dbus_node_info_unref(node);
    g_main_loop_unref(loop);
    return EXIT_SUCCESS;
}
