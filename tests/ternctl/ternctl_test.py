#!/usr/bin/env python3
"""ternctl as a person uses it: every command's output, its errors and what it ends with, on private buses, against
services whose diagnostics say what is wanted.

    ternctl_test.py TERNCTL FAKE_SERVICE SOURCE_FOLDER [UNITTEST_ARGUMENT...]
"""

import contextlib
import json
import os
import pty
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest
import xml.etree.ElementTree as ET
from fcntl import ioctl

sys.dont_write_bytecode = True  # nothing into the folder of the sources

# pylint: disable=wrong-import-position
from harness import DONE, FAILED, LIMIT, NOBODY, SOURCE, TERNCTL, WRONG_USE, Bus, Case, Running, run, wait_for

# Bytes that steer a terminal, and the characters that turn the direction of writing.
HARMFUL = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069]")
SVG = "{http://www.w3.org/2000/svg}"


class Terminal:
    """ternctl on a terminal of its own."""

    def __init__(self, bus, columns, rows, *arguments, **more):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execve(TERNCTL, [TERNCTL, *arguments], bus.environment(TERM="xterm", **more))
        self.seen = b""

    def read(self, seconds=0.1):
        """What has come; False at the end."""
        if not select.select([self.fd], [], [], seconds)[0]:
            return True
        try:
            piece = os.read(self.fd, 65536)
        except OSError:
            return False
        self.seen += piece
        return bool(piece)

    def wait_for(self, text):
        wait_for(lambda: text in self.seen or (self.read() and False), text)

    def type(self, keys):
        os.write(self.fd, keys)

    def finish(self):
        """Exit status, when all has been read."""
        wait_for(lambda: not self.read(), "the end")
        os.close(self.fd)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


class SharedBus(Case):
    """Tests that change nothing share a bus."""

    @classmethod
    def setUpClass(cls):
        cls.bus = Bus()
        cls.addClassCleanup(cls.bus.close)
        for mode in ("calm", "troubled", "hostile", "young", "none"):
            cls.bus.start(mode)

    def run_json(self, *arguments):
        result = run(self.bus, "--json", *arguments)
        self.check(result, DONE)
        self.assertEqual(result.out.count("\n"), 1)
        return json.loads(result.out)


class Usage(Case):
    def test_wrong_use_is_told_with_status_2(self):
        for arguments, text in (
            ((), "no command"),
            (("dance",), "unknown command 'dance'"),
            (("--dance", "list"), "unknown option '--dance'"),
            (("-x", "list"), "unknown option '-x'"),
            (("events", "--pid", "none"), "'none' is no process id"),
            (("events", "--pid", "0"), "'0' is no process id"),
            (("events", "--pid", "4294967297"), "'4294967297' is no process id"),
            (("events", "a.b", "--pid", "1"), "the use is: ternctl events --pid PID"),
            (("log", "--pid", "1", "a.b"), "the use is: ternctl log --pid PID"),
            (("log",), "the use is: ternctl log NAME"),
            (("log", "a.b", "--follow"), "--follow is not for 'log'"),
            (("why", "a.b", "--pid", "1"), "--pid is not for 'why'"),
            (
                ("--host", "a", "events", "--pid", "1"),
                "--pid is a process of this machine: without --host, --user and --address",
            ),
            (("status",), "the use is: ternctl status NAME"),
            (("status", "a.b", "c.d"), "the use is: ternctl status NAME"),
            (("list", "a.b"), "the use is: ternctl list"),
            (("log-level", "a.b", "info", "x"), r"the use is: ternctl log-level NAME \[LEVEL\]"),
            (("log-level", "a.b", "loud"), "'loud' is no level: critical, error, warning, notice, info or debug"),
            (("chart", "a.b", "3"), "the use is: ternctl chart NAME SECONDS FILE.svg"),
            (("chart", "a.b", "soon", "x.svg"), "'soon' is no time, 1 to 604800 seconds"),
            (("chart", "a.b", "0.5", "x.svg"), "'0.5' is no time, 1 to 604800 seconds"),
            (("--timeout", "0", "list"), "'0' is no time-out, 0.001 to 86400 seconds"),
            (("--timeout", "1.2345", "list"), "'1.2345' is no time-out, 0.001 to 86400 seconds"),
            (("--timeout", "-1", "list"), "'-1' is no time-out, 0.001 to 86400 seconds"),
            (("--timeout", "1e3", "list"), "'1e3' is no time-out, 0.001 to 86400 seconds"),
            (("--timeout", ".", "list"), "'.' is no time-out, 0.001 to 86400 seconds"),
            (("top", "--period", "0.01"), "'0.01' is no period, 0.1 to 3600 seconds"),
            (("top", "--count", "0"), "'0' is no number of pages"),
            (("events", "a.b", "--last", "18446744073709551616"), "'18446744073709551616' is no number of events or messages"),
            (("events", "a.b", "--last"), "'-n' takes a value"),
            (("list", "--last", "3"), "--last is not for 'list'"),
            (("status", "a.b", "-f"), "--follow is not for 'status'"),
            (("list", "--full"), "--full is not for 'list'"),
            (("--host", "a", "--user", "list"), "--host is the system bus of another machine: without --user and --address"),
            (("--user", "--address", "unix:path=/x", "list"), "--user and --address are two buses"),
        ):
            with self.subTest(arguments):
                self.check(run(None, *arguments), WRONG_USE, "", f"ternctl: {text}\nTry 'ternctl --help'.\n")

    def test_help_and_version(self):
        self.check(run(None, "--help"), DONE, "(?s)Usage: ternctl .*list.*chart NAME.*Exit status: .*")
        self.check(run(None, "-h", "dance"), DONE, "(?s)Usage: .*")
        with open(f"{SOURCE}/CMakeLists.txt", encoding="utf-8") as file:
            version = re.search(r"^project\(.*VERSION ([0-9.]+)", file.read(), re.M)[1]
        self.check(run(None, "--version"), DONE, f"ternctl {re.escape(version)}\n")

    def test_the_manual_page_knows_all_options_and_commands(self):
        with open(f"{SOURCE}/tools/ternctl/ternctl.1", encoding="utf-8") as file:
            page = file.read().replace("\\-", "-")
        told = run(None, "--help").out
        options = set(re.findall(r"--[a-z]+", told))
        commands = re.findall(r"^  ([a-z-]+) ", told, re.M)
        self.assertGreater(len(options), 12)
        self.assertEqual(set(commands), {"list", "status", "top", "events", "log", "why", "log-level", "chart"})
        for word in [*options, *commands]:
            self.assertIn(word, page)

    def test_without_a_bus(self):
        nowhere = "unix:path=/nowhere/bus"
        tail = "No such file or directory; is dbus running, is DBUS_SYSTEM_BUS_ADDRESS right\\?\n"
        for command in (("list",), ("status", "a.b"), ("top",), ("events", "a.b"), ("log", "a.b"), ("why", "a.b"), ("log-level", "a.b")):
            with self.subTest(command):
                self.check(
                    run(None, *command, DBUS_SYSTEM_BUS_ADDRESS=nowhere),
                    FAILED,
                    "",
                    f"ternctl: there is no connection to the system bus: {tail}",
                )
        self.check(run(None, "--user", "list", DBUS_SESSION_BUS_ADDRESS=nowhere), FAILED, "", "(?s)ternctl: .* the user's bus: .*")
        self.check(
            run(None, "--address", nowhere, "list"),
            FAILED,
            "",
            f"ternctl: there is no connection to the message bus at '{nowhere}': .*; is it running, is the address right\\?\n",
        )
        self.check(run(None, "--address", "unix:what=x", "list"), FAILED, "", "ternctl: 'unix:what=x' is no address of a message bus\n")


