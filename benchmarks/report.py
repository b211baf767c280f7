#!/usr/bin/env python3
"""Runs the benchmarks that are built and writes docs/performance.md and its plots; called by scripts/run-benchmarks.

Programs on Google Benchmark are described in rows.py. A program called *_comparison is run with the path of a file,
and writes there, as JSON,
    {"name": "...", "title": "...", "load": 0.3, "rows": [{"what": "...", "unit": "us", "target": "...",
     "values": {"tern": 1.0, "sd-bus": 0.9}, "against": "sd-bus", "limit": 1.03}, ...]}
"against" may be null, where the limit is for our value itself, or a list, of which the best counts; "ahead_of" lists those
that ours must beat besides, which is a criterion, and so a line of the table, of its own. "ratios", {"sd-bus": 1.1}, are
taken from "values" where the program does not give them. Units that end with "/s" count more as better. "growth", [{"what": "...", "unit": "us", "points": {"10": 1.0, "100": 10.0},
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
from rows import AHEAD, OURS, SECTIONS

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build/release/benchmarks"
RAW = ROOT / "build/benchmarks"
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def run_program(program, arguments, log, environment):
    """Runs it with its output in a file, and reports that file if it fails."""
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


def median_ratio(rounds, against, more):
    """Of the rounds' ratios, because the sides of a round ran under the same load; None where there is nothing to compare."""
    ratios = [ratio for values in rounds if (ratio := ratio_of(values, against, more)) is not None]
    return statistics.median(ratios) if ratios else None


def judge(row, rounds, ratios=None):
    """Adds the row's criteria, each with a ratio, a target and a verdict of its own: first the target that the row names,
    which may be none, then being ahead of others besides. A program's own ratios are of its rounds, and so the better
    ones."""
    more = row["unit"].endswith("/s")

    def ratio_to(against):
        if ratios and isinstance(against, str):
            return ratios.get(against)
        return median_ratio(rounds, against, more)

    named = {"sides": list(row["values"]), "ratio": None, "target": row.get("target") or "", "met": None, "behind": []}
    if row.get("against"):
        named["ratio"] = ratio_to(row["against"])
        if named["ratio"] is not None and row.get("limit") is not None:
            named["met"] = round(named["ratio"], 2) <= row["limit"]
    elif row.get("most") is not None and row["values"].get(OURS) is not None:
        named["met"] = row["values"][OURS] <= row["most"]
    row["criteria"] = [named]
    others = {side: ratio for side in row.get("ahead_of") or () if (ratio := ratio_to(side)) is not None}
    if others:
        behind = [side for side, ratio in others.items() if round(ratio, 2) > AHEAD]
        row["criteria"].append(
            {
                "sides": [OURS, *others],
                "ratio": max(others.values()),
                "target": "ahead of " + " and ".join(others),
                "met": not behind,
                "behind": behind if len(others) > 1 else [],
            }
        )
    return row


def raw_folder(options):
    """Those of quick looks are apart, so that they are never taken for results."""
    return RAW / "quick" if options.quick else RAW


def raw_rounds(folder, section):
    """The files of the section's rounds, in their order."""
    numbered = {}
    for path in folder.glob(f"{section.name}-*.json"):
        found = re.fullmatch(re.escape(section.name) + r"-(\d+)\.json", path.name)
        if found:
            numbered[int(found.group(1))] = path
    return [numbered[number] for number in sorted(numbered)]


def raw_comparisons(folder):
    """The files of comparisons, by the sections' names."""
    rounds = {path for section in SECTIONS for path in raw_rounds(folder, section)}
    return {path.stem: path for path in sorted(folder.glob("*.json")) if path not in rounds}


def read_raw(path):
    try:
        return json.loads(path.read_text())
    except (OSError, ValueError) as error:
        sys.exit(f"{path} cannot be read as JSON: {error}")


def run_section(section, options, environment):
    """Leaves a file for each round, and none of an earlier run."""
    quick = options.quick
    folder = raw_folder(options)
    scale = options.scale if options.scale is not None else section.scale
    scale = min(scale, 0.02) if quick else scale
    environment = dict(environment, TERN_BENCHMARK_SCALE=str(scale))
    for path in raw_rounds(folder, section):
        path.unlink()
    for number in range(1 if quick else options.rounds or section.rounds):
        run_program(
            PROGRAMS / section.program,
            [
                f"--benchmark_min_time={min(section.min_time, 0.02) if quick else section.min_time}",
                f"--benchmark_repetitions={1 if quick else section.repetitions}",
                "--benchmark_enable_random_interleaving=true",
                f"--benchmark_context=scale={scale:g}",
                f"--benchmark_out={folder / f'{section.name}-{number + 1}.json'}",
                "--benchmark_out_format=json",
            ],
            folder / f"{section.name}.log",
            environment,
        )


