#!/usr/bin/env python3
"""What a typed interface of 100 members costs the start of an extension, beside the same vtable written by hand.

    typed-start_comparison RESULT_FILE

From exec until the name is owned and the object is on the bus, where the service ends itself."""

import subprocess
import time

import interfaces
from measuring import HAND, OURS, PLACES, QUICK, Bench, compiler, instructions_in, require, rounds_row, write_results

ROUNDS = 3 if QUICK else 41
SIDES = (OURS, HAND)


def build(bench, side):
    file = bench.folder / f"{side.replace(' ', '_')}.cpp"
    file.write_text(interfaces.source(side, 60, 20, 20, service=True))
    program = file.with_suffix("")
    libraries = PLACES["libraries"] if side == OURS else PLACES["libraries"][1:]
    process = subprocess.run(
        [*compiler("-O2"), str(file), "-o", str(program), *libraries, "-lsystemd", "-pthread",
         "-Wl,--allow-shlib-undefined"],
        capture_output=True, text=True, check=False,
    )
    require(process, f"building {side}")
    return program


def run(bench, command, **more):
    begin = time.perf_counter()
    process = subprocess.run(command, env=dict(bench.environment, **more), capture_output=True, text=True, check=False)
    seconds = time.perf_counter() - begin
    require(process, command[-1])
    return seconds


def instructions(bench, program):
    command, file = bench.callgrind([program])
    run(bench, command, LD_PRELOAD=PLACES["preload"])
    return instructions_in(file)


def main():
    with Bench() as bench:
        programs = {side: build(bench, side) for side in SIDES}
        counted = [{side: instructions(bench, program) for side, program in programs.items()} for _ in range(1 if QUICK else 5)]
        times = [{side: run(bench, [str(program)]) * 1000 for side, program in programs.items()} for _ in range(ROUNDS + 1)][1:]
    write_results(
        "typed-start", "The start of an extension with 100 typed members",
        [
            rounds_row("exec to name owned, instructions", "", counted, "level", HAND, 1.05),
            rounds_row("exec to name owned", "ms", times, "level", HAND, 1.05),
        ],
        f"60 methods, 20 properties and 20 signals in both, on the same frame; {ROUNDS} rounds.",
    )


main()
