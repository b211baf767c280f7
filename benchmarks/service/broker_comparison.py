#!/usr/bin/env python3
"""A round trip through dbus-broker beside one through dbus-daemon, with the same client and the same servers.

    broker_comparison RESULT_FILE

dbus-broker-launch wants a system around it: a journal's socket, its own programs in /usr/bin. It gets them in a mount
namespace of its own, and is taken from its package, which is fetched and unpacked but not installed, so that the message bus
of this machine stays what it is."""

import contextlib
import json
import os
import pathlib
import statistics
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "typed"))

from measuring import QUICK, Bench

ROUNDS, CALLS = (2, 200) if QUICK else (15, 2000)
SERVERS = {"tern": "tern_server", "sd-bus, own thread": "sd_bus_thread_server", "sdbus-c++": "sdbus_cpp_server", "GDBus": "gdbus_server"}
PACKAGE = HERE / "dbus-broker"

CONFIGURATION = """<busconfig><listen>unix:path={socket}</listen><auth>EXTERNAL</auth><policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>"""

# Run in the namespace: what is said to the journal is read and dropped.
LAUNCH = """
import os, socket, subprocess, sys, threading
folder, package = sys.argv[1:]
os.makedirs(folder + "/run/systemd/journal")
subprocess.run(["mount", "--bind", folder + "/run", "/run"], check=True)
subprocess.run(["mount", "-t", "overlay", "overlay", "-o", "lowerdir=" + package + "/usr/bin:/usr/bin", "/usr/bin"], check=True)
journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
journal.bind("/run/systemd/journal/socket")
listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
listener.bind(folder + "/broker")
listener.listen(64)
launcher = os.fork()
if launcher == 0:
    os.dup2(os.dup(listener.fileno()), 3)
    os.set_inheritable(3, True)
    os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()), DBUS_SESSION_BUS_ADDRESS="unix:path=" + folder + "/broker")
    os.execv("/usr/bin/dbus-broker-launch", ["dbus-broker-launch", "--scope", "user", "--config-file", folder + "/broker.conf"])
listener.close()
threading.Thread(target=lambda: [None for _ in iter(lambda: journal.recv(1 << 16), None)], daemon=True).start()
print("launched", flush=True)
sys.stdin.read()
os.kill(launcher, 15)
os.waitpid(launcher, 0)
"""


def fetch():
    """The package's programs; False where there are none to be had."""
    if (PACKAGE / "usr/bin/dbus-broker-launch").exists():
        return True
    PACKAGE.mkdir(exist_ok=True)
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "check": False}
    subprocess.run(["apt-get", "download", "dbus-broker"], cwd=PACKAGE, **quiet)
    for package in PACKAGE.glob("*.deb"):
        subprocess.run(["dpkg", "-x", package, PACKAGE], **quiet)
    return (PACKAGE / "usr/bin/dbus-broker-launch").exists()


@contextlib.contextmanager
def broker(bench):
    """The address of a dbus-broker."""
    (bench.folder / "broker.conf").write_text(CONFIGURATION.format(socket=bench.folder / "broker"))
    process = subprocess.Popen(
        ["unshare", "--mount", sys.executable, "-c", LAUNCH, str(bench.folder), str(PACKAGE)],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
    )
    try:
        if process.stdout.readline() != "launched\n":
            sys.exit("dbus-broker does not start")
        yield f"unix:path={bench.folder / 'broker'}"
    finally:
        process.stdin.close()
        process.wait()


@contextlib.contextmanager
def server(program, name, environment):
    process = subprocess.Popen([HERE.parent / "peers" / program, name], env=environment, stdout=subprocess.DEVNULL)
    try:
        yield name
    finally:
        process.terminate()
        process.wait()


def round_trips(name, environment):
    """Median and p99 in microseconds."""
    command = [HERE / "round_trips", name, str(CALLS)]
    process = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    if process.returncode != 0:
        sys.exit(f"{command}: {process.stderr}")
    return [float(word) for word in process.stdout.split()]


def main():
    if not fetch():
        sys.exit("dbus-broker is not to be had here")
    load = os.getloadavg()[0]
    rows = []
    with Bench() as bench, broker(bench) as address:
        buses = {"dbus-daemon": bench.environment, "dbus-broker": dict(bench.environment, DBUS_SYSTEM_BUS_ADDRESS=address)}
        taken = {(bus, side): [] for bus in buses for side in SERVERS}
        there = [side for side, program in SERVERS.items() if (HERE.parent / "peers" / program).exists()]
        with contextlib.ExitStack() as stack:
            for bus, environment in buses.items():
                for number, side in enumerate(there):
                    stack.enter_context(server(SERVERS[side], f"org.example.Bench.Server{number}", environment))
            for _ in range(ROUNDS):
                for number, side in enumerate(there):
                    for bus, environment in buses.items():
                        taken[bus, side].append(round_trips(f"org.example.Bench.Server{number}", environment))
        for bus in buses:
            for column, words in enumerate(("median", "p99")):
                values = {side: statistics.median(one[column] for one in taken[bus, side]) for side in there}
                ratios = {
                    side: statistics.median(
                        ours[column] / theirs[column] for ours, theirs in zip(taken[bus, "tern"], taken[bus, side])
                    )
                    for side in there if side != "tern"
                }
                rows.append({"what": f"through {bus}: round trip, {words}", "unit": "us", "values": values, "ratios": ratios})
    result = {
        "name": "broker", "title": "A method call through another message bus", "load": load, "rows": rows,
        "note": f"One client, {CALLS} calls one after the other in each of {ROUNDS} rounds, in which all servers and both buses "
                "had their turn. Nothing pins the servers here, so the figures are not those of the sections above.",
    }
    pathlib.Path(sys.argv[1]).write_text(json.dumps(result, indent=1))


main()
