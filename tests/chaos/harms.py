"""The harms that are done to the soaked extension, each with what may come of it."""

import os
import struct
import time

from box import CLOCK, NAME, STATE, UNIT, Group

HANGING = {"cut-off", "hanging"}  # which of them depends on what the threads were in
NS = 1000000000
# sd-event feeds a watchdog of five seconds after three quarters of them at the latest, so what is stopped lives on for a
# quarter of them at least.
LEAST_SILENCE_MS = 1250


class Harm:
    """What may come of it: `ends` is "none", "may" or "must"; `kinds` and `status` are what ternctl and systemd have to say
    of an end. `is_short_of` lets jobs be refused."""

    name = ""
    is_quick = True
    ends = "none"
    kinds = set()
    status = ""
    is_short_of = ""
    is_clock_right = True
    seconds = (1.5, 4.0)

    def hindrance(self):
        """Why this machine cannot do it; empty when it can."""
        return ""

    def begin(self, run):
        raise NotImplementedError

    def end(self, run):
        """Lifts it."""

    def doubt(self, run, before, after):
        """Why it may have had no effect; empty when it had. `before` and `after` are the clients' figures; after the end."""
        del run, before, after
        return ""


class Silencing(Harm):
    """Nobody is answered while it lasts."""

    def doubt(self, run, before, after):
        return "" if run.longest_ms >= run.lasted * 800 else f"answers came after {run.longest_ms} ms at most"


class Stopped(Silencing):
    name = "SIGSTOP, SIGCONT"

    def begin(self, run):
        run.box.run("systemctl", "kill", "-s", "STOP", "--kill-who=main", UNIT)

    def end(self, run):
        run.box.run("systemctl", "kill", "-s", "CONT", "--kill-who=main", UNIT)


class StoppedForLong(Stopped):
    name = "SIGSTOP until the watchdog ends it"
    is_quick = False
    ends = "must"
    kinds = HANGING
    status = r"Watchdog timeout"

    def end(self, run):
        pass

    def doubt(self, run, before, after):
        # Not of the time that it lasted: on a busy machine the next life answers long before its start is seen here.
        return "" if run.longest_ms >= LEAST_SILENCE_MS else f"answers came after {run.longest_ms} ms at most"


class Frozen(Silencing):
    name = "frozen (cgroup), thawed"

    def _write(self, run, value):
        with open(run.box.unit_group("unified", UNIT) + "/cgroup.freeze", "w") as file:
            file.write(value)

    def begin(self, run):
        self._write(run, "1")

    def end(self, run):
        self._write(run, "0")


class FrozenForLong(Frozen):
    name = "frozen for longer than the watchdog waits"
    is_quick = False
    ends = "must"
    kinds = HANGING
    status = r"Watchdog timeout"
    seconds = (8.0, 8.0)  # the signal that ends it comes when it is thawed


class FrozenForVeryLong(Frozen):
    """Longer than the library's own watcher has patience, which does not count time in which nothing could run."""

    name = "frozen for 25 s, without systemd's watchdog"
    is_quick = False
    seconds = (25.0, 25.0)

    def begin(self, run):
        run.box.run("systemctl", "service-watchdogs", "no")
        super().begin(run)

    def end(self, run):
        super().end(run)
        time.sleep(1)  # to feed it again
        run.box.run("systemctl", "service-watchdogs", "yes")


class Starved(Harm):
    name = "2 % of a processor"
    is_quick = False
    ends = "may"
    kinds = HANGING
    status = r"Watchdog timeout"
    seconds = (4.0, 9.0)
    period_us, quota_us = 100000, 2000

    def hindrance(self):
        return Group.hindrance("cpu")

    def begin(self, run):
        self.group = Group(run.box, "cpu")
        self.group.take(run.pid(), cpu__cfs_period_us=self.period_us, cpu__cfs_quota_us=self.quota_us)

    def end(self, run):
        self.throttled = int(self.group.read("cpu.stat").split("nr_throttled")[1].split()[0])
        self.group.give_back()

    def doubt(self, run, before, after):
        return "" if self.throttled > 0 else "it was never held up"


class StarvedToDeath(Starved):
    name = "0.1 % of a processor"
    seconds = (8.0, 12.0)
    period_us, quota_us = 1000000, 1000


class WithoutMemory(Harm):
    name = "256 KiB of memory (cgroup)"
    is_quick = False
    ends = "may"
    kinds = HANGING
    status = r"status=9/KILL"
    is_short_of = "memory"
    seconds = (4.0, 8.0)

    def hindrance(self):
        return Group.hindrance("memory")

    def begin(self, run):
        self.group = Group(run.box, "memory")
        self.group.take(run.pid(), memory__limit_in_bytes=256 * 1024)

    def end(self, run):
        self.failures = int(self.group.read("memory.failcnt"))
        self.group.give_back()

    def doubt(self, run, before, after):
        return "" if self.failures > 0 else "no memory was refused"