class Buses(Case):
    def test_the_bus_of_the_user_and_one_at_an_address(self):
        bus = self.with_bus("calm")
        elsewhere = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"}
        result = run(None, "--user", "list", "--names", DBUS_SESSION_BUS_ADDRESS=bus.address, **elsewhere)
        self.check(result, DONE, "com.example.calm\n")
        result = run(None, "--address", bus.address, "log-level", "com.example.calm", **elsewhere)
        self.check(result, DONE, "notice\n")
        result = run(None, "--user", "--system", "list", "--names", DBUS_SYSTEM_BUS_ADDRESS=bus.address)
        self.check(result, DONE, "com.example.calm\n")

    @unittest.skipUnless(shutil.which("systemd-stdio-bridge"), "systemd-stdio-bridge is missing")
    def test_the_bus_of_another_machine_through_ssh(self):
        bus = self.with_bus("calm")
        with tempfile.TemporaryDirectory() as folder:
            with open(f"{folder}/ssh", "w", encoding="utf-8") as file:
                file.write(
                    f'#!/bin/sh\necho "$@" >{folder}/asked\nfor a; do echo "$a"; done >{folder}/words\ncase $* in *unreachable*) exit 255 ;; esac\n'
                    f"exec systemd-stdio-bridge -p '{bus.address}'\n"
                )
            os.chmod(f"{folder}/ssh", 0o700)
            there = {"PATH": f"{folder}:{os.environ['PATH']}", "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"}
            result = run(None, "--host", "root@device", "list", "--names", **there)
            self.check(result, DONE, "com.example.calm\n")
            with open(f"{folder}/asked", encoding="utf-8") as file:
                self.assertRegex(file.read(), "root@device.*systemd-stdio-bridge")
            result = run(None, "-H", "root@device", "status", "com.example.calm", **there)
            self.check(result, DONE, "(?s).*com.example.calm 1.4.2.*")
            for command in (
                ("top", "--count", "1"),
                ("events", "com.example.calm", "-n", "1"),
                ("log", "com.example.calm"),
                ("why", "com.example.calm"),
                ("log-level", "com.example.calm"),
                ("chart", "com.example.calm", "1", f"{folder}/a.svg"),
            ):
                with self.subTest(command):
                    self.check(run(None, "-H", "device", *command, **there), DONE, None, None)
            # As busctl has it: a port, a container; and no word is an option of ssh.
            for host, words in (
                ("root@device:2222", ["-p", "2222", "--", "root@device", "systemd-stdio-bridge"]),
                ("device/box", ["--", "device", "systemd-stdio-bridge", "--machine=box"]),
                ("-oProxyCommand=x", ["--", "-oProxyCommand=x", "systemd-stdio-bridge"]),
            ):
                with self.subTest(host):
                    self.check(run(None, f"--host={host}", "list", "--names", **there), DONE, "com.example.calm\n")
                    with open(f"{folder}/words", encoding="utf-8") as file:
                        self.assertEqual(file.read().splitlines()[-len(words) :], words)
            self.check(
                run(None, "--host", "unreachable", "list", **there),
                FAILED,
                "",
                "ternctl: there is no connection to the system bus of 'unreachable': .*; does ssh reach it, "
                "is systemd-stdio-bridge there\\?\n",
            )


