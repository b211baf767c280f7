#!/usr/bin/env python3
"""Runs the benchmarks that are built and writes docs/performance.md and its plots; called by scripts/run-benchmarks.

Programs on Google Benchmark are described in rows.py. A program called *_comparison is run with the path of a file,
and writes there, as JSON,
    {"name": "...", "title": "...", "load": 0.3, "rows": [{"what": "...", "unit": "us", "target": "...",
     "values": {"tern": 1.0, "sd-bus": 0.9}, "against": "sd-bus", "limit": 1.03}, ...]}
"against" may be null, where the limit is for our value itself, or a list, of which the best counts; "ahead_of" lists those
that ours must beat besides. "ratios", {"sd-bus": 1.1}, are taken from "values" where the program does not give them. Units
that end with "/s" count more as better. "growth", [{"what": "...", "unit": "us", "points": {"10": 1.0, "100": 10.0},
"limit": 1.25}], is optional, and so is "note", a sentence below the table.
"""

import argparse
import json
import math
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

import plots
from rows import OURS, SECTIONS

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build/release/benchmarks"
RAW = ROOT / "build/benchmarks"
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def load_average():
    return os.getloadavg()[0]


def run_program(program, arguments, name, environment):
    """Runs it with its output in a file of build/benchmarks, and reports that output if it fails."""
    log = RAW / f"{name}.log"
    with open(log, "wb") as output:
        result = subprocess.run([program, *arguments], stdout=output, stderr=output, env=environment, check=False)
    if result.returncode != 0:
        sys.exit(f"{program} failed with {result.returncode}; its output is in {log}")


def median_of(runs, name, metric, unit):
    """The median over the repetitions of one run of the program; None when there is no such benchmark."""
    values = []
    for run in runs:
        if run["name"] != name or run.get("run_type") == "aggregate":
            continue
        if run.get("error_occurred"):
            sys.exit(f"{name}: {run['error_message']}")
        value = run[metric]
        if metric in ("real_time", "cpu_time"):
            value *= SECONDS[run["time_unit"]] / SECONDS[unit]
        values.append(value)
    return statistics.median(values) if values else None


def best_of(values, sides, more):
    there = [values[side] for side in sides if values.get(side) is not None]
    if not there:
        return None
    return max(there) if more else min(there)


def ratio_of(values, against, more):
    """Ours over the other, turned where more is better, so that less than 1 is always good."""
    other = best_of(values, [against] if isinstance(against, str) else against, more)
    ours = values.get(OURS)
    if ours is None or not other or (more and not ours):
        return None
    return other / ours if more else ours / other


def is_behind(rounds, side, more):
    ratios = [ratio for values in rounds if (ratio := ratio_of(values, side, more)) is not None]
    return bool(ratios) and round(statistics.median(ratios), 2) > 1


def judge(row, rounds):
    """Adds ratio and verdict. The ratio is the median of the rounds', as their sides ran under the same load."""
    row["ratio"] = None
    row["met"] = None
    if row.get("against"):
        more = row["unit"].endswith("/s")
        ratios = [ratio_of(values, row["against"], more) for values in rounds]
        ratios = [ratio for ratio in ratios if ratio is not None]
        if ratios:
            row["ratio"] = statistics.median(ratios)
            if row.get("limit") is not None:
                row["met"] = round(row["ratio"], 2) <= row["limit"]
        row["behind"] = [side for side in row.get("ahead_of") or () if is_behind(rounds, side, more)]
        if row["behind"]:
            row["met"] = False
    elif row.get("most") is not None and row["values"].get(OURS) is not None:
        row["met"] = row["values"][OURS] <= row["most"]
    return row


