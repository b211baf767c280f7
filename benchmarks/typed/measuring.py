"""What the typed comparisons share: the places of this build, a bus of their own, counts of instructions and allocations, and the
file of results (see benchmarks/report.py)."""

import contextlib
import json
import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
PLACES = json.loads((HERE / "places.json").read_text())
QUICK = "TERN_BENCHMARK_QUICK" in os.environ
OURS, HAND, SDBUS_CPP = "tern", "by hand", "sdbus-c++"
SIDES = [OURS, HAND] + ([SDBUS_CPP] if PLACES["sdbus_cpp"] else [])

CONFIGURATION = """<busconfig>
<listen>unix:path={folder}/bus</listen>
<auth>EXTERNAL</auth>
<limit name="max_replies_per_connection">10000</limit>
<policy context="default">
<allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>
</policy>
</busconfig>"""


class Bench:
    """A folder, a message bus, and the environment of the programs; as a context."""

    def __enter__(self):
        self.holder = tempfile.TemporaryDirectory()
        self.folder = pathlib.Path(self.holder.name)
        (self.folder / "bus.conf").write_text(CONFIGURATION.format(folder=self.folder))
        self.daemon = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self.folder / 'bus.conf'}", "--nofork", "--nopidfile", "--print-address=1"],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,  # it may not raise its limit of descriptors
            text=True,
        )
        address = self.daemon.stdout.readline().strip()  # it is ready then
        if not address:
            sys.exit("dbus-daemon does not start")
        self.environment = dict(
            os.environ,
            DBUS_SYSTEM_BUS_ADDRESS=address,
            LD_LIBRARY_PATH=PLACES["installed"],
            TERN_LOG_LEVEL="3",
        )
        return self

    def __exit__(self, *_):
        self.daemon.terminate()
        self.daemon.wait()
        self.holder.cleanup()

    def callgrind(self, program):
        """The command that counts the program's instructions into the file that it gives as well."""
        file = self.folder / "callgrind.out"
        file.unlink(missing_ok=True)
        return ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={file}", *map(str, program)], file


class Peer:
    """A program that says with a line that it is ready; ended with the context, if it has not ended."""

    def __init__(self, bench, program, *arguments):
        self.bench = bench
        self.command = [f"{PLACES['programs']}/{program}", *map(str, arguments)]

    def __enter__(self):
        self.process = subprocess.Popen(self.command, env=self.bench.environment, stdout=subprocess.PIPE, text=True)
        if not self.process.stdout.readline():
            sys.exit(f"{self.command} did not become ready")
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()


def count_program(bench, program, arguments):
    """Instructions, and requests for memory, of one run."""
    command, file = bench.callgrind([f"{PLACES['programs']}/{program}", *arguments])
    allocations = bench.folder / "allocations"
    environment = dict(bench.environment, LD_PRELOAD=PLACES["preload"], TERN_ALLOCATIONS=str(allocations))
    require(subprocess.run(command, env=environment, capture_output=True, text=True, check=False), " ".join(command))
    return instructions_in(file), int(allocations.read_text())


def by_the_item(bench, program, arguments, short, long, peer=lambda count: contextlib.nullcontext()):
    """The difference of two runs, with these arguments for a count, by the item; each beside a peer."""
    sums = []
    for count in (short, long):
        with peer(count):
            sums.append(count_program(bench, program, arguments(count)))
    return [(many - few) / (long - short) for few, many in zip(*sums)]


def require(process, what):
    if process.returncode != 0:
        sys.exit(f"{what} failed with {process.returncode}: {process.stderr or ''}")


def instructions_in(file):
    for line in file.read_text().splitlines():
        if line.startswith(("summary:", "totals:")):
            return int(line.split()[1])
    sys.exit(f"{file} has no sum of instructions")


def user_seconds(command):
    """Of a program and what it starts; its output is shown only if it fails."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
    process = subprocess.run(command, capture_output=True, text=True, check=False)
    require(process, command[0])
    return resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before


def compiler(*flags):
    """Compiles against this tree; g++ by itself, without a cache in front."""
    includes = [f"-I{folder}" for folder in PLACES["includes"].split(":") if folder]
    return [PLACES["compiler"], "-std=c++20", *flags, *includes]


def rounds_row(what, unit, rounds, target="", against=None, limit=None, ahead_of=()):
    """A row of the medians; ratios inside of each round."""
    values = {side: statistics.median(one[side] for one in rounds) for side in rounds[0]}
    ratios = {
        side: statistics.median(one[OURS] / one[side] for one in rounds) for side in values if side != OURS and values[side]
    }
    there = [side for side in ahead_of if side in values]
    return {"what": what, "unit": unit, "values": values, "ratios": ratios, "target": target, "against": against,
            "limit": limit, "ahead_of": there}


def write_results(name, title, rows, note):
    result = {"name": name, "title": title, "load": os.getloadavg()[0], "rows": rows, "note": note}
    pathlib.Path(sys.argv[1]).write_text(json.dumps(result, indent=1))