class List(Case):
    def test_prints_a_table(self):
        bus = self.with_bus("calm", "troubled", "none")
        pids = {name: service.pid for name, service in bus.services.items()}
        result = run(bus, "list")
        up = r" +\d+ d \d+ h  "
        self.check(
            result,
            DONE,
            r"NAME +PID +UP  VERSION  FORMER END\n"
            rf"com.example.calm +{pids['com.example.calm']}{up}1.4.2    stopped, 1 restart\n"
            rf"com.example.troubled +{pids['com.example.troubled']}{up}1.4.2    blocked, 3 restarts\n",
        )
        self.check(run(bus, "list", "--names"), DONE, "com.example.calm\ncom.example.troubled\n")
        told = json.loads(run(bus, "list", "--json").out)
        self.assertEqual([one["Name"] for one in told["Services"]], ["com.example.calm", "com.example.troubled"])
        first = told["Services"][0]
        self.assertEqual(first["Pid"], pids["com.example.calm"])
        self.assertRegex(first["UniqueName"], r"^:1\.\d+$")
        self.assertEqual(
            (first["Version"], first["StartedAtUs"], first["Ended"], first["Restarts"], first["LogLevel"]),
            ("1.4.2", 1700000000000000, "stopped", 1, "notice"),
        )
        self.assertAlmostEqual(first["UptimeUs"] / 1e6, time.time() - 1.7e9, delta=60)
        self.assertEqual((told["Unanswered"], told["Refused"]), ([], []))

    def test_nobody_there(self):
        bus = self.with_bus("none")
        self.check(run(bus, "list"), NOBODY, "", "ternctl: no service on the bus has diagnostics\n")
        result = run(bus, "list", "--json")
        self.assertEqual((result.status, json.loads(result.out)["Services"]), (NOBODY, []))

    def test_who_hangs_stops_nobody_and_is_named(self):
        bus = self.with_bus("calm", "troubled", "young")
        for name in ("com.example.calm", "com.example.young"):
            bus.halt(name)
        begin = time.monotonic()
        result = run(bus, "list", "--names", "--timeout", "0.5")
        # Both at the same time.
        self.assertLess(time.monotonic() - begin, 10)
        self.check(
            result,
            DONE,
            "com.example.troubled\n",
            "ternctl: did not answer within 500 ms: com.example.calm, com.example.young\n",
        )
        told = json.loads(run(bus, "list", "--json", "--timeout", "0.5").out)
        self.assertEqual(told["Unanswered"], ["com.example.calm", "com.example.young"])

    def test_whom_the_policy_forbids_is_named(self):
        bus = self.with_bus("calm", rules='<deny send_destination="com.example.closed"/>')
        bus.start("calm", "com.example.closed")
        self.check(
            run(bus, "list", "--names"),
            DONE,
            "com.example.calm\n",
            r"ternctl: not asked, as the bus's policy forbids it \(root may know more\): com.example.closed\n",
        )
        self.assertEqual(json.loads(run(bus, "list", "--json").out)["Refused"], ["com.example.closed"])

    def test_starts_nobody(self):
        bus = self.with_bus("calm")
        with open(f"{bus.folder}/startable/com.example.startable.service", "w", encoding="utf-8") as file:
            file.write(f"[D-BUS Service]\nName=com.example.startable\nExec=/usr/bin/touch {bus.folder}/started\n")
        subprocess.run(
            ["busctl", f"--address={bus.address}", "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig"],
            check=True,
        )
        self.check(run(bus, "list", "--names"), DONE, "com.example.calm\n")
        for command in ("status", "events", "log", "why", "log-level"):
            result = run(bus, command, "com.example.startable")
            self.check(result, NOBODY, "", "ternctl: 'com.example.startable' is not on the bus\n")
        self.assertFalse(os.path.exists(f"{bus.folder}/started"))


CALM_PAGE = """\
  com.example.calm 1.4.2, up 3 d 4 h, looked at 2023-11-18 02:18:26
  Process     tern-fake, pid 4711, library 0.1.0, log level notice
              processor 22 min 50 s (0.5 %), memory 5.2 MiB (peak 6.0 MiB)
              descriptors 23 of 1024, threads 7
  Former life stopped, 1 restart: see ternctl why
  D-Bus       thread 4711, handled 1.23 M, turns 2.35 M, longest turn 12.3 ms
              idle
              watchdog 30.0 s, smallest margin 7.40 s
  Connection  :1.42, in 0, out 0, jobs 0, calls open 1, pending 2, objects 3
  Recorder    2500 events, keeps 2048 in 108.0 KiB, stored
  Threads            ID  STATE     NAME
                   4713  sleeping  worker
                   4714  running   control
  Watched        PERIOD      LIMIT     SILENT     MARGIN       ID  NAME
                 1.00 s     5.00 s     120 ms     4.88 s     4714  control
  Pools         THREADS       BUSY     QUEUED       DONE    LONGEST    RUNNING
                      4          1          0        812    45.0 ms     300 us
  Components   WAKE-UPS       RUNS    LONGEST    RUNNING  NAME
                    120        100    9.50 ms          -  control
  Timers         PERIOD   EXPIRIES     LATEST    LONGEST  KIND
                 100 ms     2.74 M          -     800 us  ShortPeriodTimer
                 5.00 s          1     350 us      20 us  Timer, once
  Pipes         WRITTEN       READ    WAITING       FULL   LONGEST WAIT
                    500        500          0          2        1.50 ms
  Messages    TIME                 LEVEL     TEXT
              2023-11-14 22:13:20  warning   Fake: a warning
  Members     MEAN     99 %  LONGEST   |1us      |1ms      |1s  NAME
     1000   350 us  1.02 ms  12.3 ms          █▁▁▁  ▁           …e.Fake1.Measure
      200    10 us    32 us    40 us     █▅▄                    ….Other1.Changed
       12     3 us     4 us     5 us    █                       replies
"""