def section_result(section, folder):
    """What the raw files of its rounds say."""
    files = [read_raw(path) for path in raw_rounds(folder, section)]
    results = [file["benchmarks"] for file in files]
    loads = [file["context"]["load_avg"][0] for file in files]
    scale = float(files[0]["context"].get("scale", section.scale))
    rows = []
    for row in section.rows:
        unit = row.unit or "ns"
        by_round = []
        for runs in results:
            values = {side: median_of(runs, name, row.metric, unit) for side, name in row.names.items()}
            by_round.append({side: value / row.per for side, value in values.items() if value is not None})
        if any(OURS not in values for values in by_round):
            sys.exit(f"{section.name}: no benchmark '{row.names[OURS]}'")
        values = {}
        for side in row.names:
            of_side = [values_of_round[side] for values_of_round in by_round if side in values_of_round]
            if of_side:
                values[side] = statistics.median(of_side)
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
            costs = [median_of(runs, name, item.metric, item.unit) for runs in results]
            if None in costs:
                sys.exit(f"{section.name}: no benchmark '{name}'")
            points[amount] = statistics.median(costs)
        growth.append({"what": item.what, "unit": item.unit, "points": points, "limit": item.limit})
    if len(files) > 1:
        note = f"{len(files)} rounds, load {min(loads):.1f} to {max(loads):.1f}."
    else:
        note = f"One round, load {loads[0]:.1f}."
    if section.scale_note and min(scale, 1) < 1:
        note += f" The amount was {min(scale, 1):g} of what the rows say."
    return {"name": section.name, "title": section.title, "rows": rows, "growth": growth, "note": note}


def run_comparison(program, options, environment):
    name = program.name.removesuffix("_comparison")
    environment = dict(environment)
    if options.quick:
        environment["TERN_BENCHMARK_QUICK"] = "1"
        environment["TERN_BENCHMARK_SCALE"] = "0.02"
    folder = raw_folder(options)
    run_program(program, [folder / f"{name}.json"], folder / f"{name}.log", environment)


def comparison_result(path):
    """What the file that the program wrote says."""
    result = read_raw(path)
    for row in result["rows"]:
        row["values"] = {side: value for side, value in row["values"].items() if value is not None}
        if not row.get("against"):
            row["most"] = row.get("limit")
        judge(row, [row["values"]], row.get("ratios"))
    load = f"Load {result['load']:.1f}." if result.get("load") is not None else ""
    result["note"] = f"{load} {result.get('note', '')}".strip()
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
    """Slope of the line through the logarithms, by least squares; None where there is no such line."""
    points = {float(amount): value for amount, value in points.items() if value and value > 0}
    if len(points) < 2:
        return None
    xs = [math.log(amount) for amount in points]
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
    return "met" if met else "**missed**" + (f" (behind {' and '.join(behind)})" if behind else "")


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
            for criterion in row["criteria"]:
                lines.append(
                    [f"{row['what']}{unit}"]
                    + [number(row["values"].get(side)) if side in criterion["sides"] else "" for side in sides]
                    + ["" if criterion["ratio"] is None else f"{criterion['ratio']:.2f}"]
                    + [criterion["target"], verdict(criterion["met"], criterion["behind"])]
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
                    "" if exponent is None else f"{exponent:.2f}",
                    "" if limit is None else f"at most {limit:g}",
                    verdict(None if limit is None or exponent is None else round(exponent, 2) <= limit),
                ]
            )
        parts.append(table(["how it grows", "amount: cost", "exponent", "target", ""], lines))
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


def part_of(document, name):
    """What stands between the part's markers."""
    found = re.search(rf"<!-- generated: {re.escape(name)} -->(.*?)<!-- end: {re.escape(name)} -->", document, re.DOTALL)
    return found.group(1) if found else ""


def plot_names(name):
    """Of the bars and of the lines. A section that is called after growth need not say so again."""
    if name.split("-")[-1] == "growth":
        return f"performance-{name}-ratios.svg", f"performance-{name}.svg"
    return f"performance-{name}.svg", f"performance-{name}-growth.svg"


