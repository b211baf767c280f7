#!/usr/bin/env python3
"""ternctl against services with the real diagnostics, on private buses: what it shows is what they have done.

    real_test.py TERNCTL REAL_SERVICE SOURCE_FOLDER [UNITTEST_ARGUMENT...]
"""

import json
import os
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as ET

sys.dont_write_bytecode = True  # nothing into the folder of the sources

# pylint: disable=wrong-import-position
from harness import DONE, FAILED, LIMIT, NOBODY, TERNCTL, Case, Running, run, wait_for

NAME = "com.example.ordinary"
LEVELS = {2: "critical", 3: "error", 4: "warning"}
LATENCY_BUCKETS = 24
NOBODY_USER = 65534


def call(bus, name, member, *arguments, signature=""):
    """A method of the service's own; returns what busctl prints."""
    command = ["busctl", f"--address={bus.address}", "--timeout=60", "call", name, "/real", "com.example.Real1", member]
    done = subprocess.run(
        [*command, *([signature] if signature else []), *map(str, arguments)], capture_output=True, timeout=LIMIT, check=True
    )
    return done.stdout.decode().strip()


class RealCase(Case):
    def with_services(self, *modes):
        bus = self.with_bus(*modes)
        for mode in modes:
            # The timer that fires once is started last of all.
            wait_for(lambda: self.fired(bus, f"com.example.{mode}"), "all is started")
        return bus

    def fired(self, bus, name):
        return any(not one["IsPeriodic"] and one["Expiries"] == 1 for one in self.figures(bus, name)["Timers"])

    def json_of(self, bus, *arguments):
        result = run(bus, *arguments, "--json")
        self.check(result, DONE)
        self.assertEqual(result.out.count("\n"), 1)
        return json.loads(result.out)

    def figures(self, bus, name=NAME):
        return self.json_of(bus, "status", name)["Figures"]

    def member(self, figures, name):
        found = [one for one in figures["BusThread"]["Members"] if one["Name"] == name]
        self.assertEqual(len(found), 1, figures["BusThread"]["Members"])
        return found[0]