class Status(SharedBus):
    def test_prints_a_page(self):
        result = run(self.bus, "status", "com.example.calm")
        self.check(result, DONE)
        self.assertEqual(result.out, CALM_PAGE)

    def test_marks_what_deserves_attention_and_fits_a_screen(self):
        result = run(self.bus, "status", "com.example.troubled")
        self.check(result, DONE)
        lines = result.out.splitlines()
        self.assertLess(len(lines), 40)
        self.assertLessEqual(max(map(len, lines)), 80)
        self.assertEqual(
            [re.sub(" +", " ", line) for line in lines if line.startswith("! ")],
            [
                "! descriptors 1000 of 1024, threads 7",
                "! Former life blocked, 3 restarts: see ternctl why",
                "! runs com.example.Fake1.Export for 2.30 s",
                "! watchdog 30.0 s, smallest margin 2.00 s",
                "! - gone",
                "! 1.00 s 5.00 s 4.80 s 200 ms 4715 stuck",
                "! 4 1 0 812 45.0 ms 1 min 30 s",
                "! 120 100 9.50 ms 1.50 s control",
            ],
        )
        # What there is no room for is counted.
        timers = sum(bool(re.search(r"Timer(, once)?$", line)) for line in lines)
        # The latest message is the first one.
        heading = next(i for i, line in enumerate(lines) if line.startswith("  Messages "))
        self.assertRegex(lines[heading + 1], r"^ +2023-11-14 22:14:59  critical  Fake: message 99 x+…$")
        left = [int(n) for n in re.findall(r"and (\d+) more: see --full", result.out)]
        self.assertEqual(timers + left[0], 62)
        full = run(self.bus, "status", "--full", "com.example.troubled")
        self.check(full, DONE)
        self.assertEqual(len(re.findall(r"Timer(?:, once)?$", full.out, re.M)), 62)
        self.assertNotIn("more: see --full", full.out)

    def test_json_has_all_figures_as_they_are(self):
        told = self.run_json("status", "com.example.troubled")
        self.assertEqual((told["Service"], told["Ended"], told["Restarts"]), ("com.example.troubled", "blocked", 3))
        figures = told["Figures"]
        self.assertEqual(figures["Process"]["ProcessorUs"], 1369530000)
        self.assertEqual(len(figures["BusThread"]["Members"]), 63)
        self.assertEqual(figures["BusThread"]["Members"][0]["Latency"], [0] * 8 + [900, 80, 15, 4, 0, 0, 1] + [0] * 9)
        self.assertIs(figures["Timers"][0]["IsPeriodic"], True)
        self.assertEqual(
            told["Attention"],
            [
                "thread stuck is 200 ms before its kill",
                "the watchdog was 2.00 s from its end",
                "com.example.Fake1.Export runs for 2.30 s",
                "control runs for 1.50 s",
                "a job runs for 1 min 30 s",
                "24 descriptors are left",
                "a supervised thread has gone",
            ],
        )
        self.assertEqual(len(told["Messages"]), 100)
        calm = self.run_json("status", "com.example.calm")
        self.assertEqual(calm["Attention"], [])
        self.assertEqual(calm["Messages"], [{"AtUs": 1700000000000000, "Level": 4, "Text": "Fake: a warning", "IsCut": False}])
        # Where nothing is recorded there are none, and that is no failure.
        young = self.run_json("status", "com.example.young")
        self.assertEqual((young["Messages"], young["Figures"]["Recorder"]["IsRecording"]), ([], False))

    def test_a_narrow_terminal_is_kept_to(self):
        for columns, rows in ((40, 24), (20, 10), (1, 1)):
            with self.subTest(columns=columns):
                terminal = Terminal(self.bus, columns, rows, "status", "com.example.troubled", NO_COLOR="1")
                self.assertEqual(terminal.finish(), DONE)
                lines = terminal.seen.decode().replace("\r\n", "\n").splitlines()
                self.assertLessEqual(max(map(len, lines)), columns)

    def test_colours_are_for_terminals(self):
        terminal = Terminal(self.bus, 80, 40, "status", "com.example.troubled")
        self.assertEqual(terminal.finish(), DONE)
        self.assertIn(b"\x1b[1;31m! Former life", terminal.seen)
        self.assertLess(terminal.seen.count(b"\n"), 40)
        terminal = Terminal(self.bus, 80, 40, "status", "com.example.troubled", NO_COLOR="1")
        self.assertEqual(terminal.finish(), DONE)
        self.assertNotIn(b"\x1b", terminal.seen)
        self.assertNotIn("\x1b", run(self.bus, "status", "com.example.troubled").out)

    def test_an_old_locale_gets_ascii(self):
        for name in ("calm", "hostile"):
            result = run(self.bus, "status", f"com.example.{name}", LC_ALL="C")
            self.check(result, DONE)
            self.assertTrue(result.out.isascii(), result.out)
        self.assertIn("\\u{e9}", result.out)

    def test_errors(self):
        for name, text in (("com.example.none", "has no diagnostics"), ("com.example.away", "is not on the bus")):
            for command in (("status",), ("events",), ("events", "--follow"), ("log",), ("why",), ("log-level",), ("log-level", "info")):
                with self.subTest(name=name, command=command):
                    arguments = [command[0], name, *command[1:]]
                    self.check(run(self.bus, *arguments), NOBODY, "", f"ternctl: '{name}' {text}\n")
        with tempfile.TemporaryDirectory() as folder:
            self.check(
                run(self.bus, "chart", "com.example.away", "1", f"{folder}/a.svg"),
                NOBODY,
                "",
                "ternctl: 'com.example.away' is not on the bus\n",
            )
            self.assertEqual(os.listdir(folder), [])

    def test_output_that_cannot_be_written_is_a_failure(self):
        for command in (
            ("list",),
            ("status", "com.example.calm"),
            ("top", "--count", "1"),
            ("events", "com.example.calm"),
            ("log", "com.example.calm"),
        ):
            with self.subTest(command), open("/dev/full", "wb") as full:
                done = subprocess.run(
                    [TERNCTL, *command], env=self.bus.environment(), stdout=full, stderr=subprocess.PIPE, timeout=LIMIT, check=False
                )
                self.assertEqual(done.returncode, FAILED)
                self.assertEqual(done.stderr, b"ternctl: cannot write the output: No space left on device\n")


class Hostile(SharedBus):
    def test_nothing_that_steers_a_terminal_comes_through(self):
        name = "com.example.hostile"
        for command in (
            ("list",),
            ("status", name),
            ("status", "--full", name),
            ("top", "--count", "1"),
            ("events", name, "--last", "3"),
            ("log", name),
            ("why", name),
        ):
            for more in ((), ("--json",)):
                with self.subTest(command=command, more=more):
                    result = run(self.bus, *more, *command)
                    self.check(result, DONE)
                    self.assertIsNone(HARMFUL.search(result.out + result.err), result)
                    self.assertNotIn("\nevil", result.out)
        shown = run(self.bus, "why", name).out
        self.assertIn('\\x1b[2J\\x07\\u{9b}31m\\u{202e}evil\\x0a"\\caf\u00e9', shown)

    def test_an_argument_is_escaped_as_well(self):
        result = run(self.bus, "status", "com.example.\x1b[2J")
        self.assertNotEqual(result.status, DONE)
        self.assertNotIn("\x1b", result.err)
        self.assertIn("\\x1b", result.err)

    def test_json_keeps_text_and_numbers_exactly(self):
        text = '\x1b[2J\x07\x9b31m\u202eevil\n"\\caf\u00e9'
        figures = self.run_json("status", "com.example.hostile")["Figures"]
        self.assertEqual(figures["Process"]["Program"], text)
        self.assertEqual(figures["Process"]["UptimeUs"], 2**64 - 1)
        self.assertEqual(figures["BusThread"]["Members"][0]["Name"], text)
        events = self.run_json("events", "com.example.hostile", "--last", "2")["Events"]
        self.assertEqual([one["Sequence"] for one in events], [2499, 2500])
        self.assertEqual(events[0]["AtUs"], 2**64 - 1)

    def test_a_page_of_nonsense_fits_as_well(self):
        lines = run(self.bus, "status", "com.example.hostile").out.splitlines()
        self.assertLess(len(lines), 40)
        self.assertLessEqual(max(map(len, lines)), 80)


