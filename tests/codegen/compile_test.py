#!/usr/bin/env python3
"""What the generator writes compiles without a warning, and printing the contracts gives the XML that they were made of.

  compile_test.py TOOL CORPUS WORK_FOLDER COMPILER [FLAGS...] [--link FLAGS...]

CORPUS is one of
  golden    golden/*.xml
  examples  the contracts of the examples, printed; their XML has to come back to the byte
  world     the interfaces that the system's packages describe: systemd's daemons print theirs, others lie in
            /usr/share/dbus-1/interfaces, or in the folder TERN_INTERFACES. Debian's udisks2 and bluez bring no XML: they are
            asked on the system's bus where they run. udisksd also runs without it, on a private bus, with its manager
            alone where there is no disk; bluetoothd does not start without an adapter, so that it is left out then.
Without --link nothing is printed: the code is compiled only.
"""
import collections
import concurrent.futures
import importlib.machinery
import importlib.util
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

PROJECT = pathlib.Path(__file__).resolve().parents[2]
GOLDEN = PROJECT / "tests/codegen/golden"
INTERFACES = pathlib.Path(os.environ.get("TERN_INTERFACES", "/usr/share/dbus-1/interfaces"))
WARNINGS = "-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Werror".split()
STANDARD = {"org.freedesktop.DBus." + name for name in ("Peer", "Introspectable", "Properties", "ObjectManager")}
# Members of one source file; more make compilers slow.
MOST_MEMBERS = 300
# What has to be there for the corpus to be what it says: prefix of the interfaces' names, at least so many of them.
WORLD = {"org.freedesktop.systemd1.": 10, "org.freedesktop.NetworkManager": 40, "org.freedesktop.ModemManager1": 15,
         "org.freedesktop.UPower": 3, "org.freedesktop.login1.": 3, "org.freedesktop.hostname1": 1}
# Services whose packages bring no XML: name on the bus, and the program where it runs without hardware.
RUNNING = (("org.freedesktop.UDisks2", "/usr/libexec/udisks2/udisksd"), ("org.bluez", ""))


def interfaces_of(path):
    root = ElementTree.parse(path).getroot()
    return [i for i in root.iter("interface") if i.get("name") not in STANDARD]


def known(element, of_interface, name, default):
    """An annotation's value, the interface's where the member has none."""
    for where in (element, of_interface):
        for note in where.findall("annotation") if where is not None else ():
            if note.get("name") == name:
                return note.get("value")
    return default


def described(interface, is_open):
    """What of an interface goes into a contract, in the form in which two are compared."""
    members = []
    for element in interface:
        if element.tag not in ("method", "signal", "property"):
            continue
        facts = {
            "documentation": known(element, None, "org.gtk.GDBus.DocString", ""),
            "deprecated": "true" in (known(element, None, "org.freedesktop.DBus.Deprecated", ""),
                                     known(interface, None, "org.freedesktop.DBus.Deprecated", "")),
            "sensitive": known(element, None, "mwl.Typed.Sensitive", "false"),
        }
        if element.tag == "property":
            facts["type"] = element.get("type")
            facts["access"] = element.get("access")
            facts["emits"] = known(element, interface, "org.freedesktop.DBus.Property.EmitsChangedSignal", "true")
            facts["explicit"] = known(element, None, "org.freedesktop.systemd1.Explicit", "false")
        else:
            ins, outs = [], []
            for argument in element.findall("arg"):
                direction = argument.get("direction") or ("in" if element.tag == "method" else "out")
                (ins if direction == "in" else outs).append((argument.get("name") or "", argument.get("type")))
            arguments = ins + outs
            if any(name for name, _ in arguments):  # the contract names all of them, or none
                arguments = [(name or f"arg{number}", kind) for number, (name, kind) in enumerate(arguments)]
            facts["arguments"] = (arguments, len(ins))
        if element.tag == "method":
            facts["no reply"] = known(element, None, "org.freedesktop.DBus.Method.NoReply", "false")
        if element.tag == "method" or element.get("access") == "readwrite":
            facts["closed"] = known(element, None, "org.freedesktop.systemd1.Privileged", "false" if is_open else "true")
        members.append((element.tag, element.get("name"), facts))
    return known(interface, None, "org.gtk.GDBus.DocString", ""), members