class Everything(RealCase):
    def test_list(self):
        bus = self.with_services("ordinary", "small")
        before = time.time()
        told = self.json_of(bus, "list")
        self.assertEqual((told["Unanswered"], told["Refused"]), ([], []))
        self.assertEqual([one["Name"] for one in told["Services"]], [NAME, "com.example.small"])
        for one in told["Services"]:
            self.assertEqual(one["Pid"], bus.services[one["Name"]].pid)
            self.assertRegex(one["UniqueName"], r"^:1\.\d+$")
            self.assertEqual((one["Version"], one["Ended"], one["Restarts"]), ("2.3.4", "none", 0))
            self.assertAlmostEqual(one["StartedAtUs"] / 1e6, before, delta=LIMIT)
            self.assertLess(one["UptimeUs"], LIMIT * 1e6)
            self.assertIn(one["LogLevel"], ("notice", "info", "debug", "warning"))
        self.check(run(bus, "list", "--names"), DONE, f"{NAME}\ncom.example.small\n")
        self.assertRegex(run(bus, "list").out, rf"(?m)^{NAME} +{bus.services[NAME].pid} .* 2\.3\.4 +none$")

    def test_status_is_what_the_service_has_done(self):
        bus = self.with_services("ordinary")
        self.assertEqual(call(bus, NAME, "Add", 2, 3, signature="uu"), "u 5")
        for _ in range(4):
            call(bus, NAME, "Add", 1, 1, signature="uu")
        call(bus, NAME, "Sleep", 30, signature="u")
        call(bus, NAME, "Queue", 6, 5, signature="uu")
        call(bus, NAME, "Pipe", 7, 3, signature="uu")
        for runs in range(1, 4):
            call(bus, NAME, "WakeUp")
            wait_for(lambda runs=runs: self.figures(bus)["Components"][0]["Runs"] == runs, "a run")
        wait_for(lambda: self.figures(bus)["Pools"][0]["Done"] == 6, "the jobs")
        call(bus, NAME, "Log", 4, "the pump is slow", signature="us")
        told = self.json_of(bus, "status", NAME)
        self.assertEqual(
            set(told), {"Service", "Ended", "Restarts", "LogLevel", "Figures", "Attention", "Messages"}
        )
        self.assertEqual((told["Service"], told["Ended"], told["Restarts"]), (NAME, "none", 0))
        figures = told["Figures"]

        process = figures["Process"]
        pid = bus.services[NAME].pid
        self.assertEqual((process["Pid"], process["Program"], process["Version"]), (pid, "ternctl-real-service", "2.3.4"))
        self.assertAlmostEqual(figures["TakenAtUs"] / 1e6, time.time(), delta=LIMIT)
        self.assertAlmostEqual(process["StartedAtUs"] + process["UptimeUs"], figures["TakenAtUs"], delta=1e6)
        self.assertGreater(process["ProcessorUs"], 0)
        with open(f"/proc/{pid}/status", encoding="utf-8") as file:
            status = dict(line.split(":", 1) for line in file.read().splitlines())
        self.assertAlmostEqual(process["MemoryBytes"], int(status["VmRSS"].split()[0]) * 1024, delta=2**20)
        self.assertGreaterEqual(process["MemoryPeakBytes"], process["MemoryBytes"] - 2**20)
        self.assertEqual(process["Threads"], int(status["Threads"]))
        self.assertEqual(process["Descriptors"], len(os.listdir(f"/proc/{pid}/fd")))

        thread = figures["BusThread"]
        add = self.member(figures, "com.example.Real1.Add")
        self.assertEqual(add["Handled"], 5)
        self.assertEqual((len(add["Latency"]), sum(add["Latency"])), (LATENCY_BUCKETS, 5))
        sleep = self.member(figures, "com.example.Real1.Sleep")
        self.assertEqual(sleep["Handled"], 1)
        self.assertGreaterEqual(sleep["LongestUs"], 30000)
        self.assertEqual(sleep["LongestUs"], sleep["TotalUs"])
        # 2^14 us are 16.4 ms.
        self.assertEqual(sum(sleep["Latency"][15:]), 1)
        for member, handled in (("Queue", 1), ("Pipe", 1), ("WakeUp", 3), ("Log", 1)):
            self.assertEqual(self.member(figures, f"com.example.Real1.{member}")["Handled"], handled, member)
        self.assertEqual(thread["ThreadId"] in self.threads_of(pid), True)
        self.assertGreaterEqual(thread["LongestTurnUs"], 30000)
        self.assertGreaterEqual(thread["Handled"], sum(one["Handled"] for one in thread["Members"]))
        self.assertEqual((thread["WatchdogUs"], thread["WatchdogMarginUs"]), (0, 0))

        self.assertRegex(figures["Connection"]["UniqueName"], r"^:1\.\d+$")
        self.assertEqual(figures["Connection"]["Objects"], 2)
        self.assertEqual((figures["Connection"]["PendingCalls"], figures["Connection"]["WaitingJobs"]), (0, 0))

        pool = figures["Pools"][0]
        self.assertEqual(len(figures["Pools"]), 1)
        self.assertEqual((pool["Threads"], pool["Busy"], pool["Queued"], pool["Done"], pool["RunningUs"]), (2, 0, 0, 6, 0))
        self.assertGreaterEqual(pool["LongestUs"], 5000)

        self.assertEqual(len(figures["Components"]), 1)
        component = figures["Components"][0]
        self.assertEqual((component["Name"], component["WakeUps"], component["Runs"], component["RunningUs"]), ("control", 3, 3, 0))
        self.assertGreaterEqual(component["LongestUs"], 2000)

        self.assertIn("control", [one["Name"] for one in figures["Threads"]])
        for one in figures["Threads"]:
            self.assertIn(one["ThreadId"], self.threads_of(pid))
            self.assertIn(one["State"], ("running", "sleeping", "waiting"))

        watched = {one["Name"]: one for one in figures["Watched"]}
        self.assertEqual(set(watched), {"patrol", "ThreadPool::Thread0", "ThreadPool::Thread1"})
        patrol = watched["patrol"]
        self.assertEqual((patrol["PeriodUs"], patrol["LimitUs"]), (10_000_000, 20_000_000))
        self.assertEqual(patrol["MarginUs"], patrol["LimitUs"] - patrol["SilentUs"])
        self.assertIn(patrol["ThreadId"], self.threads_of(pid))

        timers = {one["Kind"]: one for one in figures["Timers"]}
        self.assertEqual(set(timers), {"Timer", "ShortPeriodTimer"})
        self.assertEqual((timers["Timer"]["PeriodUs"], timers["Timer"]["Expiries"]), (20000, 1))
        self.assertEqual((timers["ShortPeriodTimer"]["PeriodUs"], timers["ShortPeriodTimer"]["IsPeriodic"]), (50000, True))
        wait_for(
            lambda: any(
                one["Kind"] == "ShortPeriodTimer" and one["Expiries"] > timers["ShortPeriodTimer"]["Expiries"]
                for one in self.figures(bus)["Timers"]
            ),
            "an expiry",
        )

        self.assertEqual(
            [(one["Written"], one["Read"], one["Full"], one["LongestWaitUs"]) for one in figures["Pipes"]], [(7, 3, 0, 0)]
        )

        recorder = figures["Recorder"]
        self.assertEqual((recorder["IsRecording"], recorder["Capacity"], recorder["HasMessages"]), (True, 2048, True))
        self.assertEqual((recorder["IsStored"], recorder["NamesLost"], recorder["ThreadsLost"]), (False, 0, 0))
        self.assertGreater(recorder["Bytes"], 65536)
        self.assertGreater(recorder["Events"], 30)

        self.assertEqual([(one["Level"], one["IsCut"]) for one in told["Messages"]], [(4, False)])
        self.assertRegex(told["Messages"][0]["Text"], r"\[Real\] the pump is slow$")

        # And a page for people.
        page = run(bus, "status", NAME)
        self.check(page, DONE)
        self.assertLess(len(page.out.splitlines()), 40)
        for text in (f"{NAME} 2.3.4, up ", f"pid {pid}", "Pools", "control", "patrol", "warning   [Real] the pump is slow\n"):
            self.assertIn(text, page.out)

    @staticmethod
    def threads_of(pid):
        return [int(one) for one in os.listdir(f"/proc/{pid}/task")]

    def test_top_shows_who_works(self):
        bus = self.with_services("ordinary", "small")
        top = Running(bus, "top", "--json", "--period", "0.5")
        top.wait_for("out", r"\n")
        for _ in range(30):
            call(bus, NAME, "Add", 1, 1, signature="uu")
        # What they do anyway is little; the calls are seen in a page.
        top.wait_for("out", r"(?s)(\n.*){4}")
        pages = [json.loads(line) for line in top.finish().out.splitlines()]
        self.assertGreaterEqual(len(pages), 3)
        busiest = 0
        for page in pages:
            self.assertEqual({one["Name"] for one in page["Services"]}, {NAME, "com.example.small"})
            for one in page["Services"]:
                self.assertEqual(one["Trouble"], None)
                self.assertTrue(0 <= one["Load"] < 4, one)
                if one["Name"] == NAME:
                    busiest = max(busiest, one["MessagesPerSecond"])
                    self.assertEqual(one["Pid"], bus.services[NAME].pid)
        self.assertGreater(busiest, 1)

    def test_events_are_what_has_happened(self):
        bus = self.with_services("ordinary")
        call(bus, NAME, "Queue", 2, 10, signature="uu")
        wait_for(lambda: self.figures(bus)["Pools"][0]["Done"] == 2, "the jobs")
        call(bus, NAME, "Sleep", 20, signature="u")
        told = self.json_of(bus, "events", NAME)
        self.assertEqual((told["Service"], told["Lost"]), (NAME, 0))
        events = told["Events"]
        self.assertEqual([one["Sequence"] for one in events], list(range(1, len(events) + 1)))
        self.assertEqual(told["Next"], events[-1]["Sequence"])
        threads = self.threads_of(bus.services[NAME].pid)
        count = lambda event, name=None: [  # noqa: E731
            one for one in events if one["Event"] == event and name in (None, one["Name"])
        ]
        self.assertEqual(len(count("job_began")), 2)
        for one in count("job_ended"):
            self.assertGreaterEqual(one["Value"], 10_000_000)
            self.assertIn(one["ThreadId"], threads)
            self.assertAlmostEqual(one["AtUs"] / 1e6, time.time(), delta=LIMIT)
        self.assertEqual(len(count("job_ended")), 2)
        began, ended = count("call_began", "com.example.Real1.Sleep"), count("call_ended", "com.example.Real1.Sleep")
        self.assertEqual((len(began), len(ended)), (1, 1))
        self.assertGreaterEqual(ended[0]["Value"], 20_000_000)
        self.assertGreaterEqual(ended[0]["AtUs"] - began[0]["AtUs"], 19_900)
        self.assertEqual(began[0]["ThreadId"], self.figures(bus)["BusThread"]["ThreadId"])
        self.assertEqual([one["Name"] for one in count("timer_began")].count(""), len(count("timer_began")))
        last = run(bus, "events", NAME, "-n", "3").out.splitlines()
        self.assertEqual(len(last), 3)

    def test_what_was_overwritten_is_counted(self):
        bus = self.with_services("small")
        for _ in range(70):
            call(bus, "com.example.small", "Add", 1, 1, signature="uu")
        told = self.json_of(bus, "events", "com.example.small")
        self.assertLessEqual(len(told["Events"]), 128)
        self.assertGreater(told["Lost"], 10)
        self.assertEqual(told["Events"][0]["Sequence"], told["Lost"] + 1)
        self.assertRegex(run(bus, "events", "com.example.small").out, r"\A-- \d+ events were overwritten --\n")

    def test_events_are_followed(self):
        bus = self.with_services("ordinary")
        following = Running(bus, "events", NAME, "--follow", "--json")
        following.wait_for("out", r"\n")
        call(bus, NAME, "Sleep", 5, signature="u")
        following.wait_for("out", r'"call_ended","Name":"com.example.Real1.Sleep"')
        call(bus, NAME, "Log", 3, "the valve is stuck", signature="us")
        following.wait_for("out", r'"Event":"message"')
        result = following.finish()
        self.check(result, DONE, None)
        numbers = [json.loads(line)["Sequence"] for line in result.out.splitlines()]
        self.assertEqual(numbers, sorted(set(numbers)))

    def test_why_without_a_former_life(self):
        bus = self.with_services("ordinary")
        told = self.json_of(bus, "why", NAME)
        self.assertEqual((told["Service"], told["Ended"], told["Restarts"], told["Sentences"]), (NAME, "none", 0, []))
        self.check(run(bus, "why", NAME), DONE, r"com.example.ordinary runs since .* and has not been restarted; there was no .*\n")

    def test_log_level_takes_effect(self):
        bus = self.with_services("ordinary")

        def logged(text):
            with open(bus.log_of(NAME), encoding="utf-8", errors="replace") as file:
                return text in file.read()

        for level in ("warning", "critical"):
            self.check(run(bus, "log-level", NAME, level), DONE, "")
            self.check(run(bus, "log-level", NAME), DONE, f"{level}\n")
            call(bus, NAME, "Log", 6, f"unwanted with {level}", signature="us")
        call(bus, NAME, "Log", 4, "unwanted warning", signature="us")
        self.check(run(bus, "log-level", NAME, "debug"), DONE, "")
        self.assertEqual(self.json_of(bus, "log-level", NAME), {"Service": NAME, "LogLevel": "debug"})
        call(bus, NAME, "Log", 6, "wanted information", signature="us")
        call(bus, NAME, "Log", 7, "wanted details", signature="us")
        wait_for(lambda: logged("wanted details"), "the message in the log")
        self.assertTrue(logged("[Real] wanted information"))
        self.assertFalse(logged("unwanted"))
        self.assertEqual(self.json_of(bus, "status", NAME)["LogLevel"], "debug")

    def test_log_has_the_last_hundred(self):
        bus = self.with_services("ordinary")
        for i in range(104):
            call(bus, NAME, "Log", 2 + i % 3, f"message {i} end", signature="us")
        call(bus, NAME, "Log", 6, "no matter", signature="us")
        messages = self.json_of(bus, "log", NAME)["Messages"]
        self.assertEqual(len(messages), 100)
        for i, one in enumerate(messages, 4):
            self.assertRegex(one["Text"], rf"\[Real\] message {i} end$")
            self.assertEqual((one["Level"], one["IsCut"]), (2 + i % 3, False))
            self.assertAlmostEqual(one["AtUs"] / 1e6, time.time(), delta=2 * LIMIT)
        self.assertRegex(
            run(bus, "log", NAME, "--last", "1").out, rf"^\d{{4}}-.*  {LEVELS[2 + 103 % 3]} .*\[Real\] message 103 end\n$"
        )
        call(bus, NAME, "Log", 4, "x" * 400, signature="us")
        self.assertIs(self.json_of(bus, "log", NAME)["Messages"][-1]["IsCut"], True)
        # The same from outside.
        outside = self.json_of(bus, "log", "--pid", str(bus.services[NAME].pid))
        self.assertEqual(outside["Messages"], self.json_of(bus, "log", NAME)["Messages"])
        self.assertEqual(outside["Pid"], bus.services[NAME].pid)

    def test_chart(self):
        bus = self.with_services("ordinary")
        with tempfile.TemporaryDirectory() as folder:
            drawing = Running(bus, "--json", "chart", NAME, "50", f"{folder}/a.svg")
            drawing.wait_for("err", " s of 50 s")
            for _ in range(10):
                call(bus, NAME, "Add", 1, 1, signature="uu")
            looks = drawing.text("err").count("\n")
            drawing.wait_for("err", rf"(\n.*){{{looks + 2}}}")
            result = drawing.finish()
            self.check(result, DONE, None, None)
            samples = json.loads(result.out)["Samples"]
            calls = sum(
                now["CallsPerSecond"] * (now["TakenAtUs"] - before["TakenAtUs"]) / 1e6 for before, now in zip(samples, samples[1:])
            )
            # Ten, and what the bus tells of those who come and go; what looking brings about does not count.
            self.assertGreater(calls, 9)
            self.assertLess(calls, 60)
            self.assertEqual(ET.parse(f"{folder}/a.svg").getroot().tag, "{http://www.w3.org/2000/svg}svg")