def measure_section(section, options, environment):
    quick = options.quick
    rounds = 1 if quick else options.rounds or section.rounds
    environment = dict(environment)
    scale = options.scale if options.scale is not None else section.scale
    environment["TERN_BENCHMARK_SCALE"] = str(min(scale, 0.02) if quick else scale)
    results = []
    loads = []
    for number in range(rounds):
        path = RAW / f"{section.name}-{number + 1}.json"
        loads.append(load_average())
        run_program(
            PROGRAMS / section.program,
            [
                f"--benchmark_min_time={min(section.min_time, 0.02) if quick else section.min_time}",
                f"--benchmark_repetitions={1 if quick else section.repetitions}",
                "--benchmark_enable_random_interleaving=true",
                f"--benchmark_out={path}",
                "--benchmark_out_format=json",
            ],
            section.name,
            environment,
        )
        results.append(json.loads(path.read_text())["benchmarks"])
    rows = []
    for row in section.rows:
        unit = row.unit or "ns"
        by_round = []
        for runs in results:
            values = {side: median_of(runs, name, row.metric, unit) for side, name in row.names.items()}
            by_round.append({side: value / row.per for side, value in values.items() if value is not None})
        if OURS not in by_round[0]:
            sys.exit(f"{section.name}: no benchmark '{row.names[OURS]}'")
        values = {
            side: statistics.median(values[side] for values in by_round) for side in row.names if side in by_round[0]
        }
        rows.append(
            judge(
                {
                    "what": row.what,
                    "unit": row.unit,
                    "values": values,
                    "target": row.target,
                    "against": row.against,
                    "limit": row.limit,
                    "ahead_of": row.ahead_of,
                    "most": row.most,
                },
                by_round,
            )
        )
    growth = []
    for item in section.growth:
        points = {}
        for amount, name in item.names.items():
            points[amount] = statistics.median(median_of(runs, name, item.metric, item.unit) for runs in results)
        growth.append({"what": item.what, "unit": item.unit, "points": points, "limit": item.limit})
    note = f"{rounds} rounds, load {min(loads):.1f} to {max(loads):.1f}." if rounds > 1 else f"One round, load {loads[0]:.1f}."
    if section.scale_note and min(scale, 1) < 1:
        note += f" The amount was {min(scale, 1):g} of what the rows say."
    return {"name": section.name, "title": section.title, "rows": rows, "growth": growth, "note": note}


def measure_comparison(program, options, environment):
    name = program.name.removesuffix("_comparison")
    path = RAW / f"{name}.json"
    environment = dict(environment)
    if options.quick:
        environment["TERN_BENCHMARK_QUICK"] = "1"
        environment["TERN_BENCHMARK_SCALE"] = "0.02"
    run_program(program, [path], name, environment)
    result = json.loads(path.read_text())
    for row in result["rows"]:
        row["values"] = {side: value for side, value in row["values"].items() if value is not None}
        if not row.get("against"):
            row["most"] = row.get("limit")
        judge(row, [row["values"]])
        # Those of the program are of the rounds, and so the better ones.
        ratios = row.get("ratios")
        if ratios:
            row["behind"] = [side for side in row.get("ahead_of") or () if round(ratios.get(side) or 0, 2) > 1]
            if isinstance(row.get("against"), str):
                row["ratio"] = ratios.get(row["against"])
                if row["ratio"] is not None and row.get("limit") is not None:
                    row["met"] = round(row["ratio"], 2) <= row["limit"] and not row["behind"]
    result["note"] = " ".join([f"Load {result.get('load', load_average()):.1f}.", result.get("note", "")]).strip()
    result.setdefault("growth", [])
    return result


# ---- writing


def number(value):
    """Three digits that count."""
    if value is None:
        return ""
    if value == round(value):
        return f"{round(value):,}"
    if abs(value) < 0.001:
        return f"{value:.1g}"
    digits = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{digits}f}"


def exponent_of(points):
    """Slope of the line through the logarithms, by least squares."""
    xs = [math.log(float(amount)) for amount in points]
    ys = [math.log(value) for value in points.values()]
    x_mean, y_mean = statistics.mean(xs), statistics.mean(ys)
    return sum((x - x_mean) * (y - y_mean) for x, y in zip(xs, ys)) / sum((x - x_mean) ** 2 for x in xs)


def table(header, lines):
    return "\n".join(
        ["| " + " | ".join(header) + " |", "|" + "---|" * len(header), *("| " + " | ".join(line) + " |" for line in lines)]
    )


def verdict(met, behind=()):
    if met is None:
        return ""
    return "met" if met else " ".join(["**missed**", *(f"(behind {side})" for side in behind)])


def section_text(result):
    """The generated part of a section."""
    parts = []
    if result["rows"]:
        sides = [OURS]
        for row in result["rows"]:
            sides += [side for side in row["values"] if side not in sides]
        lines = []
        for row in result["rows"]:
            unit = f", {row['unit']}" if row["unit"] else ""
            ratio = f"{row['ratio']:.2f}" if row["ratio"] is not None else ""
            lines.append(
                [f"{row['what']}{unit}"]
                + [number(row["values"].get(side)) for side in sides]
                + [ratio, row.get("target") or "", verdict(row["met"], row.get("behind") or ())]
            )
        parts.append(table(["what", *("ours" if side == OURS else side for side in sides), "ratio", "target", ""], lines))
    if result["growth"]:
        lines = []
        for item in result["growth"]:
            exponent = exponent_of(item["points"])
            limit = item.get("limit")
            lines.append(
                [
                    f"{item['what']}, {item['unit']}",
                    ", ".join(f"{int(amount):,}: {number(value)}" for amount, value in item["points"].items()),
                    f"{exponent:.2f}",
                    verdict(None if limit is None else round(exponent, 2) <= limit),
                ]
            )
        parts.append(table(["how it grows", "amount: cost", "exponent", ""], lines))
    parts.append(result["note"])
    return "\n\n".join(parts)