class Refused(Case):
    DENY = '<deny send_interface="tern.Diagnostics1"/>'

    def test_access_denied_is_told(self):
        bus = self.with_bus("calm", rules=self.DENY)
        denied = (
            "ternctl: access to 'com.example.calm' is denied: root may ask, others where the bus's policy and the service let them\n"
        )
        for command in (("status",), ("events",), ("log",), ("why",), ("log-level", "info")):
            with self.subTest(command):
                self.check(run(bus, command[0], "com.example.calm", *command[1:]), FAILED, "", denied)
        # What everybody may read.
        self.check(run(bus, "log-level", "com.example.calm"), DONE, "notice\n")
        self.check(run(bus, "list"), DONE, "(?s)NAME.*com.example.calm.*")
        self.check(run(bus, "top", "--count", "1"), DONE, r"(?s).*\n! +- .* com.example.calm +access denied\n\n")

    def test_a_service_that_hangs_is_told(self):
        bus = self.with_bus("calm")
        bus.halt("com.example.calm")
        for command in ("status", "events", "log", "why", "log-level"):
            with self.subTest(command):
                begin = time.monotonic()
                result = run(bus, command, "com.example.calm", "--timeout", "0.3")
                self.check(result, FAILED, "", "ternctl: 'com.example.calm' did not answer within 300 ms\n")
                self.assertLess(time.monotonic() - begin, 10)

    def test_a_service_that_leaves_meanwhile_is_told(self):
        bus = self.with_bus("calm")
        bus.halt("com.example.calm")
        asking = Running(bus, "status", "com.example.calm", "--timeout", "60")
        time.sleep(0.5)  # it may ask later as well: then the name is not there
        bus.stop("com.example.calm")
        result = asking.finish(None)
        self.assertIn(result.status, (FAILED, NOBODY), result)
        self.assertRegex(result.err, "'com.example.calm' (left the bus without an answer|is not on the bus)\n$")


class Top(Case):
    def test_sorts_by_load(self):
        bus = self.with_bus("calm", "growing", "none")
        result = run(bus, "top", "--count", "2", "--period", "0.3")
        self.check(result, DONE)
        pages = result.out.strip("\n").split("\n\n")
        self.assertEqual(len(pages), 2)
        for page in pages:
            lines = page.splitlines()
            self.assertRegex(lines[0], r"^ +\d{4}-\d\d-\d\d \d\d:\d\d:\d\d, 2 services$")
            self.assertRegex(lines[1], r"^ +LOAD +MEMORY +MSG/S +PID +NAME +ATTENTION$")
            pid = bus.services["com.example.growing"].pid
            self.assertRegex(
                lines[2],
                rf"^! +2[45]\.\d% +5\.2 MiB +\d+ +{pid}  com.example.growing +messages received grow: \d+ to \d+; "
                r"jobs of a pool grow: \d+ to \d+; messages in a pipe grow: \d+ to \d+$",
            )
            self.assertRegex(lines[3], r"^  +0\.0% +5\.2 MiB +0 +\d+  com.example.calm$")

    def test_json_is_a_document_a_line(self):
        bus = self.with_bus("calm", "growing")
        result = run(bus, "top", "--json", "--count", "3", "--period", "0.2")
        self.check(result, DONE)
        pages = [json.loads(line) for line in result.out.splitlines()]
        self.assertEqual(len(pages), 3)
        first = pages[0]["Services"][0]
        self.assertEqual((first["Name"], first["Trouble"]), ("com.example.growing", None))
        self.assertAlmostEqual(first["Load"], 0.25, delta=0.01)
        self.assertAlmostEqual(first["MessagesPerSecond"], 100, delta=10)
        self.assertGreater(pages[1]["TakenAtUs"], pages[0]["TakenAtUs"])

    def test_services_come_hang_and_go(self):
        bus = self.with_bus("calm", "troubled")
        top = Running(bus, "top", "--period", "0.1")
        top.wait_for("out", "2 services")
        bus.halt("com.example.troubled")
        top.wait_for("out", "com.example.troubled +does not answer")
        os.kill(bus.services["com.example.troubled"].pid, signal.SIGCONT)
        bus.stop("com.example.calm")
        top.wait_for("out", "1 service\n")
        bus.start("young")
        top.wait_for("out", "com.example.young")
        self.check(top.finish(), DONE, None)

    def test_on_a_terminal_until_q_or_an_interrupt(self):
        bus = self.with_bus("growing")
        for keys in (b"q", b"\x03"):
            with self.subTest(keys):
                terminal = Terminal(bus, 60, 12, "top", "--period", "0.1")
                terminal.wait_for(b"com.example.growing")
                terminal.wait_for(b"25.0%")
                terminal.type(keys)
                self.assertEqual(terminal.finish(), DONE)
                self.assertTrue(terminal.seen.startswith(b"\x1b[?1049h\x1b[?25l"))
                self.assertTrue(terminal.seen.endswith(b"\x1b[?25h\x1b[?1049l"), terminal.seen[-40:])
                for line in re.sub(rb"\x1b\[[0-9;?]*[a-zA-Z]", b"", terminal.seen).decode().split("\r\n"):
                    self.assertLessEqual(len(line), 60 + len("  q ends"))

    def test_without_services_it_says_so(self):
        bus = self.with_bus("none")
        self.check(run(bus, "top", "--count", "1", "--period", "0.1"), DONE, r"(?s) +.*, 0 services\n +LOAD.*\n\n")

    def test_a_bus_that_goes_is_told(self):
        bus = self.with_bus("calm")
        top = Running(bus, "top", "--period", "0.1")
        top.wait_for("out", "com.example.calm")
        bus.daemon.kill()
        self.check(top.finish(None), FAILED, None, "ternctl: the connection to the bus was lost\n")


