#!/usr/bin/env python3
"""Says what came of a soak: a table and a verdict on standard output, and a plot.

   report.py FOLDER [--without-memory]      the supervisor's output folder; soak.svg and table.md are written there
Exit status 1 when something was complained about or grew."""

import csv
import os
import statistics
import sys

STEP = 1.05  # of the latency classes, as in the supervisor
WARM_UP_SECONDS = 60.0
ROWS = 15
PLOT_POINTS = 180

# What is allowed between the first and the second half of a life after its warm-up: anonymous memory by its median, as
# the allocator breathes; descriptors and threads by their minimum, the resting level, as jobs come and go.
LONG_LIMITS = {"anon_kib": 256, "descriptors": 1, "threads": 1}
# A life too short for a whole warm-up is still filling its thread and allocator caches.
SHORT_LIMITS = {"anon_kib": 2048, "descriptors": 6, "threads": 3}
NAMES = {"anon_kib": "anonymous memory (KiB, median)", "descriptors": "descriptors (minimum)",
         "threads": "threads (minimum)"}


def read(path):
    with open(path, newline="") as file:
        rows = list(csv.DictReader(file))
    for row in rows:
        for key, value in row.items():
            if key not in ("latencies", "ended_by"):
                row[key] = float(value) if "." in value or "e" in value else int(value)
    return rows


def classes(samples):
    counts = {}
    for sample in samples:
        for pair in sample["latencies"].split():
            index, count = map(int, pair.split(":"))
            counts[index] = counts.get(index, 0) + count
    return counts


def percentile(counts, share):
    """In milliseconds; the upper end of the class that holds it."""
    wanted = share * sum(counts.values())
    seen = 0
    for index in sorted(counts):
        seen += counts[index]
        if seen >= wanted:
            return STEP ** (index + 1) / 1000
    return 0.0


def level(samples, key):
    values = [sample[key] for sample in samples]
    return statistics.median(values) if key == "anon_kib" else min(values)


def growth(samples, unjudged):
    """(life, key, from, to, limit) for every life that can be judged."""
    found = []
    for life in sorted({sample["life"] for sample in samples}):
        own = [sample for sample in samples if sample["life"] == life]
        begin, end = own[0]["seconds"], own[-1]["seconds"]
        is_long = end - begin >= 2 * WARM_UP_SECONDS * 0.95
        warm = begin + (WARM_UP_SECONDS if is_long else (end - begin) / 3)
        middle = (warm + end) / 2
        first = [sample for sample in own if warm <= sample["seconds"] < middle]
        second = [sample for sample in own if sample["seconds"] >= middle]
        if len(first) < 3 or len(second) < 3:
            continue
        for key, limit in (LONG_LIMITS if is_long else SHORT_LIMITS).items():
            if key in unjudged:
                continue
            found.append((life, key, level(first, key), level(second, key), limit))
    return found


def over_lives(judged):
    """The same from the first to the last of the lives that could warm up, or of all when none could."""
    long = [row for row in judged if row[4] == LONG_LIMITS[row[1]]] or judged
    for key in LONG_LIMITS:
        own = [row for row in long if row[1] == key]
        if len(own) > 1:
            yield own[-1][0], key, own[0][3], own[-1][3], own[0][4]


def differences(samples, before, key):
    return samples[-1][key] - (before[key] if before else 0)


def span(values):
    low, high = min(values), max(values)
    return f"{low}" if low == high else f"{low} to {high}"


def table(samples):
    width = samples[-1]["seconds"] / ROWS
    unit, scale = ("min", 60.0) if samples[-1]["seconds"] > 120 else ("s", 1.0)
    lines = [f"| {unit} | life | calls | a second | interrupted | lost, errors, wrong | signals (missed) | p50 / p99 ms | "
             "heap and stacks MiB | resident MiB | descriptors | threads |", "|" + "---|" * 12]
    before = None
    for row in range(ROWS):
        own = [sample for sample in samples if row * width <= sample["seconds"] < (row + 1) * width or
               (row == ROWS - 1 and sample is samples[-1])]
        if not own:
            continue
        calls = differences(own, before, "calls")
        seconds = own[-1]["seconds"] - (before["seconds"] if before else 0)
        counts = classes(own)
        bad = sum(differences(own, before, key) for key in ("lost", "errors", "wrong"))
        lines.append(
            f"| {row * width / scale:.1f} to {(row + 1) * width / scale:.1f} | {span([s['life'] for s in own])} | {calls} | "
            f"{calls / seconds:.0f} | {differences(own, before, 'interrupted')} | {bad} | "
            f"{differences(own, before, 'signals')} ({differences(own, before, 'missed')}) | "
            f"{percentile(counts, 0.5):.2f} / {percentile(counts, 0.99):.1f} | "
            f"{statistics.median(s['anon_kib'] for s in own) / 1024:.2f} | "
            f"{statistics.median(s['rss_kib'] for s in own) / 1024:.2f} | {span([s['descriptors'] for s in own])} | "
            f"{span([s['threads'] for s in own])} |")
        before = own[-1]
    return lines