class Corpus:
    def __init__(self, tool, work, compiler, flags, link):
        self.tool = tool
        self.work = work
        self.compiler = compiler
        self.flags = ["-std=c++20", "-O0", *WARNINGS, *flags, f"-I{PROJECT}/include", f"-I{GOLDEN}", f"-I{work}"]
        self.link = link
        self.has_proxies = (PROJECT / "include/tern/typed/proxy.h").exists()
        self.failures = 0
        spec = importlib.util.spec_from_loader("tool", importlib.machinery.SourceFileLoader("tool", tool))
        self.module = importlib.util.module_from_spec(spec)
        sys.dont_write_bytecode = True
        spec.loader.exec_module(self.module)

    def fail(self, text):
        print(f"FAILED {text}", flush=True)
        self.failures += 1

    def ok(self, text):
        print(f"ok {text}", flush=True)

    def build(self, name, source):
        """The program, or the object file; None when it does not compile without a warning."""
        path = self.work / f"{name}.cpp"
        path.write_text(source)
        result = self.work / (name if self.link else f"{name}.o")
        command = [self.compiler, *self.flags, str(path), "-o", str(result), *(self.link or ["-c"])]
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0 or done.stderr:
            print(done.stderr[:6000])
            self.fail(f"{name} does not compile without a warning")
            return None
        return result

    def generate(self, path, namespace, options=()):
        done = subprocess.run([sys.executable, self.tool, *options, "--name", namespace, "--namespace", namespace, str(path),
                               str(self.work)], capture_output=True, text=True)
        if done.returncode != 0 or done.stderr:
            self.fail(f"{path}: status {done.returncode}\n{done.stderr}")
            return []
        return self.classes(path, options)

    def classes(self, path, options):
        """(name on the bus, class) of each interface, as the generator names them."""
        reader = self.module.Reader(True, [])
        reader.read(self.module.Tree("--entities" in options).read(pathlib.Path(path).read_bytes()))
        self.module.name_everything(reader.interfaces)
        return [(i, i.cpp) for i in reader.interfaces]

    def program(self, units):
        """Includes everything, makes each vtable, and prints each contract into the folder that it is given."""
        text = ""
        for namespace, _, _ in units:
            text += f'#include "{namespace}_contract.h"\n#include "{namespace}_skeleton.h"\n'
            text += f'#include "{namespace}_proxy.h"\n' if self.has_proxies else ""
        text += "\n#include <cstdio>\n#include <string>\n\nnamespace {\n\n"
        text += "template <class Contract>\nbool Print(const std::string& path) {\n"
        text += '    std::FILE* const file = std::fopen(path.c_str(), "w");\n    if (file == nullptr) {\n        return false;\n    }\n'
        text += "    const bool isGood = mwl::Typed::WriteIntrospection<Contract>(file) == mwl::StatusCode::Ok;\n"
        text += "    return std::fclose(file) == 0 && isGood;\n}\n\n"
        if self.has_proxies:
            for namespace, _, classes in units:
                for interface, name in classes:
                    text += self.listener(namespace, interface, name)
        text += "}  // namespace\n\nint main(int, char* arguments[]) {\n    const std::string folder = arguments[1];\n"
        text += "    bool isGood = !folder.empty();\n"
        for namespace, _, classes in units:
            for interface, name in classes:
                full = f"{namespace}::{name}"
                text += f"    isGood = isGood && mwl::Typed::Detail::Vtable<{full}Skeleton, {full}>::ENTRIES.size() >= 2;\n"
                text += f'    isGood = isGood && Print<{full}>(folder + "/{namespace}.{interface.name}.xml");\n'
        return text + "    return isGood ? 0 : 1;\n}\n"

    def listener(self, namespace, interface, name):
        """Instantiates what hears of signals."""
        names = self.module.functions_of(
            interface, self.module.OF_PROXY | {name + "Proxy"}, {"property": ("Get", "Set"), "signal": ("On",)})
        text = f"[[maybe_unused]] void Hear(const {namespace}::{name}Proxy& proxy) {{\n    static_cast<void>(proxy);\n"
        for (member, prefix), function in names.items():
            if prefix == "On":
                types = ", ".join(f"const {a.type.cpp}&" for a in member.ins)
                text += f"    static_cast<void>(proxy.{function}([]({types}) {{}}));\n"
        return text + "}\n\n"

    def check(self, name, units, is_open=True):
        """units: [(namespace, XML file, [(interface, class)])], which were generated with --open, or without it"""
        program = self.build(name, self.program(units))
        if program is None:
            return
        count = sum(len(classes) for _, _, classes in units)
        self.ok(f"{name}: {count} interfaces compile without a warning")
        if not self.link:
            return
        printed = self.work / f"{name}.printed"
        printed.mkdir()
        done = subprocess.run([str(program), str(printed)], capture_output=True, text=True)
        if done.returncode != 0:
            self.fail(f"{name}: printing ended with {done.returncode}: {done.stderr}")
            return
        different = 0
        for namespace, path, classes in units:
            originals = {i.get("name"): i for i in interfaces_of(path)}
            if set(originals) != {interface.name for interface, _ in classes}:
                self.fail(f"{path}: not all interfaces were made")
            for interface, _ in classes:
                back = interfaces_of(printed / f"{namespace}.{interface.name}.xml")[0]
                was, is_now = described(originals[interface.name], is_open), described(back, True)
                if was != is_now or back.get("name") != interface.name:
                    different += 1
                    self.fail(f"{path}: {interface.name} comes back as another")
                    for a, b in zip(was[1], is_now[1]):
                        if a != b:
                            print(f"  was {a}\n  is  {b}")
        if different == 0:
            self.ok(f"{name}: {count} interfaces come back as they were")