class Events(Case):
    LAST = """\
2023-11-14 22:13:22.497007     4711  call_ended          352 us  com.example.Fake1.Measure
2023-11-14 22:13:22.498007        -  pipe_full                7
2023-11-14 22:13:22.499007     4711  call_began                  com.example.Fake1.Measure
2023-11-14 22:13:22.500007     4711  call_ended          352 us  com.example.Fake1.Measure
"""

    def test_prints_what_the_recorder_holds(self):
        bus = self.with_bus("calm", "young")
        result = run(bus, "events", "com.example.calm", "--last", "4")
        self.check(result, DONE)
        self.assertEqual(result.out, self.LAST)
        # More than one answer holds; what has been overwritten is counted.
        whole = run(bus, "events", "com.example.calm").out.splitlines()
        self.assertEqual(whole[0], "-- 452 events were overwritten --")
        self.assertEqual(len(whole), 1 + 2048)
        self.assertEqual("\n".join(whole[-4:]) + "\n", self.LAST)
        self.check(run(bus, "events", "com.example.calm", "-n", "0"), DONE, "")
        told = json.loads(run(bus, "events", "com.example.calm", "--json").out)
        self.assertEqual([one["Sequence"] for one in told["Events"]], list(range(453, 2501)))
        self.assertEqual((told["Lost"], told["Next"]), (452, 2500))
        self.assertEqual(
            told["Events"][-1],
            {
                "Sequence": 2500,
                "AtUs": 1700000002500007,
                "ThreadId": 4711,
                "Event": "call_ended",
                "Name": "com.example.Fake1.Measure",
                "Value": 352500,
            },
        )
        for more in ((), ("--last", "3"), ("--follow",)):
            self.check(run(bus, "events", "com.example.young", *more), FAILED, "", "ternctl: 'com.example.young' records nothing\n")

    def test_follows_until_it_is_interrupted(self):
        bus = self.with_bus("growing")
        for number in (signal.SIGINT, signal.SIGTERM):
            following = Running(bus, "events", "com.example.growing", "--follow", "--last", "2")
            following.wait_for("out", r"(?s)(call_ended.*){4}")
            result = following.finish(number)
            self.check(result, DONE, None)
            # Of three events one comes from looking.
            self.assertNotIn("GetEvents", result.out)
        following = Running(bus, "events", "com.example.growing", "-f", "--json", "--full")
        following.wait_for("out", r"(?s)(\n.*){14}")
        result = following.finish()
        events = [json.loads(line) for line in result.out.splitlines()]
        numbers = [event["Sequence"] for event in events]
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))
        self.assertIn("tern.Diagnostics1.GetEvents", [event["Name"] for event in events])

    def test_follows_over_a_restart(self):
        bus = self.with_bus("growing")
        following = Running(bus, "events", "com.example.growing", "--follow")
        following.wait_for("out", "call_ended")
        bus.stop("com.example.growing")
        following.wait_for("err", r"^ternctl: 'com.example.growing' (is not on|left) the bus.*; waiting for it\n")
        before = len(following.text("out"))
        bus.start("growing")
        following.wait_for("err", r"'com.example.growing' is there again\n")
        wait_for(lambda: len(following.text("out")) > before, "events of the next life")
        self.check(following.finish(), DONE, None, None)

    def test_waits_for_one_that_hangs(self):
        bus = self.with_bus("growing")
        following = Running(bus, "events", "com.example.growing", "--follow", "--timeout", "0.2")
        following.wait_for("out", "call_ended")
        bus.halt("com.example.growing")
        following.wait_for("err", r"did not answer within 200 ms; waiting for it\n")
        time.sleep(1.5)  # two more looks
        os.kill(bus.services["com.example.growing"].pid, signal.SIGCONT)
        before = len(following.text("out"))
        wait_for(lambda: len(following.text("out")) > before, "events after that")
        result = following.finish()
        self.check(result, DONE, None, None)
        self.assertEqual(result.err.count("waiting for it"), 1)

    def test_what_came_before_a_late_answer_is_printed_once(self):
        bus = self.with_bus("stalling")
        following = Running(
            bus, "events", "com.example.stalling", "--follow", "--last", "1500", "--full", "--json", "--timeout", "0.3"
        )
        wait_for(lambda: following.text("out").count("\n") >= 1500, "all events")
        result = following.finish()
        self.check(result, DONE, None, None)
        numbers = [json.loads(line)["Sequence"] for line in result.out.splitlines()]
        self.assertEqual((len(numbers), numbers[-1] - numbers[0]), (1500, 1499))
        self.assertEqual(len(set(numbers)), 1500)

    def test_ends_with_the_bus(self):
        bus = self.with_bus("growing")
        following = Running(bus, "events", "com.example.growing", "--follow")
        following.wait_for("out", "call_ended")
        bus.daemon.kill()
        result = following.finish(None)
        self.assertEqual(result.status, FAILED, result)
        self.assertRegex(result.err, r"connection to the (bus was lost|system bus)")


class Log(SharedBus):
    def test_prints_the_messages(self):
        result = run(self.bus, "log", "com.example.calm")
        self.check(result, DONE, "2023-11-14 22:13:20.000000  warning   Fake: a warning\n")
        whole = run(self.bus, "log", "com.example.troubled").out.splitlines()
        self.assertEqual(len(whole), 100)
        # What was cut has a mark.
        self.assertEqual(whole[-1], f"2023-11-14 22:14:59.000000  critical  Fake: message 99 {'x' * 70}…")
        self.assertEqual(whole[-2], f"2023-11-14 22:14:58.000000  warning   Fake: message 98 {'x' * 70}…")
        self.assertEqual(whole[-3], f"2023-11-14 22:14:57.000000  error     Fake: message 97 {'x' * 70}…")
        self.assertEqual(run(self.bus, "log", "com.example.troubled", "-n", "3").out.splitlines(), whole[-3:])
        self.check(run(self.bus, "log", "com.example.troubled", "--last", "0"), DONE, "")
        self.assertEqual(len(run(self.bus, "log", "com.example.troubled", "--last", "1000").out.splitlines()), 100)

    def test_json(self):
        self.assertEqual(
            self.run_json("log", "com.example.calm"),
            {
                "Service": "com.example.calm",
                "Messages": [{"AtUs": 1700000000000000, "Level": 4, "Text": "Fake: a warning", "IsCut": False}],
            },
        )
        told = self.run_json("log", "com.example.troubled", "--last", "2")["Messages"]
        self.assertEqual([one["AtUs"] for one in told], [1700000098000000, 1700000099000000])
        self.assertEqual([one["Level"] for one in told], [4, 2])

    def test_where_nothing_is_recorded(self):
        self.check(run(self.bus, "log", "com.example.young"), FAILED, "", "ternctl: 'com.example.young' records nothing\n")


