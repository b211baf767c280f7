"""The type gallery by GLib's own D-Bus implementation, through PyGObject; also in the byte order that is not this machine's."""

import os
import sys

import gallery
from gallery import INTERFACE, NAME, PATH, PROPERTIES, CannotSay, Refused, Variant, types_of

try:
    from gi.repository import Gio, GLib
except ImportError:
    print("PyGObject is not installed (package python3-gi)")
    sys.exit(gallery.SKIPPED)

PATIENCE_MS = 20000


def to_glib(signature, value):
    if signature == "v":
        return GLib.Variant.new_variant(to_glib(value.signature, value.value))
    if signature[0] == "(":
        return GLib.Variant.new_tuple(*[to_glib(t, v) for t, v in zip(types_of(signature[1:-1]), value)])
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        entries = [GLib.Variant.new_dict_entry(to_glib(key, k), to_glib(content, v)) for k, v in value.items()]
        return GLib.Variant.new_array(GLib.VariantType.new(signature[1:]), entries)
    if signature[0] == "a":
        return GLib.Variant.new_array(GLib.VariantType.new(signature[1:]), [to_glib(signature[1:], v) for v in value])
    return GLib.Variant(signature, value)


def from_glib(variant):
    signature = variant.get_type_string()
    if signature == "v":
        content = variant.get_variant()
        return Variant(content.get_type_string(), from_glib(content))
    if signature[0] not in "({a":
        return variant.unpack()
    children = [variant.get_child_value(i) for i in range(variant.n_children())]
    if signature.startswith("a{"):
        return {from_glib(c.get_child_value(0)): from_glib(c.get_child_value(1)) for c in children}
    values = [from_glib(child) for child in children]
    return tuple(values) if signature[0] == "(" else values


class GlibPeer:
    tells_names = True
    cannot = {"method": ["Descriptor"], "property": [], "signal": []}  # descriptors are tried apart

    def __init__(self, order):
        self.name = f"GLib, {order.value_nick}"
        self.order = order
        address = os.environ["DBUS_SYSTEM_BUS_ADDRESS"]
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
        self.signals = []
        for interface in (INTERFACE, PROPERTIES):
            self.bus.signal_subscribe(NAME, interface, None, PATH, None, Gio.DBusSignalFlags.NONE, self.on_signal)
        # The call returns when the bus has the matches.
        self.ask("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", "", [])

    def on_signal(self, _bus, _sender, _path, _interface, member, parameters):
        self.signals.append((member, from_glib(parameters)))

    def ask(self, name, path, interface, member, signature, values, descriptors=()):
        """The reply's body, and its descriptors."""
        if any(gallery.glib_misreads(t, v) for t, v in zip(types_of(signature), values)):
            raise CannotSay
        message = Gio.DBusMessage.new_method_call(name, path, interface, member)
        message.set_byte_order(self.order)
        if signature:
            message.set_body(to_glib(f"({signature})", tuple(values)))
        if descriptors:
            passed = Gio.UnixFDList.new()
            for descriptor in descriptors:
                passed.append(descriptor)  # duplicates it
            message.set_unix_fd_list(passed)
        # The blob is what is sent.
        assert message.to_blob(Gio.DBusCapabilityFlags.UNIX_FD_PASSING)[0] == int(self.order)
        reply, _ = self.bus.send_message_with_reply_sync(message, Gio.DBusSendMessageFlags.NONE, PATIENCE_MS, None)
        body = list(from_glib(reply.get_body())) if reply.get_body() else []
        if reply.get_message_type() == Gio.DBusMessageType.ERROR:
            raise Refused(reply.get_error_name(), body[0] if body else "")
        return body, reply.get_unix_fd_list()

    def call(self, member, signature, values):
        return self.ask(NAME, PATH, INTERFACE, member, signature, values)[0]

    def get(self, row):
        return self.ask(NAME, PATH, PROPERTIES, "Get", "ss", [INTERFACE, row.name])[0][0].value

    def set(self, name, signature, value):
        self.ask(NAME, PATH, PROPERTIES, "Set", "ssv", [INTERFACE, name, Variant(signature, value)])

    def heard(self):
        while GLib.MainContext.default().iteration(False):
            pass
        return self.signals