def lives_table(lives):
    lines = ["| life | seconds | ready after ms | ended by | end took ms | watchdog fed | longest gap ms | programs | "
             "archives | settings read | folder events / restarts | timer expiries | its own client: calls / signals / changes |",
             "|" + "---|" * 13]
    for life in lives:
        lines.append(
            f"| {life['life']} | {life['end'] - life['begin']:.0f} | {life['start_ms']} | {life['ended_by']} | "
            f"{life['end_ms']} | {life['feedings']} | {life['longest_gap_ms']} | {life['Commands']} | {life['Archives']} | "
            f"{life['Reloads']} | {life['FolderEvents']} / {life['FolderRestarts']} | "
            f"{life['TimerTicks'] + life['OnceTicks'] + life['ShortTicks']} | "
            f"{life['ClientCalls']} / {life['ClientSignals']} / {life['ClientChanges']} |")
    return lines


def nice(value, steps):
    """The least round number from `value` on; `steps` are what is taken as round, from 1 to 10."""
    if value <= 0:
        return 1.0
    magnitude = 1.0
    while magnitude * 10 <= value:
        magnitude *= 10
    while magnitude > value:
        magnitude /= 10
    return next(magnitude * step for step in steps if magnitude * step >= value)


class Plot:
    """Panels one above the other over one time axis, written by hand: no library is needed to look at a soak."""
    WIDTH, LEFT, RIGHT, TOP, PANEL, GAP = 900, 70, 150, 58, 130, 44
    COLOURS = ["#1f5fa8", "#c2571a", "#3b8132"]

    def __init__(self, title, seconds, lives):
        self.seconds = seconds
        self.unit, self.scale = ("minutes", 60.0) if seconds > 120 else ("seconds", 1.0)
        self.lives = lives
        self.panels = 0
        self.parts = [f'<text x="{self.LEFT}" y="20" font-size="15" font-weight="bold">{title}</text>']

    def x(self, seconds):
        return self.LEFT + (self.WIDTH - self.LEFT - self.RIGHT) * seconds / self.seconds

    def panel(self, caption, series):
        """series: (name, [(seconds, value)])"""
        top = self.TOP + self.panels * (self.PANEL + self.GAP)
        bottom = top + self.PANEL
        self.panels += 1
        highest = nice(max(value for _, points in series for _, value in points), (1, 1.2, 1.6, 2, 2.4, 3.2, 4, 6, 8, 10))
        right = self.WIDTH - self.RIGHT
        add = self.parts.append
        add(f'<text x="{self.LEFT}" y="{top - 6}" font-size="12">{caption}</text>')
        for step in range(5):
            y = bottom - self.PANEL * step / 4
            add(f'<line x1="{self.LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="#dddddd"/>')
            add(f'<text x="{self.LEFT - 6}" y="{y + 4:.1f}" font-size="11" text-anchor="end">{highest * step / 4:g}</text>')
        for life in self.lives[:-1]:
            x = self.x(life["end"])
            dashes = "4 3" if life["ended_by"] == "bus killed" else "1 3"
            add(f'<line x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{bottom}" stroke="#999999" stroke-dasharray="{dashes}"/>')
        for index, (name, points) in enumerate(series):
            colour = self.COLOURS[index]
            path = " ".join(f"{self.x(t):.1f},{bottom - self.PANEL * value / highest:.1f}" for t, value in points)
            add(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="1.3"/>')
            add(f'<text x="{right + 8}" y="{top + 14 + 16 * index}" font-size="12" fill="{colour}">{name}</text>')
        self.ticks(bottom)

    def ticks(self, bottom):
        total = self.seconds / self.scale
        step = nice(total / 12, (1, 2, 5, 10))
        tick = 0.0
        while tick <= total * 1.001:
            x = self.x(tick * self.scale)
            self.parts.append(f'<line x1="{x:.1f}" y1="{bottom}" x2="{x:.1f}" y2="{bottom + 4}" stroke="black"/>')
            self.parts.append(f'<text x="{x:.1f}" y="{bottom + 16}" font-size="11" text-anchor="middle">{tick:g}</text>')
            tick += step
        self.parts.append(f'<text x="{self.WIDTH - self.RIGHT + 8}" y="{bottom + 16}" font-size="11">{self.unit}</text>')

    def write(self, path):
        height = self.TOP + self.panels * (self.PANEL + self.GAP) + 20
        self.parts.append(f'<text x="{self.LEFT}" y="{height - 8}" font-size="11" fill="#666666">dashed: the bus was killed; '
                          'dotted: the extension was told to stop; each time it was started again</text>')
        with open(path, "w") as file:
            file.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.WIDTH} {height}" '
                       f'font-family="sans-serif"><rect width="100%" height="100%" fill="white"/>\n')
            file.write("\n".join(self.parts))
            file.write("\n</svg>\n")