class WhyAndLogLevel(SharedBus):
    def test_why(self):
        for name, text in (
            (
                "calm",
                "com.example.calm runs since 2023-11-14 22:13:20 and has been restarted once; its former life was stopped in order.\n",
            ),
            (
                "troubled",
                "com.example.troubled runs since 2023-11-14 22:13:20 and has been restarted 3 times; in its former life a watched "
                "thread was blocked, and the watcher killed it.\n"
                "  Thread 'control' (4714) was in the job 'Export' for 6.1 s.\n"
                "  The watcher killed it.\n",
            ),
            (
                "young",
                "com.example.young runs since 2023-11-14 22:13:20 and has not been restarted; there was no former life, or nobody "
                "handed on how it ended.\n",
            ),
        ):
            with self.subTest(name):
                result = run(self.bus, "why", f"com.example.{name}")
                self.check(result, DONE)
                self.assertEqual(result.out, text)
        self.assertEqual(
            self.run_json("why", "com.example.troubled"),
            {
                "Service": "com.example.troubled",
                "Ended": "blocked",
                "Restarts": 3,
                "StartedAtUs": 1700000000000000,
                "Sentences": ["Thread 'control' (4714) was in the job 'Export' for 6.1 s.", "The watcher killed it."],
            },
        )

    def test_log_level(self):
        name = "com.example.calm"
        self.check(run(self.bus, "log-level", name), DONE, "notice\n")
        for level in ("critical", "error", "warning", "info", "debug", "notice"):
            self.check(run(self.bus, "log-level", name, level), DONE, "")
            self.check(run(self.bus, "log-level", name), DONE, f"{level}\n")
        self.assertEqual(self.run_json("log-level", name, "info"), {"Service": name, "LogLevel": "info"})
        self.check(run(self.bus, "log-level", name, "notice"), DONE, "")
        self.check(
            run(self.bus, "log-level", "com.example.young", "info"),
            FAILED,
            "",
            "ternctl: 'com.example.young' refuses: this logger's threshold cannot be set\n",
        )