class BusKilled(Harm):
    name = "bus killed"
    ends = "must"
    kinds = {"lost-bus"}
    status = r"status=1/FAILURE"

    def begin(self, run):
        run.box.run("systemctl", "reset-failed", "dbus")
        run.box.run("systemctl", "kill", "-s", "KILL", "--kill-who=main", "dbus")


class BusRestarted(BusKilled):
    name = "bus restarted"
    is_quick = False

    def begin(self, run):
        run.box.run("systemctl", "reset-failed", "dbus")
        run.box.run("systemctl", "restart", "dbus")


class LoggingMuch(Harm):
    """What is done to the journal is done while everything is logged."""

    def begin(self, run):
        run.service.set_log_level("debug")
        self.disturb(run)

    def end(self, run):
        self.repair(run)
        run.service.set_log_level("info")

    def disturb(self, run):
        raise NotImplementedError

    def repair(self, run):
        raise NotImplementedError


JOURNAL = ("systemd-journald.service", "systemd-journald.socket", "systemd-journald-dev-log.socket")


class JournalStuck(LoggingMuch):
    name = "journal stuck (SIGSTOP)"

    def disturb(self, run):
        run.box.run("systemctl", "kill", "-s", "STOP", "--kill-who=main", JOURNAL[0])

    def repair(self, run):
        run.box.run("systemctl", "kill", "-s", "CONT", "--kill-who=main", JOURNAL[0])


class JournalRestarted(LoggingMuch):
    name = "journal restarted"
    is_quick = False

    def disturb(self, run):
        run.box.run("systemctl", "reset-failed", JOURNAL[0])
        run.box.run("systemctl", "restart", JOURNAL[0])

    def repair(self, run):
        pass


class JournalGone(LoggingMuch):
    name = "journal stopped, started"
    is_quick = False

    def disturb(self, run):
        run.box.run("systemctl", "stop", *JOURNAL)

    def repair(self, run):
        self.was = run.box.run("systemctl", "is-active", JOURNAL[0], check=False).strip()
        run.box.run("systemctl", "reset-failed", JOURNAL[0], check=False)
        run.box.run("systemctl", "start", *reversed(JOURNAL))

    def doubt(self, run, before, after):
        return "" if self.was == "inactive" else f"it was {self.was}"


class DiskFull(Harm):
    name = "disk filled, emptied"
    is_short_of = "disk"

    def begin(self, run):
        self.filler = run.box.path(STATE + "/filler")
        with open(self.filler, "wb", buffering=0) as file:
            try:
                while True:
                    file.write(b"\0" * 4096)
            except OSError:
                pass

    def end(self, run):
        os.remove(self.filler)

    def doubt(self, run, before, after):
        return "" if after["unable"] > before["unable"] else "no job was refused"


class ClockSet(Harm):
    """By a stand-in for the calls that read it, as a container has no time of day of its own."""

    name = "clock set, forward and back"
    is_clock_right = False
    steps = (3600, 86400 * 3660, -86400 * 365)

    def _set(self, run, seconds):
        with open(run.box.path(CLOCK), "r+b", buffering=0) as file:
            file.write(struct.pack("=q", seconds * NS))

    def begin(self, run):
        self.seen = []
        for step in self.steps:
            self._set(run, step)
            time.sleep(0.3)
            status = run.service.ask("status", NAME)
            self.seen.append(step if status and abs(found(status, "TakenAtUs") / 1e6 - time.time() - step) < 30 else None)

    def end(self, run):
        self._set(run, 0)

    def doubt(self, run, before, after):
        return "" if self.seen == list(self.steps) else f"the extension saw {self.seen}"


class KilledWithWrongClock(ClockSet):
    name = "clock set forward, SIGKILL, clock set back"
    is_quick = False
    ends = "must"
    kinds = HANGING
    status = r"status=9/KILL"
    steps = (86400,)

    def begin(self, run):
        super().begin(run)
        run.box.run("systemctl", "kill", "-s", "KILL", "--kill-who=main", UNIT)


class Killed(Harm):
    name = "SIGKILL"
    ends = "must"
    kinds = HANGING
    status = r"status=9/KILL"

    def begin(self, run):
        run.box.run("systemctl", "kill", "-s", "KILL", "--kill-who=main", UNIT)


class Restarted(Harm):
    name = "restarted in order"
    ends = "must"
    kinds = {"stopped"}
    status = r"Deactivated successfully|Stopped"

    def begin(self, run):
        run.box.run("systemctl", "restart", UNIT)


def found(tree, name):
    """The value of that name, wherever it is."""
    if isinstance(tree, dict):
        if name in tree:
            return tree[name]
        tree = list(tree.values())
    if isinstance(tree, list):
        for branch in tree:
            value = found(branch, name)
            if value is not None:
                return value
    return None


ALL = (Stopped, StoppedForLong, Frozen, FrozenForLong, FrozenForVeryLong, Starved, StarvedToDeath,
       WithoutMemory, BusKilled, BusRestarted,
       JournalStuck, JournalRestarted, JournalGone, DiskFull, ClockSet, KilledWithWrongClock, Killed, Restarted)