def plot(samples, lives, path):
    seconds = samples[-1]["seconds"]
    groups = []
    for sample in samples:
        slot = (int(sample["seconds"] / seconds * PLOT_POINTS), sample["life"])
        if not groups or groups[-1][0] != slot:
            groups.append((slot, []))
        groups[-1][1].append(sample)
    groups = [own for _, own in groups]
    counts = [classes(own) for own in groups]
    middle = [own[len(own) // 2]["seconds"] for own in groups]

    def over_time(value):
        return [(t, value(own)) for t, own in zip(middle, groups)]

    picture = Plot(f"Soak: {samples[-1]['calls']} calls of ten clients", seconds, lives)
    picture.panel("latency of a call, ms", [
        ("p99", [(t, percentile(c, 0.99)) for t, c in zip(middle, counts) if c]),
        ("p50", [(t, percentile(c, 0.5)) for t, c in zip(middle, counts) if c])])
    picture.panel("memory, MiB", [
        ("resident", over_time(lambda own: statistics.median(s["rss_kib"] for s in own) / 1024)),
        ("heap and stacks", over_time(lambda own: statistics.median(s["anon_kib"] for s in own) / 1024))])
    picture.panel("descriptors", [("most", over_time(lambda own: max(s["descriptors"] for s in own))),
                                  ("least", over_time(lambda own: min(s["descriptors"] for s in own)))])
    picture.panel("threads", [("most", over_time(lambda own: max(s["threads"] for s in own))),
                              ("least", over_time(lambda own: min(s["threads"] for s in own)))])
    picture.write(path)


def logged_errors(folder):
    """What is no fault: a job that the stop signal brings out of its system call says so, which is how a busy pool is
    stopped; a timer whose callbacks, which write a file, wait for a disk or a processor for two seconds says that it
    drops expiries; and a handler that runs just when the bus is killed says that its reply was not sent. One that is
    lost otherwise is missed by the client that waits for it."""
    expected = ("Interrupted system call", "calls are running, expiries are dropped until one returns",
                "the reply was not sent (-104, Connection reset by peer)", "the reply was not sent (-32, Broken pipe)",
                "the reply was not sent (-107, Transport endpoint is not connected)")
    with open(os.path.join(folder, "extension.log"), errors="replace") as file:
        return [line for line in file.read().splitlines() if not any(text in line for text in expected)][:10]


def main():
    folder = sys.argv[1]
    unjudged = {"anon_kib"} if "--without-memory" in sys.argv[2:] else set()
    samples = read(os.path.join(folder, "samples.csv"))
    lives = read(os.path.join(folder, "lives.csv"))
    totals = read(os.path.join(folder, "totals.csv"))[0]
    with open(os.path.join(folder, "complaints.txt")) as file:
        problems = file.read().splitlines()
    if len(samples) < 10 or totals["calls"] == 0 or not lives:
        problems.append("too little happened to judge anything")
    judged = growth(samples, unjudged) if samples else []
    for life, key, first, last, limit in over_lives(judged):
        if last - first > limit:
            problems.append(f"up to life {life}: {NAMES[key]} grew from life to life, from {first} to {last}, "
                            f"more than {limit}")
    problems += [f"the extension logged an error: {line}" for line in logged_errors(folder)]
    if not judged:
        problems.append("no life was long enough to be judged")
    for life, key, first, second, limit in judged:
        if second - first > limit:
            problems.append(f"life {life}: {NAMES[key]} grew from {first} to {second}, more than {limit}")

    if samples and lives:
        plot(samples, lives, os.path.join(folder, "soak.svg"))
        lines = table(samples) + [""] + lives_table(lives)
        lines += ["", "Growth within each life, between the halves of its time after the warm-up:", "",
                  "| life | " + " | ".join(NAMES[key] for key in LONG_LIMITS if key not in unjudged) + " |",
                  "|---" * (1 + len(LONG_LIMITS.keys() - unjudged)) + "|"]
        for life in sorted({row[0] for row in judged}):
            cells = [f"{first:g} to {second:g} (allowed {limit})" for own, _, first, second, limit in judged if own == life]
            lines.append(f"| {life} | " + " | ".join(cells) + " |")
        with open(os.path.join(folder, "table.md"), "w") as file:
            file.write("\n".join(lines) + "\n")
        print("\n".join(lines))
    everything = percentile(classes(samples), 0.99)
    print(f"\n{totals['calls']} calls: {totals['replies']} answered, {totals['interrupted']} interrupted by a restart, "
          f"{totals['lost']} lost, {totals['errors']} failed, {totals['wrong']} answered wrongly; "
          f"{totals['signals']} signals, {totals['missed']} missed; p99 {everything:.1f} ms")
    for problem in problems:
        print(f"PROBLEM: {problem}")
    print("flat, and nothing lost" if not problems else f"{len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