class Chart(Case):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.file = f"{self.folder}/chart.svg"

    def read(self):
        """The document: texts and series by name, as lists of points."""
        root = ET.parse(self.file).getroot()
        texts = [text.text for text in root.iter(f"{SVG}text")]
        series = {}
        for group in root.iter(f"{SVG}g"):
            lines = [line.get("points").split() for line in group.iter(f"{SVG}polyline")]
            series[group.get("data-name")] = [[tuple(map(float, p.split(","))) for p in line] for line in lines]
            for line in series[group.get("data-name")]:
                for x, y in line:
                    self.assertTrue(0 <= x <= float(root.get("width")) and 0 <= y <= float(root.get("height")))
        return root, texts, series

    def test_draws_what_it_sees(self):
        bus = self.with_bus("growing")
        for _ in range(10):
            result = run(bus, "--json", "chart", "com.example.growing", "3", self.file)
            samples = json.loads(result.out)["Samples"]
            if len(samples) == 4:
                break  # else the machine was busy: looks that are late are left out
        self.check(result, DONE, None, r"ternctl: 1 s of 3 s\nternctl: 2 s of 3 s\nternctl: 3 s of 3 s\n")
        self.assertEqual(len(samples), 4)
        self.assertEqual((samples[0]["CallsPerSecond"], samples[0]["MedianUs"]), (None, None))
        for sample in samples[1:]:
            # What looking brings about, a million calls of seconds each, is left out.
            self.assertAlmostEqual(sample["CallsPerSecond"], 100, delta=3)
            self.assertEqual(sample["MedianUs"], 512)
            self.assertEqual(sample["Percentile99Us"], 32768)
        self.assertEqual(samples[3]["QueuedIn"] - samples[2]["QueuedIn"], 10)
        _, texts, series = self.read()
        for text in ("com.example.growing", "Memory (resident, MiB)", "Calls a second", "1 s", "3 s", "1 ms", "100 us"):
            self.assertIn(text, texts)
        self.assertTrue(any(text.startswith("since 2023-11-18 ") for text in texts), texts)
        names = [
            "memory",
            "calls",
            "half of the calls below (50 %)",
            "99 % of the calls below",
            "received",
            "to be sent",
            "jobs of the D-Bus thread",
            "jobs of pools",
            "in pipes",
        ]
        self.assertEqual(list(series), names)
        for name in names:  # the legend
            self.assertIn(name, texts)
        self.assertEqual([len(line) for line in series["received"]], [4])
        self.assertEqual([len(line) for line in series["calls"]], [3])
        # What grows goes up.
        heights = [y for _, y in series["received"][0]]
        self.assertEqual(heights, sorted(heights, reverse=True))
        self.assertEqual(os.listdir(self.folder), ["chart.svg"])
        self.assertEqual(os.stat(self.file).st_mode & 0o777, 0o666 & ~self.umask())

    @staticmethod
    def umask():
        mask = os.umask(0)
        os.umask(mask)
        return mask

    def test_a_restart_is_shown(self):
        bus = self.with_bus("growing")
        drawing = Running(bus, "chart", "com.example.growing", "6", self.file)
        drawing.wait_for("err", " s of 6 s")
        bus.stop("com.example.growing")
        drawing.wait_for("err", r"'com.example.growing' (is not on|left) the bus.*; a gap in the chart\n")
        bus.start("growing")
        self.check(drawing.finish(None), DONE, "", None)
        root, _, series = self.read()
        self.assertEqual(len([line for line in root.iter(f"{SVG}line") if line.get("stroke") == "#c23b00"]), 4)
        self.assertGreaterEqual(len(series["memory"]), 1)
        # Nothing is drawn across the restart.
        restart = next(float(line.get("x1")) for line in root.iter(f"{SVG}line") if line.get("stroke") == "#c23b00")
        for line in series["memory"]:
            self.assertFalse(line[0][0] < restart - 0.1 and line[-1][0] > restart - 0.1, (restart, line))

    def test_an_interrupt_ends_early_with_what_there_is(self):
        bus = self.with_bus("calm")
        drawing = Running(bus, "chart", "com.example.calm", "20", self.file)
        drawing.wait_for("err", "([2-9]|1[0-9]) s of 20 s")
        self.check(drawing.finish(), DONE, "", None)
        _, _, series = self.read()
        self.assertGreaterEqual(len(series["memory"][0]), 2)

    def test_one_that_hangs_makes_it_no_longer(self):
        bus = self.with_bus("calm")
        begin = time.monotonic()
        drawing = Running(bus, "--timeout", "2", "chart", "com.example.calm", "8", self.file)
        drawing.wait_for("err", "[2-8] s of 8 s")
        bus.halt("com.example.calm")
        result = drawing.finish(None)
        # The last look may be waited for; each of those that are due meanwhile is not: that would take 15 s.
        self.assertLess(time.monotonic() - begin, 14)
        self.check(result, DONE, "", r"(?s).*'com.example.calm' did not answer within 2.00 s; a gap in the chart\n.*")
        _, _, series = self.read()
        self.assertGreaterEqual(len(series["memory"][0]), 2)

    def test_a_hangup_that_is_ignored_does_not_end_it(self):
        bus = self.with_bus("calm")
        former = signal.signal(signal.SIGHUP, signal.SIG_IGN)  # as nohup(1) does
        try:
            drawing = Running(bus, "chart", "com.example.calm", "3", self.file)
        finally:
            signal.signal(signal.SIGHUP, former)
        drawing.wait_for("err", " s of 3 s")
        self.check(drawing.finish(signal.SIGHUP), DONE, "", r"(?s).*3 s of 3 s\n")

    def test_what_was_seen_is_drawn_when_the_bus_goes(self):
        bus = self.with_bus("calm")
        drawing = Running(bus, "chart", "com.example.calm", "20", self.file)
        drawing.wait_for("err", "([2-9]|1[0-9]) s of 20 s")
        bus.daemon.kill()
        result = drawing.finish(None)
        self.assertEqual(result.status, FAILED, result)
        self.assertRegex(result.err, r"connection to the (bus was lost|system bus)")
        _, _, series = self.read()
        self.assertGreaterEqual(len(series["memory"][0]), 2)

    def test_a_place_that_cannot_be_written_is_told_at_once(self):
        bus = self.with_bus("calm")
        for file, text in (
            (f"{self.folder}/away/chart.svg", "No such file or directory"),
            (self.folder, "it is no file"),
            ("/dev/null", "it is no file"),
        ):
            with self.subTest(file):
                begin = time.monotonic()
                result = run(bus, "chart", "com.example.calm", "30", file)
                self.check(result, FAILED, "", f"ternctl: '{file}' cannot be written: {text}\n")
                self.assertLess(time.monotonic() - begin, 10)

    def test_what_was_there_stays_when_the_disk_is_full(self):
        bus = self.with_bus("calm")
        with open(self.file, "w", encoding="utf-8") as file:
            file.write("former")
        # No file may become larger than a block.
        done = subprocess.run(
            ["bash", "-c", 'trap "" XFSZ; ulimit -f 1; exec "$@"', "-", TERNCTL, "chart", "com.example.calm", "1", self.file],
            env=bus.environment(),
            capture_output=True,
            timeout=LIMIT,
            check=False,
        )
        self.assertEqual(done.returncode, FAILED)
        self.assertIn(f"'{self.file}' cannot be written: File too large", done.stderr.decode())
        with open(self.file, encoding="utf-8") as file:
            self.assertEqual(file.read(), "former")
        self.assertEqual(os.listdir(self.folder), ["chart.svg"])

    def test_hostile_text_stays_text(self):
        bus = self.with_bus("hostile")
        result = run(bus, "chart", "com.example.hostile", "1", self.file)
        self.check(result, DONE, "", None)
        self.read()


class Completion(SharedBus):
    def complete(self, line):
        script = 'source "$1"; COMP_LINE=$2; COMP_POINT=${#2}; _ternctl; printf "%s\\n" "${COMPREPLY[@]}"'
        with tempfile.TemporaryDirectory() as folder:
            os.symlink(os.path.abspath(TERNCTL), f"{folder}/ternctl")
            done = subprocess.run(
                ["bash", "-c", script, "-", f"{SOURCE}/tools/ternctl/ternctl.bash", line],
                env=self.bus.environment(PATH=f"{folder}:{os.environ['PATH']}"),
                capture_output=True,
                timeout=LIMIT,
                check=False,
            )
        self.assertEqual(done.stderr, b"")
        return done.stdout.decode().split()

    def test_commands_names_levels_and_options(self):
        names = [f"com.example.{name}" for name in ("calm", "hostile", "troubled", "young")]
        for line, words in (
            ("ternctl ", ["list", "status", "top", "events", "log", "why", "log-level", "chart"]),
            ("ternctl log com.example.t", ["com.example.troubled"]),
            ("ternctl log --l", ["--last"]),
            ("ternctl events --p", ["--pid"]),
            ("ternctl events --pid 1 ", []),
            ("ternctl --json st", ["status"]),
            ("ternctl status ", names),
            ("ternctl --timeout 3 why com.example.t", ["com.example.troubled"]),
            (f"ternctl --address {self.bus.address} chart com.example.y", ["com.example.young"]),
            ("ternctl --address unix:path=/nowhere status ", []),
            ("ternctl log-level com.example.calm ", ["critical", "error", "warning", "notice", "info", "debug"]),
            ("ternctl log-level com.example.calm n", ["notice"]),
            ("ternctl events --f", ["--follow", "--full"]),
            ("ternctl list --n", ["--names"]),
            ("ternctl --host device status ", []),
            ("ternctl status com.example.calm ", []),
        ):
            with self.subTest(line):
                self.assertEqual(self.complete(line), words)


if __name__ == "__main__":
    with contextlib.suppress(FileNotFoundError):
        unittest.main(argv=[sys.argv[0], *sys.argv[4:]], verbosity=2)
