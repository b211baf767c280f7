"""What tests of ternctl have in common: a message bus of their own with services, and ternctl beside them.

The command line of each test begins with TERNCTL SERVICE SOURCE_FOLDER.
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TERNCTL, SERVICE, SOURCE = sys.argv[1:4]
LIMIT = 60
DONE, FAILED, WRONG_USE, NOBODY = 0, 1, 2, 3


def wait_for(condition, what, seen=str):
    """Until the condition holds. What it has seen meanwhile is told when it does not."""
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"did not happen: {what}\n{seen()}")
        time.sleep(0.02)


class Bus:
    """A message bus with services."""

    def __init__(self, rules=""):
        self.folder = tempfile.mkdtemp()
        self.address = f"unix:path={self.folder}/bus"
        os.mkdir(f"{self.folder}/startable")
        with open(f"{self.folder}/bus.conf", "w", encoding="utf-8") as file:
            file.write(
                f"<busconfig><listen>{self.address}</listen><servicedir>{self.folder}/startable</servicedir>"
                '<policy context="default"><allow user="*"/><allow own="*"/>'
                f'<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>{rules}</policy></busconfig>'
            )
        self.daemon = subprocess.Popen(
            ["dbus-daemon", f"--config-file={self.folder}/bus.conf", "--nofork", "--nopidfile", "--nosyslog", "--print-address"],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        # Told when it listens.
        self.daemon.stdout.readline()
        self.services = {}

    def environment(self, **more):
        return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address, "TZ": "UTC", "LC_ALL": "C.UTF-8", **more}

    def start(self, mode, name=None):
        """A service in this mode, by default with its name; returns when it is on the bus."""
        name = name or f"com.example.{mode}"
        with open(self.log_of(name), "wb") as log:
            service = subprocess.Popen([SERVICE, name, mode], env=self.environment(NOTIFY_SOCKET=""), stderr=log)
        self.services[name] = service
        # Where there are diagnostics they are there before the name.
        wait_for(lambda: self.has(name), f"{name} on the bus")
        return service

    def log_of(self, name):
        """The file with what the service has logged."""
        return f"{self.folder}/{name}.log"

    def has(self, name):
        asked = subprocess.run([TERNCTL, "why", name], env=self.environment(), capture_output=True, check=False)
        return b"is not on the bus" not in asked.stderr

    def stop(self, name):
        service = self.services.pop(name)
        service.kill()
        service.wait()

    def halt(self, name):
        """Stops the service, as SIGSTOP does, and returns when it stands still: the other threads go on until one of them
        has taken the signal, which takes a while on a busy machine."""
        pid = self.services[name].pid
        os.kill(pid, signal.SIGSTOP)
        wait_for(lambda: all(state == "T" for state in self.states(pid)), f"{name} stands still")

    @staticmethod
    def states(pid):
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/stat", encoding="utf-8") as file:
                yield file.read().rpartition(")")[2].split()[0]

    def close(self):
        for name in list(self.services):
            self.stop(name)
        self.daemon.kill()
        self.daemon.wait()
        self.daemon.stdout.close()
        shutil.rmtree(self.folder)


class Result:
    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"status {self.status}\n--- out\n{self.out}\n--- err\n{self.err}"


def run(bus, *arguments, **more):
    """ternctl, without a terminal."""
    environment = bus.environment(**more) if bus else {**os.environ, "LC_ALL": "C.UTF-8", **more}
    done = subprocess.run(
        [TERNCTL, *arguments], env=environment, stdin=subprocess.DEVNULL, capture_output=True, timeout=LIMIT, check=False
    )
    return Result(done.returncode, done.stdout.decode(), done.stderr.decode())


class Running:
    """ternctl that goes on until it is interrupted."""

    def __init__(self, bus, *arguments):
        self.folder = tempfile.mkdtemp()
        with open(f"{self.folder}/out", "wb") as out, open(f"{self.folder}/err", "wb") as err:
            self.process = subprocess.Popen(
                [TERNCTL, *arguments], env=bus.environment(), stdin=subprocess.DEVNULL, stdout=out, stderr=err
            )

    def text(self, which):
        with open(f"{self.folder}/{which}", encoding="utf-8") as file:
            return file.read()

    def wait_for(self, which, pattern):
        wait_for(lambda: re.search(pattern, self.text(which)), f"{pattern} in:", lambda: self.text("out") + self.text("err"))

    def finish(self, number=signal.SIGINT):
        if number is not None:
            self.process.send_signal(number)
        status = self.process.wait(LIMIT)
        result = Result(status, self.text("out"), self.text("err"))
        shutil.rmtree(self.folder)
        return result


class Case(unittest.TestCase):
    maxDiff = None

    def check(self, result, status, out=None, err=""):
        """Status, and patterns of all that was written; None for anything."""
        self.assertEqual(result.status, status, result)
        for text, pattern in ((result.out, out), (result.err, err)):
            if pattern is not None:
                flags = re.S if pattern.startswith("(?s)") else 0
                self.assertRegex(text, re.compile(rf"\A{pattern.removeprefix('(?s)')}\Z", flags))

    def with_bus(self, *modes, rules=""):
        bus = Bus(rules)
        self.addCleanup(bus.close)
        for mode in modes:
            bus.start(mode)
        return bus