def version(command, pattern=r"\d+(\.\d+)+"):
    try:
        output = subprocess.run(command, capture_output=True, text=True, check=False).stdout
    except OSError:
        return None
    found = re.search(pattern, output)
    return found.group(0) if found else None


def machine_text():
    compiler = version(["c++", "--version"])
    libraries = [f"g++ {compiler}"] if compiler else []
    libraries.append(" ".join(platform.libc_ver()))
    packages = {
        "libsystemd": "libsystemd-dev",
        "libzip": "libzip-dev",
        "spdlog": "libspdlog-dev",
        "Boost": "libboost-dev",
        "oneTBB": "libtbb-dev",
        "GLib": "libglib2.0-dev",
        "sdbus-c++": "libsdbus-c++-dev",
        "7z": "p7zip-full",
    }
    for name, package in packages.items():
        found = version(["dpkg-query", "-W", "-f=${Version}", package])
        if found:
            libraries.append(f"{name} {found}")
    return (
        f"Measured on {os.cpu_count()} cores ({platform.machine()}), Linux {platform.release().split('-')[0]}, "
        f"preset `release`: {', '.join(libraries)}."
    )


def replace_part(document, name, text, title=None):
    """Puts the text between the part's markers; a part that has none yet comes at the end, under its title."""
    begin, end = f"<!-- generated: {name} -->", f"<!-- end: {name} -->"
    block = f"{begin}\n{text}\n{end}"
    if begin in document:
        before, rest = document.split(begin, 1)
        return before + block + rest.split(end, 1)[1]
    heading = f"## {title}\n\n" if title else ""
    return f"{document.rstrip()}\n\n{heading}{block}\n"


def write_document(results, folder):
    path = folder / "performance.md"
    source = path if path.exists() else ROOT / "docs/performance.md"
    document = source.read_text() if source.exists() else "# Performance\n"
    document = replace_part(document, "machine", machine_text())
    for result in results:
        text = section_text(result)
        for suffix, plot in (("", plots.ratios(result, OURS)), ("-growth", plots.growth(result))):
            if plot:
                name = f"performance-{result['name']}{suffix}.svg"
                (folder / name).write_text(plot)
                text += f"\n\n![{result['title']}]({name})"
        document = replace_part(document, result["name"], text, result["title"])
    path.write_text(document)


def print_result(result):
    print(f"\n## {result['title']}\n\n{section_text(result)}", flush=True)


def main():
    parser = argparse.ArgumentParser(description="Runs the benchmarks and writes docs/performance.md.")
    parser.add_argument("names", nargs="*", metavar="NAME", help="only these sections (see --list)")
    parser.add_argument("--list", action="store_true", help="print the names of all sections")
    parser.add_argument(
        "--quick", action="store_true", help="one short round, to see that all runs; the document is not touched"
    )
    parser.add_argument("--scale", type=float, help="part of the full amounts of files and archives, 0 to 1")
    parser.add_argument("--rounds", type=int, help="runs of each Google Benchmark program, 3 to 7 unless given")
    options = parser.parse_args()

    comparisons = {path.name.removesuffix("_comparison"): path for path in sorted(PROGRAMS.glob("*/*_comparison"))}
    sections = {section.name: section for section in SECTIONS}
    known = [*sections, *comparisons]
    if options.list:
        print("\n".join(known))
        return
    for name in options.names:
        if name not in known:
            parser.error(f"there is no section '{name}'; there are {', '.join(known)}")
    RAW.mkdir(parents=True, exist_ok=True)
    environment = dict(os.environ)
    # Messages would be part of what is measured; in memory, so that the disk is not.
    environment["TERN_LOG_LEVEL"] = "3"
    environment.setdefault("TMPDIR", "/dev/shm")
    results = []
    for name in options.names or known:
        if name in sections:
            results.append(measure_section(sections[name], options, environment))
        else:
            results.append(measure_comparison(comparisons[name], options, environment))
        print_result(results[-1])
        # At once, so that a run that is cut short has told what it had.
        write_document(results[-1:], RAW if options.quick else ROOT / "docs")
    missed = [f"{result['name']}: {row['what']}" for result in results for row in result["rows"] if row["met"] is False]
    print(f"\n{len(missed)} rows miss their target" + "".join(f"\n  {row}" for row in missed))


if __name__ == "__main__":
    main()