def try_descriptors(peer):
    """A pipe's end there and back: what is written into what comes back is read at the other end."""
    report = gallery.Report(peer.name + ", descriptors")
    reading, writing = os.pipe()
    reply, descriptors = peer.ask(NAME, PATH, INTERFACE, "EchoDescriptor", "h", [0], [writing])
    os.close(writing)
    report.check("descriptors", descriptors is not None and descriptors.get_length() == 1, "no descriptor came back")
    back = descriptors.get(reply[0])
    os.write(back, b"there and back")
    os.close(back)
    del descriptors
    report.check("descriptors", os.read(reading, 100) == b"there and back", "another descriptor came back")
    try:
        peer.ask(NAME, PATH, INTERFACE, "EchoAnything", "v", [Variant("h", 0)], [reading])
        report.check("descriptors", False, "a descriptor in a variant was not refused")
    except Refused as refused:
        report.check("descriptors", refused.name == gallery.PREFIX + "InvalidArgs" and "descriptor" in refused.text,
                     f"a descriptor in a variant was refused by {refused}")  # fmt: skip
    os.close(reading)
    try:
        peer.ask(NAME, PATH, INTERFACE, "EchoDescriptor", "h", [0])
        report.check("descriptors", False, "a descriptor that is not there was not refused")
    except Refused as refused:
        report.check("descriptors", refused.name == gallery.PREFIX + "InvalidArgs", f"a missing one was refused by {refused}")
    return report.end()


def try_edges(peer):
    """Values that not every peer can write down."""
    report = gallery.Report(peer.name + ", edges")
    tiny, infinite, nan = 5e-324, float("inf"), float("nan")
    for value in (tiny, -tiny, infinite, -infinite, -0.0, nan):
        found = peer.call("EchoDouble", "d", [value])
        report.check("doubles", gallery.equal("d", found[0], value), f"{value} came back as {found}")
    values = [float(i) for i in range(30000)]
    report.check("sizes", peer.call("EchoDoubles", "ad", [values]) == [values], "30000 doubles came back otherwise")
    text = "é" * 500000
    report.check("sizes", peer.call("EchoString", "s", [text]) == [text], "a text of a megabyte came back otherwise")
    nested = gallery.deep(31)
    found = peer.call("EchoAnything", "v", [nested])
    report.check("nesting", gallery.equal("v", found[0], nested), "32 levels of variants came back otherwise")
    twice = Gio.DBusMessage.new_method_call(NAME, PATH, INTERFACE, "EchoNumbers")
    twice.set_byte_order(peer.order)
    twice.set_body(GLib.Variant.parse(None, "({uint32 5: 'first', 5: 'last'},)", None, None))
    reply, _ = peer.bus.send_message_with_reply_sync(twice, Gio.DBusSendMessageFlags.NONE, PATIENCE_MS, None)
    report.check("keys", from_glib(reply.get_body()) == ({5: "last"},), f"of a key twice came back {reply.get_body()}")
    # Unicode's noncharacters are text to D-Bus, but sd-bus reads none. The caller is told, and the connection stays.
    for text in ("\ufffe", "\U0010ffff"):
        try:
            peer.call("EchoString", "s", [text])
            report.check("noncharacters", False, f"{text!a} was not refused")
        except Refused as refused:
            report.check("noncharacters", refused.name == gallery.PREFIX + "InvalidArgs" and refused.text.startswith("argument 'x'"),
                         f"{text!a} was refused by {refused}")  # fmt: skip
    return report.end()


def try_objects(peer):
    """Objects that come and go, as the object manager tells them."""
    report = gallery.Report(peer.name + ", objects")
    heard = []
    manager = "org.freedesktop.DBus.ObjectManager"
    peer.bus.signal_subscribe(NAME, manager, None, "/com/example", None, Gio.DBusSignalFlags.NONE,
                              lambda _b, _s, _p, _i, member, body: heard.append((member, from_glib(body))))  # fmt: skip
    paths = [f"/com/example/item{i}" for i in range(3)]
    item = "com.example.TypeGalleryItem1"

    def managed():
        return peer.ask(NAME, "/com/example", manager, "GetManagedObjects", "", [])[0][0]

    report.check("objects", sorted(managed()) == [PATH], f"at first there is {sorted(managed())}")
    for path in paths:
        peer.call("Add", "s", [path])
        found = managed()
        report.check("objects", path in found and found[path][item]["Label"].value == path, f"{path} is not managed")
    try:
        peer.call("Add", "s", [paths[0]])
        report.check("objects", False, "a second object at a path was not refused")
    except Refused as refused:
        report.check("objects", (refused.name, refused.text) == ("mwl.StatusCode.AlreadyExists", "AlreadyExists"),
                     f"a second object at a path was refused by {refused}")  # fmt: skip
    for path in paths:
        peer.call("Remove", "s", [path])
        report.check("objects", path not in managed(), f"{path} is still managed")
    peer.heard()
    for path in paths:
        told = [member for member, values in heard if values[0] == path and item in values[1]]
        report.check("objects", told == ["InterfacesAdded", "InterfacesRemoved"], f"of {path} was told {told}")
    return report.end()


def main():
    seed = gallery.seed_of_today()
    failures = 0
    for order in (Gio.DBusMessageByteOrder.LITTLE_ENDIAN, Gio.DBusMessageByteOrder.BIG_ENDIAN):
        peer = GlibPeer(order)
        failures += gallery.run(peer, seed, count=10)
        failures += try_descriptors(peer) + try_edges(peer) + try_objects(peer)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
