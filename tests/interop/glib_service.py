"""The gallery's interface as a service that GLib's own D-Bus implementation serves, through PyGObject, for typed clients: each row
with its method, its property and its signal, the methods that end otherwise, objects that come and go, and an interface that
does not keep its contract (typed_client/contracts.h)."""

import os
import sys

import gallery
from gallery import INTERFACE, NAME, PATH, PREFIX, PROPERTIES, ROWS

try:
    from gi.repository import Gio, GLib
except ImportError:
    print("PyGObject is not installed (package python3-gi)")
    sys.exit(gallery.SKIPPED)

ROOT = "/com/example"
MANAGER = "org.freedesktop.DBus.ObjectManager"
ITEM = "com.example.TypeGalleryItem1"
ODD = "com.example.Odd1"

# What each property is at first.
FIRST = {
    "Byte": "byte 0", "Int16": "int16 0", "UInt16": "uint16 0", "Int32": "0", "UInt32": "uint32 0", "Int64": "int64 0",
    "UInt64": "uint64 0", "Double": "0.0", "Boolean": "false", "String": "''", "ObjectPath": "objectpath '/'",
    "Signature": "signature ''", "Bytes": "@ay []", "Doubles": "@ad []", "Strings": "@as []", "Booleans": "@ab []",
    "Triple": "[0.0, 0.0, 0.0]", "Pairs": "@a(ds) []", "Matrix": "@aad []", "Texts": "@a{ss} {}", "Numbers": "@a{us} {}",
    "Structure": "(0, '', 0.0)", "Nested": "(0, ('', @ad []))", "Options": "{'Seconds': <uint32 0>}",
    "StrictOptions": "{'Seconds': <uint32 0>}", "Anything": "<'nothing yet'>", "DictAny": "@a{sv} {}", "Choice": "<uint32 0>",
    "Color": "uint32 0", "Mode": "'off'",
}  # fmt: skip


def describe():
    lines = [f"<node><interface name='{INTERFACE}'>"]
    for row, signature in ROWS:
        lines.append(f"<method name='Echo{row}'><arg name='x' type='{signature}' direction='in'/>"
                     f"<arg name='x' type='{signature}' direction='out'/></method>"
                     f"<signal name='Got{row}'><arg name='x' type='{signature}'/></signal>")  # fmt: skip
        if row in FIRST:
            lines.append(f"<property name='{row}' type='{signature}' access='readwrite'/>")
    for method, given, result in [("Fail", ["s", "s"], []), ("Throw", ["s"], []), ("Later", ["u", "s"], ["s"]), ("Drop", [], []),
                                  ("Add", ["s"], []), ("Remove", ["s"], []), ("Closed", [], [])]:  # fmt: skip
        lines.append(f"<method name='{method}'>" + "".join(f"<arg type='{t}' direction='in'/>" for t in given)
                     + "".join(f"<arg type='{t}' direction='out'/>" for t in result) + "</method>")  # fmt: skip
    lines.append(f"""</interface>
      <interface name='{ODD}'>
        <method name='Number'><arg type='s' direction='out'/></method>
        <method name='Take'><arg type='u' direction='in'/></method>
        <method name='Say'/>
        <method name='Turn'/>
        <method name='Leave'/>
        <property name='Level' type='s' access='read'/>
        <property name='Mood' type='u' access='read'/>
        <signal name='Said'><arg type='s'/></signal>
      </interface>
      <interface name='{ITEM}'><property name='Label' type='s' access='readwrite'/></interface>
      <interface name='{MANAGER}'>
        <method name='GetManagedObjects'><arg type='a{{oa{{sa{{sv}}}}}}' direction='out'/></method>
        <signal name='InterfacesAdded'><arg type='o'/><arg type='a{{sa{{sv}}}}'/></signal>
        <signal name='InterfacesRemoved'><arg type='o'/><arg type='as'/></signal>
      </interface></node>""")
    return Gio.DBusNodeInfo.new_for_xml("\n".join(lines))


class Refusal(Exception):
    def __init__(self, name, text):
        super().__init__(text)
        self.name = name