def golden(corpus):
    units = [(name, GOLDEN / f"{name}.xml", corpus.generate(GOLDEN / f"{name}.xml", name, ["--open"]))
             for name in ("room", "names")]
    corpus.check("golden", units)
    closed = [(f"{name}_closed", path, corpus.generate(path, f"{name}_closed")) for name, path, _ in units]
    corpus.check("closed", closed, False)
    # Who compares finds a difference: what was closed is open here.
    original = interfaces_of(GOLDEN / "room.xml")[0]
    if described(original, True) == described(original, False):
        corpus.fail("a difference is not found")
    # No name of the XML stays that is a macro of the headers, whatever the compiler and the C library.
    (corpus.work / "macros.cpp").write_text('#include "room_skeleton.h"\n#include "room_proxy.h"\n#include <tern/typed/reply.h>\n')
    done = subprocess.run([corpus.compiler, *corpus.flags, "-E", "-dM", str(corpus.work / "macros.cpp")], capture_output=True,
                          text=True)
    macros = set(re.findall(r"^#define (\w+)", done.stdout, re.M))
    kept = sorted(name for name in macros if corpus.module.Scope().take(name) in macros)
    if done.returncode != 0 or len(macros) < 500 or kept:
        corpus.fail(f"{len(macros)} macros, of which these stay names: {' '.join(kept)} {done.stderr[:2000]}")
    else:
        corpus.ok(f"no name is one of {len(macros)} macros")
    # Code of another format is told of.
    for form in ("contract", "skeleton", "proxy"):
        text = (corpus.work / f"room_{form}.h").read_text()
        (corpus.work / "other.cpp").write_text(text.replace("IsFormatOfGenerator(1)", "IsFormatOfGenerator(2)"))
        done = subprocess.run([corpus.compiler, *corpus.flags, "-fsyntax-only", "-Wno-error", "-w", str(corpus.work / "other.cpp")],
                              capture_output=True, text=True)
        if done.returncode == 0 or "generated for another version of the library: generate it again" not in done.stderr:
            corpus.fail(f"a {form} of another format is compiled: {done.stderr[:2000]}")
        else:
            corpus.ok(f"a {form} of another format is refused")
    # The stubs, which override everything.
    for name, path, _ in units:
        corpus.generate(path, name, ["--stubs"])
        stub = corpus.build(f"{name}_stub", f'#include "{name}_interface.cpp"\nint main() {{ return {name}::MakeInterfaces().empty(); }}\n')
        if stub is not None:
            corpus.ok(f"{name}: the stubs compile without a warning")
            if corpus.link and subprocess.run([str(stub)]).returncode != 0:
                corpus.fail(f"{name}: there are no stubs")