def write_document(results, folder, machine):
    """Writes the sections' tables and plots into the folder; `machine` is what they were measured on, None to leave
    what the document says of it."""
    path = folder / "performance.md"
    source = path if path.exists() else ROOT / "docs/performance.md"
    document = source.read_text() if source.exists() else "# Performance\n"
    if machine:
        document = replace_part(document, "machine", machine)
    for result in results:
        text = section_text(result)
        drawn = []
        for name, plot in zip(plot_names(result["name"]), (plots.ratios(result, OURS), plots.growth(result))):
            if plot:
                (folder / name).write_text(plot)
                drawn.append(name)
                text += f"\n\n![{result['title']}]({name})"
        for name in re.findall(r"\]\((performance-[^)/]*\.svg)\)", part_of(document, result["name"])):
            if name not in drawn:
                (folder / name).unlink(missing_ok=True)
        document = replace_part(document, result["name"], text, result["title"])
    path.write_text(document)


def print_result(result):
    print(f"\n## {result['title']}\n\n{section_text(result)}", flush=True)


def print_missed(results):
    missed = [
        f"{result['name']}: {row['what']}, {criterion['target']}"
        for result in results
        for row in result["rows"]
        for criterion in row["criteria"]
        if criterion["met"] is False
    ]
    print(f"\n{len(missed)} targets are missed" + "".join(f"\n  {one}" for one in missed))


def redraw(names, folder):
    """Tables and plots from the raw results of earlier runs."""
    comparisons = raw_comparisons(RAW)
    sections = {section.name: section for section in SECTIONS}
    results = []
    for name in names or [*sections, *comparisons]:
        if name in sections and raw_rounds(RAW, sections[name]):
            results.append(section_result(sections[name], RAW))
        elif name in comparisons:
            results.append(comparison_result(comparisons[name]))
        elif names:
            sys.exit(f"there are no raw results of '{name}' in {RAW}")
        else:
            print(f"no raw results of '{name}': this section stays as it is", file=sys.stderr)
    if not results:
        sys.exit(f"there are no raw results in {RAW}")
    for result in results:
        print_result(result)
    machine = RAW / "machine.txt"
    write_document(results, folder, machine.read_text() if machine.exists() else None)
    print_missed(results)


def main():
    parser = argparse.ArgumentParser(description="Runs the benchmarks and writes docs/performance.md.")
    parser.add_argument("names", nargs="*", metavar="NAME", help="only these sections (see --list)")
    parser.add_argument("--list", action="store_true", help="print the names of all sections")
    parser.add_argument(
        "--quick", action="store_true", help="one short round, to see that all runs; the document is not touched"
    )
    parser.add_argument("--scale", type=float, help="part of the full amounts of files and archives, 0 to 1")
    parser.add_argument("--rounds", type=int, help="runs of each Google Benchmark program, 3 to 7 unless given")
    parser.add_argument(
        "--redraw",
        action="store_true",
        help="run nothing: write tables and plots again from the raw results in build/benchmarks",
    )
    options = parser.parse_args()
    if options.redraw:
        if options.list or options.quick or options.scale is not None or options.rounds is not None:
            parser.error("--redraw takes names only: it runs nothing")
        redraw(options.names, ROOT / "docs")
        return

    comparisons = {path.name.removesuffix("_comparison"): path for path in sorted(PROGRAMS.glob("*/*_comparison"))}
    sections = {section.name: section for section in SECTIONS}
    known = [*sections, *comparisons]
    if options.list:
        print("\n".join(known))
        return
    for name in options.names:
        if name not in known:
            parser.error(f"there is no section '{name}'; there are {', '.join(known)}")
    folder = raw_folder(options)
    folder.mkdir(parents=True, exist_ok=True)
    machine = machine_text()
    (folder / "machine.txt").write_text(machine)
    environment = dict(os.environ)
    # Messages would be part of what is measured; in memory, so that the disk is not.
    environment["TERN_LOG_LEVEL"] = "3"
    environment.setdefault("TMPDIR", "/dev/shm")
    results = []
    for name in options.names or known:
        if name in sections:
            run_section(sections[name], options, environment)
            results.append(section_result(sections[name], folder))
        else:
            run_comparison(comparisons[name], options, environment)
            results.append(comparison_result(folder / f"{name}.json"))
        print_result(results[-1])
        # Immediately, so that a run that is cut short has reported what it had.
        write_document(results[-1:], folder if options.quick else ROOT / "docs", machine)
    print_missed(results)


if __name__ == "__main__":
    main()