class Service:
    def __init__(self, loop):
        self.loop = loop
        self.model = describe()
        self.properties = {row: GLib.Variant.parse(GLib.VariantType.new(dict(ROWS)[row]), text, None, None)
                           for row, text in FIRST.items()}  # fmt: skip
        self.mood = 1
        self.items = {}  # path: what GLib calls it, and the label
        self.dropped = []
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.bus = Gio.DBusConnection.new_for_address_sync(os.environ["DBUS_SYSTEM_BUS_ADDRESS"], flags, None, None)
        self.bus.set_exit_on_close(True)
        for interface, path in ((INTERFACE, PATH), (ODD, PATH), (MANAGER, ROOT)):
            self.register(path, interface)
        Gio.bus_own_name_on_connection(self.bus, NAME, Gio.BusNameOwnerFlags.NONE, None, lambda *_: self.loop.quit())

    def register(self, path, interface):
        # Without functions of their own for properties, Get, GetAll and Set come here as calls.
        return self.bus.register_object(path, self.model.lookup_interface(interface), self.on_call, None, None)

    def emit(self, path, interface, member, body):
        self.bus.emit_signal(None, path, interface, member, body)

    def on_call(self, _bus, _sender, path, interface, member, body, call):
        try:
            if interface == PROPERTIES:
                self.on_property(path, member, body, call)
            elif interface == ODD:
                self.on_odd(member, call)
            elif interface == MANAGER:
                call.return_value(GLib.Variant.new_tuple(self.managed()))
            elif member == "EchoDescriptor":
                self.echo_descriptor(body, call)
            elif member.startswith("Echo"):
                self.emit(PATH, INTERFACE, "Got" + member.removeprefix("Echo"), body)
                call.return_value(body)
            else:
                self.on_other(member, body.unpack(), call)
        except Refusal as refusal:
            call.return_dbus_error(refusal.name, str(refusal))

    def echo_descriptor(self, body, call):
        passed = call.get_message().get_unix_fd_list()
        told = Gio.DBusMessage.new_signal(PATH, INTERFACE, "GotDescriptor")
        told.set_body(body)
        told.set_unix_fd_list(passed)
        self.bus.send_message(told, Gio.DBusSendMessageFlags.NONE)
        call.return_value_with_unix_fd_list(body, passed)

    # ---- Properties.

    def held(self, path, interface):
        if interface == INTERFACE:
            return self.properties
        if interface == ODD:
            return {"Level": GLib.Variant("s", "high"), "Mood": GLib.Variant("u", self.mood)}
        return {"Label": self.items[path][1]}

    def on_property(self, path, member, body, call):
        interface = body.get_child_value(0).get_string()
        held = self.held(path, interface)
        if member == "GetAll":
            call.return_value(GLib.Variant.new_tuple(GLib.Variant("a{sv}", held)))
            return
        name = body.get_child_value(1).get_string()
        if member == "Get":
            call.return_value(GLib.Variant.new_tuple(GLib.Variant.new_variant(held[name])))
            return
        value = body.get_child_value(2).get_variant()
        if interface == ITEM:
            self.items[path][1] = value
        else:
            self.properties[name] = value
        call.return_value(None)
        self.emit(path, PROPERTIES, "PropertiesChanged", GLib.Variant("(sa{sv}as)", (interface, {name: value}, [])))

    # ---- Methods that end otherwise.

    def on_other(self, member, values, call):
        if member == "Fail":
            raise Refusal(*values)
        if member == "Later":
            GLib.timeout_add(values[0], lambda: call.return_value(GLib.Variant("(s)", (values[1],))))
        elif member == "Drop":
            self.dropped.append(call)
        elif member == "Add":
            self.add(values[0])
            call.return_value(None)
        elif member == "Remove":
            self.remove(values[0])
            call.return_value(None)
        else:
            raise Refusal(PREFIX + "NotSupported", f"{member} is the gallery's own")

    def on_odd(self, member, call):
        if member == "Leave":
            os._exit(0)
        if member == "Number":
            call.return_value(GLib.Variant("(s)", ("seven",)))
            return
        if member == "Say":
            self.emit(PATH, ODD, "Said", GLib.Variant("(s)", ("something",)))
        if member == "Turn":
            self.mood += 1
            self.emit(PATH, PROPERTIES, "PropertiesChanged", GLib.Variant("(sa{sv}as)", (ODD, {}, ["Mood"])))
        call.return_value(None)

    # ---- Objects that come and go.

    def interfaces_of(self, path):
        return {ITEM: {"Label": self.items[path][1]}}

    def managed(self):
        objects = {path: self.interfaces_of(path) for path in self.items}
        objects[PATH] = {INTERFACE: self.properties, ODD: self.held(PATH, ODD)}
        return GLib.Variant("a{oa{sa{sv}}}", objects)

    def add(self, path):
        if path in self.items:
            raise Refusal("mwl.StatusCode.AlreadyExists", "AlreadyExists")
        self.items[path] = [self.register(path, ITEM), GLib.Variant("s", path)]
        self.emit(ROOT, MANAGER, "InterfacesAdded", GLib.Variant("(oa{sa{sv}})", (path, self.interfaces_of(path))))

    def remove(self, path):
        if path not in self.items:
            raise Refusal("mwl.StatusCode.NotFound", "NotFound")
        self.bus.unregister_object(self.items.pop(path)[0])
        self.emit(ROOT, MANAGER, "InterfacesRemoved", GLib.Variant("(oas)", (path, [ITEM])))


def main():
    loop = GLib.MainLoop()
    service = Service(loop)
    loop.run()
    return 0 if service.bus.is_closed() else 1


if __name__ == "__main__":
    sys.exit(main())