EXAMPLES = (
    ("thermostat", "examples/thermostat/thermostat_contract.h"),
    ("tutorial", "examples/tutorial/thermostat_contract.h"),
    ("type_gallery", "examples/type-gallery/contract.h"),
)


def examples(corpus):
    """XML -> C++ -> XML, to the byte, as both are printed by the library."""
    for name, header in EXAMPLES:
        text = (PROJECT / header).read_text()
        namespace = re.search(r"^namespace (\w+) \{", text, re.M)[1]
        contracts = re.findall(r"^struct (\w+) \{\n(?:    [^\n]*\n|\n)*?    static constexpr const char\* NAME", text, re.M)
        if not contracts:
            corpus.fail(f"{header} has no contract")
        folder = corpus.work / f"{name}.first"
        folder.mkdir()
        source = f'#include "{PROJECT / header}"\n#include <cstdio>\nint main() {{\n    int failures = 0;\n'
        for contract in contracts:
            source += f'    failures += mwl::Typed::WriteIntrospection<{namespace}::{contract}>(stdout) != mwl::StatusCode::Ok;\n'
        program = corpus.build(f"{name}_first", source + "    return failures;\n}\n")
        if program is None:
            return
        printed = subprocess.run([str(program)], capture_output=True, text=True).stdout
        units = []
        for number, document in enumerate(re.findall(r"<!DOCTYPE.*?</node>\n", printed, re.S)):
            path = folder / f"{name}{number}.xml"
            path.write_text(document)
            units.append((f"{name}{number}", path, corpus.generate(path, f"{name}{number}", ["--open"])))
        if len(units) != len(contracts):
            corpus.fail(f"{header}: {len(contracts)} contracts, {len(units)} were printed")
        corpus.check(name, units)
        same = 0
        for namespace, path, classes in units:
            back = corpus.work / f"{name}.printed" / f"{namespace}.{classes[0][0].name}.xml"
            if back.read_bytes() != path.read_bytes():
                corpus.fail(f"{path} comes back otherwise: diff {path} {back}")
            else:
                same += 1
        corpus.ok(f"{name}: {same} come back to the byte")


def texts_of(name, bus=()):
    """What the objects of a running service say of themselves; none when it does not run."""
    ask = ["busctl", *(bus or ["--system"])]
    tree = subprocess.run([*ask, "tree", "--list", name], capture_output=True, text=True, stdin=subprocess.DEVNULL)
    paths = tree.stdout.split() if tree.returncode == 0 else []
    texts = [subprocess.run([*ask, "--xml-interface", "introspect", name, path], capture_output=True, text=True,
                            stdin=subprocess.DEVNULL) for path in paths]
    return [text.stdout for text in texts if text.returncode == 0]


