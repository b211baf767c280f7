"""The same interface by a contract, by hand and on sdbus-c++, with as many members as are asked for: what an author writes, made
by a program. With a service around it: one that ends as soon as its name is owned and its object is on the bus."""

TYPES = [
    ("u", "", "std::uint32_t", "void"),
    ("s", "s", "std::string_view", "std::string"),
    ("usd", "u", "std::uint32_t, std::string_view, double", "std::uint32_t"),
]


def typed(methods, properties, signals, service):
    contract, bindings, code = [], [], []
    names = ['{"a"}', '{"a", "b"}', '{"a", "b", "c", "d"}']
    bodies = [
        "void M{i}(std::uint32_t a) {{ sink = a + {i}; }}",
        "std::string M{i}(std::string_view a) {{ sink = a.size() + {i}; return std::string(a); }}",
        "std::uint32_t M{i}(std::uint32_t a, std::string_view b, double c)"
        " {{ sink = a + b.size() + {i}; return static_cast<std::uint32_t>(c); }}",
    ]
    for i in range(methods):
        _, _, arguments, result = TYPES[i % 3]
        contract.append(f'static constexpr Method<{result}({arguments})> M{i}{{"M{i}", {names[i % 3]}, OPEN}};')
        bindings.append(f"Bind<C::M{i}, &Object::M{i}>")
        code.append(bodies[i % 3].format(i=i))
    for i in range(properties):
        contract.append(f'static constexpr Property<std::uint32_t> P{i}{{"P{i}"}};')
        bindings.append(f"Bind<C::P{i}, &Object::p{i}>")
        code.append(f"std::uint32_t p{i} = {i}; void SetP{i}(std::uint32_t value) {{ p{i} = value; Changed<C::P{i}>(); }}")
    for i in range(signals):
        contract.append(f'static constexpr Signal<std::uint32_t> S{i}{{"S{i}", {{"value"}}}};')
        code.append(f"void SendS{i}(std::uint32_t value) {{ Emit<C::S{i}>(value); }}")
    members = [f"{kind}{i}" for kind, count in (("M", methods), ("P", properties), ("S", signals)) for i in range(count)]
    lines = [
        "#include <tern/typed/implements.h>",
        "#include <tern/typed/bus.h>" if service else "",
        "using namespace mwl::Typed;",
        "struct C {",
        'static constexpr const char* NAME = "com.example.C1";',
        *contract,
        f"static constexpr Members<{', '.join(members)}> ALL{{}};",
        "};",
        "struct Object final : Implements<Object, C> {",
        "std::size_t sink = 0;",
        *code,
        f"static constexpr auto Describe() {{ return Bindings<{', '.join(bindings)}>(); }}",
        "};",
        "InterfaceBase* Make() { return new Object; }",
    ]
    if service:
        lines.append(SERVICE.replace("MEMBERS", "Bus bus; Exported object;").replace(
            "START",
            "status = bus.Open(manager, loop); if (status == StatusCode::Ok) {"
            ' object = bus.Export("/com/example/C", std::make_unique<Object>()); status = object.GetStatus(); }',
        ).replace("STOP", "bus.Close();"))
    return "\n".join(lines)


