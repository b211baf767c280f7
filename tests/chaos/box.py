"""The container with its systemd, seen from the machine, and the soaked extension in it."""

import json
import os
import re
import subprocess
import time

UNIT = "tern-soak"
NAME = "com.example.Soak"
STATE = "/var/lib/tern-soak"
CLOCK = "/run/tern-chaos-clock"


class Box:
    """REQUIRES: box_up of tests/systemd/box.sh has set BOX, BOX_LEADER, BOX_ROOT and BOX_BUS."""

    def __init__(self):
        self.name = os.environ["BOX"]
        self.leader = os.environ["BOX_LEADER"]
        self.root = os.environ["BOX_ROOT"]
        self.bus = os.environ["BOX_BUS"]

    def run(self, *command, check=True, timeout=60):
        """A command inside; its standard output."""
        done = subprocess.run(["nsenter", "-t", self.leader, "-m", "-u", "-i", "-n", "-p", "-C", "--", "env", "-u",
                               "DBUS_SYSTEM_BUS_ADDRESS", *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=timeout, check=False)
        if check and done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: status {done.returncode}: {done.stdout}")
        return done.stdout

    def path(self, inside):
        return self.root + inside

    def unit_group(self, hierarchy, unit):
        return f"/sys/fs/cgroup/{hierarchy}/{self.name}/payload/system.slice/{unit}.service"

    def pid_outside(self, inside, unit):
        """The number that the machine knows a process of the unit by; None when it is not there."""
        with open(self.unit_group("systemd", unit) + "/cgroup.procs") as file:
            for pid in file.read().split():
                try:
                    with open(f"/proc/{pid}/status") as status:
                        numbers = re.search(r"^NSpid:\s*(.*)$", status.read(), re.M).group(1).split()
                except (OSError, AttributeError):
                    continue
                if int(numbers[-1]) == inside:
                    return int(pid)
        return None


class Group:
    """A control group of this run, below the one that it runs in, so that it stays within what that may use."""

    def __init__(self, box, controller):
        with open("/proc/self/cgroup") as file:
            own = next(line.split(":", 2)[2].strip() for line in file if controller in line.split(":")[1].split(","))
        self.parent = f"/sys/fs/cgroup/{controller}{own}".rstrip("/")
        self.path = f"{self.parent}/{box.name}-chaos"
        self.pid = None

    @staticmethod
    def hindrance(controller):
        """Why there can be none on this machine; empty when there can."""
        with open("/proc/self/cgroup") as file:
            if not any(controller in line.split(":")[1].split(",") for line in file):
                return f"no cgroup controller '{controller}' that can be used"
        return ""

    def take(self, pid, **limits):
        os.makedirs(self.path, exist_ok=True)
        for name, value in limits.items():
            self.write(name.replace("__", "."), value)
        self.write("cgroup.procs", pid)
        self.pid = pid

    def write(self, name, value):
        with open(f"{self.path}/{name}", "w") as file:
            file.write(str(value))

    def read(self, name):
        with open(f"{self.path}/{name}") as file:
            return file.read()

    def give_back(self):
        if not os.path.isdir(self.path):
            return
        for _ in range(100):  # a program that was started meanwhile is a member too
            for pid in self.read("cgroup.procs").split():
                try:
                    with open(f"{self.parent}/cgroup.procs", "w") as file:
                        file.write(pid)
                except OSError:
                    pass  # it has ended
            try:
                os.rmdir(self.path)
                return
            except OSError:
                time.sleep(0.05)


class Service:
    """The extension as systemd and diagnostics see it."""

    def __init__(self, box, ternctl):
        self.box = box
        self.ternctl = ternctl

    def invocation(self):
        """Of the life that runs, or was the last; without a process for asking."""
        try:
            return os.readlink(self.box.path(f"/run/systemd/units/invocation:{UNIT}.service"))
        except OSError:
            return ""

    def show(self, *names):
        text = self.box.run("systemctl", "show", UNIT, *(word for name in names for word in ("-p", name)))
        return dict(line.split("=", 1) for line in text.splitlines())

    def ask(self, *command, timeout=25):
        """What ternctl prints, as JSON; None when it cannot."""
        done = subprocess.run([self.ternctl, "--timeout", str(timeout), command[0], "--json", *command[1:]],
                              env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.box.bus}, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=timeout + 10, check=False)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def main_pid(self):
        """As the machine knows it; None when there is none."""
        inside = int(self.show("MainPID")["MainPID"])
        return self.box.pid_outside(inside, UNIT) if inside else None

    def set_log_level(self, level):
        subprocess.run([self.ternctl, "log-level", NAME, level],
                       env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.box.bus}, stdout=subprocess.DEVNULL, check=True,
                       timeout=40)

    def systemds_view(self, invocation):
        """What systemd wrote about a life's end."""
        self.box.run("journalctl", "--sync")
        return self.box.run("journalctl", "--no-pager", "-o", "cat", "_PID=1", f"INVOCATION_ID={invocation}")