class Blocked(RealCase):
    def setUp(self):
        self.bus = self.with_services("ordinary", "small")
        self.pid = bus_pid = self.bus.services[NAME].pid
        # Nobody waits for the answer.
        self.calling = subprocess.Popen(
            ["busctl", f"--address={self.bus.address}", "call", NAME, "/real", "com.example.Real1", "Sleep", "u", "600000"],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.addCleanup(self.calling.wait)
        self.addCleanup(self.calling.kill)
        wait_for(lambda: self.doing(bus_pid), "the handler has begun")

    def doing(self, pid):
        threads = self.json_of(None, "events", "--pid", str(pid))["Threads"]
        return [one for thread in threads if thread["IsBusThread"] for one in thread["Doing"]]

    def test_the_others_are_seen_and_it_is_told(self):
        begin = time.monotonic()
        self.check(run(self.bus, "status", "com.example.small"), DONE, None)
        for command in ("status", "events", "log", "why"):
            result = run(self.bus, command, NAME, "--timeout", "0.5")
            self.check(result, FAILED, "", f"ternctl: '{NAME}' did not answer within 500 ms\n")
        result = run(self.bus, "list", "--names", "--timeout", "0.5")
        self.check(result, DONE, "com.example.small\n", f"ternctl: did not answer within 500 ms: {NAME}\n")
        page = json.loads(run(self.bus, "top", "--json", "--count", "1", "--period", "0.2", "--timeout", "0.5").out)
        troubles = {one["Name"]: one["Trouble"] for one in page["Services"]}
        self.assertEqual(troubles["com.example.small"], None)
        self.assertLess(time.monotonic() - begin, LIMIT / 2)

    def test_its_events_name_the_handler_that_runs(self):
        # Without any bus.
        nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"}
        told = run(None, "events", "--pid", str(self.pid), "--json", **nowhere)
        self.check(told, DONE)
        told = json.loads(told.out)
        self.assertEqual((told["Pid"], told["Program"], told["Version"], told["Lost"]), (self.pid, "ternctl-real-service", "2.3.4", 0))
        self.assertEqual([one["Sequence"] for one in told["Events"]], list(range(1, len(told["Events"]) + 1)))
        bus_thread = [one for one in told["Threads"] if one["IsBusThread"]]
        self.assertEqual(len(bus_thread), 1)
        doing = bus_thread[0]["Doing"]
        self.assertEqual([(one["Event"], one["Name"]) for one in doing], [("call_began", "com.example.Real1.Sleep")])
        self.assertLess(doing[0]["ForUs"], LIMIT * 1e6)
        watches = [one["WatchName"] for one in told["Threads"] if one["WatchName"]]
        self.assertIn("patrol", watches)
        began = [one for one in told["Events"] if one["Event"] == "call_began"][-1]
        self.assertEqual((began["Name"], began["ThreadId"]), ("com.example.Real1.Sleep", bus_thread[0]["ThreadId"]))
        shown = run(None, "events", "--pid", str(self.pid), "--last", "5", **nowhere)
        self.check(
            shown,
            DONE,
            rf"(?s)(\d{{4}}-[^\n]*\n){{5}}.*-- now: the D-Bus thread {bus_thread[0]['ThreadId']} \([^)]*\) is in call_began of "
            r"com\.example\.Real1\.Sleep for [^\n]* --\n",
        )
        # A thread's id does as well.
        self.check(run(None, "events", "--pid", str(bus_thread[0]["ThreadId"]), "-n", "0", **nowhere), DONE, "(?s).*Sleep.*")

    def test_it_is_followed_until_it_ends(self):
        following = Running(self.bus, "events", "--pid", str(self.pid), "--follow", "--json")
        following.wait_for("out", "timer_ended")
        self.bus.stop(NAME)
        result = following.finish(None)
        self.check(result, DONE, None, rf"ternctl: process {self.pid} has ended\n")
        numbers = [json.loads(line).get("Sequence", 0) for line in result.out.splitlines()]
        self.assertEqual(numbers, sorted(set(numbers)))
        following = Running(self.bus, "events", "--pid", str(self.bus.services["com.example.small"].pid), "-f")
        following.wait_for("out", "timer_ended")
        self.check(following.finish(), DONE, None)


# A process with memories of the recorder's name: sizes, then what is in each, by lines of standard input.
HOLDER = """
import os, sys
for line in sys.stdin:
    size, source = line.split()
    fd = os.memfd_create("tern-flight")
    os.truncate(fd, int(size))
    if source != "-":
        with open(source, "rb") as file:
            os.pwrite(fd, file.read(), 0)
    print("done", flush=True)
"""


class FromOutside(RealCase):
    def hold(self, *memories):
        """A process with such memories, of sizes and files."""
        holder = subprocess.Popen([sys.executable, "-c", HOLDER], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        self.addCleanup(holder.stdin.close)
        self.addCleanup(holder.stdout.close)
        for size, source in memories:
            holder.stdin.write(f"{size} {source}\n".encode())
            holder.stdin.flush()
            holder.stdout.readline()
        return holder

    def ring_of(self, pid):
        """Path of the memory that the process records in."""
        for fd in os.listdir(f"/proc/{pid}/fd"):
            if os.readlink(f"/proc/{pid}/fd/{fd}") == "/memfd:tern-flight (deleted)":
                return f"/proc/{pid}/fd/{fd}"
        raise AssertionError("no recorder")

    def test_who_is_not_there_or_has_none_is_told(self):
        for command in ("events", "log"):
            self.check(run(None, command, "--pid", "2147483647"), NOBODY, "", "ternctl: there is no process 2147483647\n")
            result = run(None, command, "--pid", str(os.getpid()))
            self.check(result, NOBODY, "", f"ternctl: process {os.getpid()} has no flight recorder\n")
        self.check(run(None, "events", "--pid", str(os.getpid()), "--follow"), NOBODY, "", ".*has no flight recorder\n")

    def test_who_has_ended_and_is_not_buried_is_told(self):
        dead = subprocess.Popen(["true"])
        self.addCleanup(dead.wait)
        os.waitid(os.P_PID, dead.pid, os.WEXITED | os.WNOWAIT)
        self.check(run(None, "events", "--pid", str(dead.pid)), NOBODY, "", f"ternctl: process {dead.pid} has ended\n")

    def test_hostile_memories_are_refused(self):
        with tempfile.NamedTemporaryFile() as nonsense:
            nonsense.write(os.urandom(100000))
            nonsense.flush()
            for size, source, text in (
                (0, "-", "these 0 bytes are too few for a flight recorder's memory"),
                (2**40, "-", "these 1099511627776 bytes are too many for a flight recorder's memory"),
                (100000, "-", "this is no flight recorder's memory"),
                (100000, nonsense.name, "this is no flight recorder's memory"),
            ):
                with self.subTest(text):
                    holder = self.hold((size, source))
                    for more in (("events",), ("events", "--follow"), ("log",)):
                        self.check(
                            run(None, *more, "--pid", str(holder.pid)),
                            FAILED,
                            "",
                            f"ternctl: the flight recorder of process {holder.pid} cannot be read: {text}\n",
                        )

    def test_memory_of_another_process_is_not_taken_for_its_own(self):
        bus = self.with_services("ordinary")
        pid = bus.services[NAME].pid
        ring = self.ring_of(pid)
        holder = self.hold((os.stat(ring).st_size, ring))
        self.check(
            run(None, "events", "--pid", str(holder.pid)),
            NOBODY,
            "",
            f"ternctl: process {holder.pid} has no flight recorder of its own, but that of process {pid} "
            r"\(ternctl-real-service\)\n",
        )

    def test_many_hostile_memories_keep_nobody_for_long(self):
        holder = self.hold(*[(16 * 2**20, "-")] * 100)
        begin = time.monotonic()
        result = run(None, "events", "--pid", str(holder.pid))
        self.assertEqual(result.status, FAILED, result)
        self.assertLess(time.monotonic() - begin, LIMIT)

    def test_another_users_is_denied_and_roots_is_not(self):
        if os.getuid() != 0:
            self.skipTest("only root can be another user")
        bus = self.with_services("ordinary")
        pid = bus.services[NAME].pid
        nobody = {"user": NOBODY_USER, "group": NOBODY_USER, "extra_groups": []}
        try:
            subprocess.run([TERNCTL, "--version"], **nobody, capture_output=True, timeout=LIMIT, check=True)
        except (PermissionError, subprocess.CalledProcessError):
            self.skipTest("another user cannot start the program from where it was built")
        denied = subprocess.run(
            [TERNCTL, "events", "--pid", str(pid)], **nobody, capture_output=True, timeout=LIMIT, check=False
        )
        self.assertEqual(
            denied.stderr.decode(), f"ternctl: access to process {pid} is denied: root may look into it, and its own user\n"
        )
        self.assertEqual((denied.returncode, denied.stdout), (FAILED, b""))
        # One of another user, for root.
        other = subprocess.Popen(["sleep", "60"], **nobody)
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        self.check(run(None, "events", "--pid", str(other.pid)), NOBODY, "", f"ternctl: process {other.pid} has no flight recorder\n")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]], verbosity=2)