def by_hand(methods, properties, signals, service):
    table, code = [], []
    bodies = [
        'unsigned a; const int r = sd_bus_message_read(m, "u", &a); if (r < 0) return r;'
        ' static_cast<Object*>(u)->sink = a + {i}; return sd_bus_reply_method_return(m, "");',
        'const char* a; const int r = sd_bus_message_read(m, "s", &a); if (r < 0) return r;'
        " static_cast<Object*>(u)->sink = std::strlen(a) + {i}; const std::string t(a);"
        ' return sd_bus_reply_method_return(m, "s", t.c_str());',
        'unsigned a; const char* b; double c; const int r = sd_bus_message_read(m, "usd", &a, &b, &c);'
        " if (r < 0) return r; static_cast<Object*>(u)->sink = a + std::strlen(b) + {i};"
        ' return sd_bus_reply_method_return(m, "u", static_cast<unsigned>(c));',
    ]
    for i in range(methods):
        taken, given, _, _ = TYPES[i % 3]
        code.append(f"static int M{i}(sd_bus_message* m, void* u, sd_bus_error*) {{ {bodies[i % 3].format(i=i)} }}")
        table.append(f'SD_BUS_METHOD("M{i}", "{taken}", "{given}", &M{i}, SD_BUS_VTABLE_UNPRIVILEGED)')
    for i in range(properties):
        code.append(
            f"static int G{i}(sd_bus*, const char*, const char*, const char*, sd_bus_message* m, void* u, sd_bus_error*)"
            f' {{ return sd_bus_message_append(m, "u", static_cast<Object*>(u)->p[{i}]); }}'
            f"\nvoid SetP{i}(sd_bus* bus, Object& object, unsigned value) {{ object.p[{i}] = value;"
            f' sd_bus_emit_properties_changed(bus, "/com/example/C", "com.example.C1", "P{i}", nullptr); }}'
        )
        table.append(f'SD_BUS_PROPERTY("P{i}", "u", &G{i}, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE)')
    for i in range(signals):
        code.append(
            f"void SendS{i}(sd_bus* bus, unsigned value) {{"
            f' sd_bus_emit_signal(bus, "/com/example/C", "com.example.C1", "S{i}", "u", value); }}'
        )
        table.append(f'SD_BUS_SIGNAL("S{i}", "u", 0)')
    lines = [
        "#include <systemd/sd-bus.h>",
        "#include <tern/service/dbus_interface.h>",
        "#include <cstring>",
        "#include <string>",
        "struct Object final : mw::tern::DBusInterface {",
        'Object() : DBusInterface("com.example.C1") {}',
        "const sd_bus_vtable* GetVtable() const override;",
        "void* GetUserData() override { return this; }",
        f"std::size_t sink = 0; unsigned p[{max(properties, 1)}] = {{}};",
        "};",
        *code,
        "const sd_bus_vtable* Object::GetVtable() const {",
        f"static const sd_bus_vtable table[] = {{SD_BUS_VTABLE_START(0), {', '.join(table)}, SD_BUS_VTABLE_END}};",
        "return table; }",
        "mw::tern::DBusInterface* Make() { return new Object; }",
    ]
    if service:
        lines.append(SERVICE.replace("MEMBERS", "").replace(
            "START",
            'static_cast<void>(loop); status = manager.AddDBusObject("/com/example/C");'
            ' if (status == StatusCode::Ok) status = manager.AddInterfaceToDBusObject("/com/example/C", new Object);'
            ' if (status == StatusCode::Ok) status = manager.ExportObject("/com/example/C");',
        ).replace("STOP", ""))
    return "\n".join(lines)


def sdbus_cpp(methods, properties, signals, service):
    assert not service
    lines, code = [], []
    bodies = [
        "[this](std::uint32_t a) {{ sink = a + {i}; }}",
        "[this](const std::string& a) {{ sink = a.size() + {i}; return a; }}",
        "[this](std::uint32_t a, const std::string& b, double c)"
        " {{ sink = a + b.size() + {i}; return static_cast<std::uint32_t>(c); }}",
    ]
    for i in range(methods):
        code.append(f'it.registerMethod("M{i}").onInterface("com.example.C1").implementedAs({bodies[i % 3].format(i=i)});')
    for i in range(properties):
        code.append(f'it.registerProperty("P{i}").onInterface("com.example.C1").withGetter([this] {{ return p[{i}]; }});')
        lines.append(
            f"void SetP{i}(std::uint32_t value) {{ p[{i}] = value;"
            f' object->emitPropertiesChangedSignal("com.example.C1", {{"P{i}"}}); }}'
        )
    for i in range(signals):
        code.append(f'it.registerSignal("S{i}").onInterface("com.example.C1").withParameters<std::uint32_t>();')
        lines.append(
            f'void SendS{i}(std::uint32_t value) {{ object->emitSignal("S{i}").onInterface("com.example.C1")'
            ".withArguments(value); }"
        )
    return "\n".join([
        "#include <sdbus-c++/sdbus-c++.h>",
        "#include <memory>",
        "#include <string>",
        "struct Object {",
        "explicit Object(sdbus::IConnection& connection)",
        '    : object(sdbus::createObject(connection, "/com/example/C")) { Register(*object); }',
        "void Register(sdbus::IObject& it) {",
        *code,
        "it.finishRegistration(); }",
        *lines,
        f"std::size_t sink = 0; std::uint32_t p[{max(properties, 1)}] = {{}};",
        "std::unique_ptr<sdbus::IObject> object;",
        "};",
        "Object* Make(sdbus::IConnection& connection) { return new Object(connection); }",
    ])


SERVICE = """
#include <tern/service/component.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>
#include <unistd.h>
#include <memory>
#include <string>
using mw::tern::StatusCode;
struct Server final : mwl::DBusService::IpcServer {
    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        StatusCode status = StatusCode::Ok;
        START
        _exit(status == StatusCode::Ok ? 0 : 1);
    }
    void Stop() override { STOP }
    MEMBERS
};
int main() {
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    Server server;
    const std::string name = "com.example.C";
    mwl::DBusService::Component component(name, monitor, server);
    if (component.Initialize() != StatusCode::Ok || component.Start() != StatusCode::Ok) {
        return 2;
    }
    component.JoinThread();
    return 3;
}
"""

SOURCES = {"tern": typed, "by hand": by_hand, "sdbus-c++": sdbus_cpp}


def source(side, methods, properties=0, signals=0, service=False):
    return SOURCES[side](methods, properties, signals, service)