def texts_of_started(name, program, folder):
    """As above, of a program that is started on a private bus for it."""
    bus, config = f"unix:path={folder}/bus", folder / "bus.conf"
    config.write_text(f'<busconfig><listen>{bus}</listen><policy context="default"><allow user="*"/><allow own="*"/>'
                      '<allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>')
    read, write = os.pipe()
    daemon = subprocess.Popen(["dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile", "--nosyslog",
                               f"--print-address={write}"], pass_fds=[write])
    os.close(write)
    with os.fdopen(read) as started:
        started.readline()
    service = subprocess.Popen([program], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus})
    try:
        end = time.monotonic() + 30
        while service.poll() is None and time.monotonic() < end:
            if texts := texts_of(name, [f"--address={bus}"]):
                return texts
            time.sleep(0.1)
        return []
    finally:
        for process in (service, daemon):
            process.terminate()
            process.wait()


def running(corpus, known):
    """Files of the interfaces that only running services tell, each interface once."""
    folder = corpus.work / "running"
    folder.mkdir()
    for name, program in RUNNING:
        texts = texts_of(name)
        if not texts and program and os.access(program, os.X_OK) and shutil.which("dbus-daemon"):
            texts = texts_of_started(name, program, folder)
        found = []
        for text in texts:
            for interface in ElementTree.fromstring(text).iter("interface"):
                if interface.get("name") not in known | STANDARD:
                    known.add(interface.get("name"))
                    node = ElementTree.Element("node")
                    node.append(interface)
                    found.append(folder / f"{interface.get('name')}.xml")
                    found[-1].write_bytes(ElementTree.tostring(node))
        print(f"{name}: {len(found)} interfaces" + ("" if texts else ", it does not run here"))
        yield from found


def world(corpus):
    """The files by package, and what systemd's daemons and other services tell."""
    paths = sorted(INTERFACES.glob("*.xml"))
    folder = corpus.work / "systemd"
    folder.mkdir()
    daemons = [*pathlib.Path("/lib/systemd").glob("systemd-*d"), pathlib.Path("/lib/systemd/systemd")]
    seen = set()
    for daemon in sorted(daemons):
        try:
            listing = subprocess.run([daemon, "--bus-introspect=list"], capture_output=True, text=True, timeout=60,
                                     stdin=subprocess.DEVNULL)
        except (OSError, subprocess.TimeoutExpired):
            continue
        for line in listing.stdout.splitlines():
            if not re.fullmatch(r"/\S+\t[\w.]+", line) or line.split()[1] in seen:
                continue
            seen.add(line.split()[1])
            path = folder / f"{line.split()[1]}.xml"
            path.write_bytes(subprocess.run([daemon, f"--bus-introspect={line.split()[1]}"], capture_output=True).stdout)
            paths.append(path)
    names = [i.get("name") for path in paths for i in interfaces_of(path)]
    missing = [prefix for prefix, least in WORLD.items() if sum(n.startswith(prefix) for n in names) < least]
    if missing:
        print(f"not all interfaces are there: {', '.join(missing)} (scripts/install-packages codegen)")
        return 77
    more = list(running(corpus, set(names)))
    paths += more
    print(f"{len(paths)} files with {len(names) + len(more)} interfaces")
    batches, members = collections.defaultdict(list), 0
    for path in paths:
        namespace = re.sub(r"\W", "_", path.stem.lower())
        options = ["--open"] + (["--entities"] if b"<!ENTITY" in path.read_bytes() else [])
        classes = corpus.generate(path, namespace, options)
        count = sum(len(interface.members) for interface, _ in classes)
        batches[members // MOST_MEMBERS].append((namespace, path, classes))
        members += count
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        list(pool.map(lambda item: corpus.check(f"world{item[0]}", item[1]), batches.items()))
    return 0


def main():
    tool, which, work, compiler, *flags = sys.argv[1:]
    link = []
    if "--link" in flags:
        at = flags.index("--link")
        flags, link = flags[:at], flags[at + 1 :]
    work = pathlib.Path(work)
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    corpus = Corpus(os.path.abspath(tool), work.resolve(), compiler, flags, link)
    status = {"golden": golden, "examples": examples, "world": world}[which](corpus)
    print(f"{corpus.failures} failures")
    return status or (1 if corpus.failures else 0)


if __name__ == "__main__":
    sys.exit(main())
