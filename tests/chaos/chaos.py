#!/usr/bin/env python3
"""Does harm to the soaked extension in a container, and says what came of it; scripts/chaos is the command.

   chaos.py BUILD_FOLDER OUTPUT_FOLDER SECONDS SEED [--short] [--only NAME,...]

Each harm is begun, lasts and is lifted; then every client has to have an answer within a stated time, and what was promised
is looked at; then there is a pause, in which nothing may happen and what the process holds is counted. Exit status 1 when
something was not in order."""

import argparse
import collections
import csv
import json
import os
import random
import subprocess
import sys
import threading
import time

import harms
import judge
from box import NAME, STATE, Box, Service

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "soak"))
import report  # noqa: E402

CLIENTS = 10
REPLY_LIMIT = 60
# Within so many seconds after a harm is lifted, every client has its answers again; the watchdog's five, systemd's five until
# it kills what does not end, and the restart are in it.
RECOVERY = 15
# A life that a harm has to end is over, and the next one there, within this time.
END = 30
# What the process holds at rest, from the first pause to the last one.
MORE_AT_REST = {"anon_kib": 2048, "descriptors": 1, "threads": 1}


class Clients:
    def __init__(self, build, bus):
        self.process = subprocess.Popen([f"{build}/tests/chaos/tern-chaos-clients", bus, str(CLIENTS), str(REPLY_LIMIT)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def tell(self, word="tell"):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def end(self):
        told = self.tell("end")
        self.process.wait()
        return told


class Watch(threading.Thread):
    """Sees each new life, and asks it how the former one ended."""

    def __init__(self, service):
        super().__init__(daemon=True)
        self.service = service
        self.lives = []
        self.problems = []
        self.is_over = False

    def run(self):
        while not self.is_over:
            try:
                self._look()
            except (RuntimeError, subprocess.TimeoutExpired, OSError, KeyError, ValueError) as failure:
                self.problems.append(f"the watch: {failure}")
            time.sleep(0.1)

    def _look(self):
        invocation = self.service.invocation()
        if self.lives and invocation == self.lives[-1].invocation:
            return
        shown = self.service.show("InvocationID", "MainPID", "SubState")
        if shown["InvocationID"] != invocation or shown["SubState"] != "running":
            return
        life = judge.Life(invocation, int(shown["MainPID"]), time.monotonic())
        why = self.service.ask("why", NAME)
        if why is None:
            return  # it is asked again, if it is still there
        life.kind, life.sentences, life.restarts = why["Ended"], why["Sentences"], why["Restarts"]
        self.lives.append(life)

    def is_current(self):
        return bool(self.lives) and self.lives[-1].invocation == self.service.invocation()


class Row:
    """Of the table."""

    def __init__(self):
        self.times = self.ends = self.explained = self.longest_ms = self.recovery_ms = self.cut_off = self.refused = 0
        self.kinds = collections.Counter()


class Run:
    def __init__(self, options):
        self.options = options
        self.box = Box()
        self.service = Service(self.box, f"{options.build}/tools/ternctl/ternctl")
        self.random = random.Random(options.seed)
        self.rows = {}
        self.impossible = {}
        self.problems = []
        self.samples = []
        self.pauses = []
        self.judged_lives = 1
        self.began = time.monotonic()
        self.longest_ms = 0
        self.lasted = 0.0
        self.watch = Watch(self.service)
        self.clients = None

    # For the harms.

    def pid(self):
        pid = self.service.main_pid()
        if pid is None:
            raise RuntimeError("there is no extension to harm")
        return pid

    # The course of it.

    def go(self):
        self.watch.start()
        self._wait(END, self.watch.is_current, "the extension does not start")
        self.clients = Clients(self.options.build, self.box.bus)
        quick = self.options.short
        self._pause(3 if quick else 20)
        for harm in self._deck():
            self._do(harm)
            self._pause(1.5 if quick else 5)
        self._pause(3 if quick else 60)
        told = self.clients.end()
        # Their last calls were answered.
        self._judge_promises(told)
        ends = len(self.watch.lives) - 1
        if told["interrupted"] > ends * CLIENTS:
            self.problems.append(f"{told['interrupted']} calls were cut off, more than can have been in flight at {ends} ends")
        if told["calls"] != told["replies"] + told["interrupted"] + told["lost"] + told["errors"]:
            self.problems.append("the calls and their outcomes differ in number")
        self.watch.is_over = True
        self.watch.join()
        self.problems += self.watch.problems
        self._judge_growth()
        return told

    def _deck(self):
        chosen = []
        for kind in harms.ALL:
            harm = kind()
            if self.options.only and not any(word in harm.name for word in self.options.only.split(",")):
                continue
            if self.options.short and not harm.is_quick and not self.options.only:
                continue
            if harm.hindrance():
                self.impossible[harm.name] = harm.hindrance()
            else:
                chosen.append(harm)
        until = self.began + self.options.seconds
        is_first = True
        while chosen and (is_first or time.monotonic() < until):
            for harm in self.random.sample(chosen, len(chosen)):
                if is_first or time.monotonic() < until:
                    yield harm
            is_first = False

    def _do(self, harm):
        row = self.rows.setdefault(harm.name, Row())
        number = len(self.watch.lives)
        before = self.clients.tell()
        self.longest_ms = 0
        began, time_of_day = time.monotonic(), time.time()
        seconds = harm.seconds[0] if self.options.short else self.random.uniform(*harm.seconds)
        print(f"[{began - self.began:6.1f} s] {harm.name}", flush=True)
        harm.begin(self)
        if harm.ends == "must" and not isinstance(harm, harms.Frozen):
            self._wait(END, lambda: len(self.watch.lives) > number and self.watch.is_current(), f"{harm.name}: no new life")
        else:
            time.sleep(max(0.0, began + seconds - time.monotonic()))
        self.lasted = time.monotonic() - began
        harm.end(self)
        lifted = time.monotonic()
        told, answers = self.clients.tell(), [0] * CLIENTS
        self.longest_ms = max(told["longest_ms"])

        def is_well():
            nonlocal told
            told = self.clients.tell()
            self.longest_ms = max(self.longest_ms, *told["longest_ms"])
            for client, count in enumerate(told["answers"]):
                answers[client] += count
            has_ended = harm.ends != "must" or len(self.watch.lives) > number
            return all(answers) and has_ended and self.watch.is_current()

        if self._wait(RECOVERY, is_well, f"{harm.name}: not every client had an answer again"):
            row.recovery_ms = max(row.recovery_ms, (time.monotonic() - lifted) * 1000)
        row.times += 1
        row.longest_ms = max(row.longest_ms, self.longest_ms)
        row.cut_off += told["interrupted"] - before["interrupted"]
        row.refused += told["unable"] - before["unable"]
        doubt = harm.doubt(self, before, told)
        if doubt:
            self.problems.append(f"{harm.name}: it had no effect: {doubt}")
        self.problems += [f"{harm.name}: {problem}" for problem in judge.of_calls(before, told, harm)]
        self._judge_ends(harm, row, time_of_day)
        self._judge_promises(told)

    def _pause(self, seconds):
        """Nothing may happen; what the process holds is counted."""
        time.sleep(0.3)  # what was asked for when there was a want of something
        before = self.clients.tell()
        self._judge_ends(None, None, time.time())
        pid = self.pid()
        began = time.monotonic()
        held = []
        while time.monotonic() < began + seconds:
            sample = self._sample(pid)
            if sample:
                held.append(sample)
            time.sleep(0.1)
        told = self.clients.tell()
        self.problems += [f"while nothing was done to it: {problem}" for problem in judge.of_calls(before, told, None)]
        if self._wait(RECOVERY, self.watch.is_current, "no life to ask"):
            self._judge_ends(None, None, time.time())
        self._judge_promises(told)
        if len(held) >= 3:
            self.samples += held
            self.pauses.append({key: report.level(held, key) for key in MORE_AT_REST})

    def _sample(self, pid):
        """As report.py takes it; None when the process is not there."""
        sample = {"seconds": time.monotonic() - self.began, "life": len(self.watch.lives)}
        try:
            with open(f"/proc/{pid}/smaps_rollup") as file:
                sample["anon_kib"] = next(int(line.split()[1]) for line in file if line.startswith("Anonymous:"))
            with open(f"/proc/{pid}/status") as file:
                sample["threads"] = next(int(line.split()[1]) for line in file if line.startswith("Threads:"))
            sample["descriptors"] = len(os.listdir(f"/proc/{pid}/fd"))
        except (OSError, StopIteration):
            return None
        return sample

    def _wait(self, seconds, condition, complaint):
        until = time.monotonic() + seconds
        while not condition():
            if time.monotonic() >= until:
                self.problems.append(f"{complaint} within {seconds} s")
                return False
            time.sleep(0.1)
        return True

    # What is in order.

    def _judge_ends(self, harm, row, began):
        lives = self.watch.lives
        for number in range(self.judged_lives, len(lives)):
            former, life = lives[number - 1], lives[number]
            found = judge.of_end(former, life, self.service.systemds_view(former.invocation), harm, began)
            self.problems += [f"{harm.name if harm else 'a pause'}: {problem}" for problem in found]
            if row:
                row.ends += 1
                row.explained += 0 if found else 1
                row.kinds[life.kind] += 1
        self.judged_lives = max(self.judged_lives, len(lives))

    def _judge_promises(self, answered):
        """`answered`: the clients' figures from before the files are read."""
        contents = []
        for client in range(CLIENTS):
            try:
                with open(self.box.path(f"{STATE}/kept/{client}")) as file:
                    contents.append(file.read())
            except FileNotFoundError:
                contents.append(None)
        with open(self.box.path(f"{STATE}/settings.ini")) as file:
            settings = judge.of_settings(file.read())
        asked = self.clients.tell()["asked"] if self.clients.process.poll() is None else answered["asked"]
        found = [judge.of_kept(client, contents[client], answered["answered"][client], asked[client])
                 for client in range(CLIENTS)]
        self.problems += [problem for problem in found + [settings] if problem]

    def _judge_growth(self):
        for key, allowed in MORE_AT_REST.items():
            first, last = self.pauses[0][key], self.pauses[-1][key]
            if last - first > allowed:
                self.problems.append(f"{report.NAMES[key]} at rest: {first} in the first pause, {last} in the last one")
        judged = report.growth(self.samples, set())
        for life, key, first, second, limit in judged:
            if second - first > limit:
                self.problems.append(f"life {life}: {report.NAMES[key]} grew from {first} to {second}, more than {limit}")
        entries = sum(len(files) + len(folders) for _, folders, files in os.walk(self.box.path(STATE)))
        if entries > 60:
            self.problems.append(f"{entries} files and folders are left in the state folder")

    def table(self):
        lines = ["| harm | times | ends | explained | said to be | longest without answer s | all answered again after s | "
                 "calls cut off | jobs refused |", "|" + "---|" * 9]
        for name, row in sorted(self.rows.items()):
            kinds = ", ".join(f"{kind} {count}" for kind, count in sorted(row.kinds.items())) or "-"
            lines.append(f"| {name} | {row.times} | {row.ends} | {row.explained} | {kinds} | {row.longest_ms / 1000:.1f} | "
                         f"{row.recovery_ms / 1000:.1f} | {row.cut_off} | {row.refused} |")
        rows = self.rows.values()
        lines.append(f"| all | {sum(row.times for row in rows)} | {sum(row.ends for row in rows)} | "
                     f"{sum(row.explained for row in rows)} | | {max((row.longest_ms for row in rows), default=0) / 1000:.1f} | "
                     f"{max((row.recovery_ms for row in rows), default=0) / 1000:.1f} | {sum(row.cut_off for row in rows)} | "
                     f"{sum(row.refused for row in rows)} |")
        lines += [f"not possible here: {name}: {why}" for name, why in self.impossible.items()]
        return lines


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("output")
    parser.add_argument("seconds", type=int)
    parser.add_argument("seed", type=int)
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--only", default="")
    options = parser.parse_args()
    run = Run(options)
    print(f"load average: {open('/proc/loadavg').read().rsplit(' ', 2)[0]}, {os.cpu_count()} processors")
    try:
        told = run.go()
    except (RuntimeError, OSError, ValueError, KeyError, subprocess.SubprocessError) as failure:
        run.problems.append(f"the run came to an end: {type(failure).__name__}: {failure}")
        told = None
    lines = run.table()
    if run.pauses:
        lines += ["", "At rest, in the first pause and in the last one: " + "; ".join(
            f"{report.NAMES[key]} {run.pauses[0][key]:g}, {run.pauses[-1][key]:g}" for key in MORE_AT_REST)]
    if told:
        seconds = time.monotonic() - run.began
        lines.append(f"{told['calls']} calls in {seconds:.0f} s: {told['replies']} answered, {told['interrupted']} cut off by an "
                     f"end, {told['lost']} lost, {told['errors']} failed, {told['wrong']} answered wrongly; {told['unable']} "
                     f"of the answers refused a job; {told['signals']} signals, {told['missed']} missed; "
                     f"{sum(told['answered'])} numbers kept by {len(told['answered'])} clients")
        lines.append(f"seed {options.seed}; load average at the end: {open('/proc/loadavg').read().rsplit(' ', 2)[0]}")
    print("\n".join(lines))
    with open(os.path.join(options.output, "table.md"), "w") as file:
        file.write("\n".join(lines) + "\n")
    with open(os.path.join(options.output, "lives.json"), "w") as file:
        json.dump([vars(life) for life in run.watch.lives], file, indent=1)
    if run.samples:
        with open(os.path.join(options.output, "samples.csv"), "w", newline="") as file:
            writer = csv.DictWriter(file, run.samples[0].keys())
            writer.writeheader()
            writer.writerows(run.samples)
    for problem in run.problems:
        print(f"PROBLEM: {problem}")
    print(f"{len(run.problems)} problems" if run.problems else "every end is explained, and nothing was lost")
    return 1 if run.problems else 0


if __name__ == "__main__":
    sys.exit(main())
