#!/usr/bin/env python3
"""What a typed interface costs in code and in the time of the compiler.

    typed-code_comparison RESULT_FILE"""

import subprocess

import interfaces
from measuring import HAND, OURS, QUICK, SDBUS_CPP, SIDES, Bench, compiler, require, rounds_row, user_seconds, write_results

ROUNDS = 1 if QUICK else 7
LOADED = (".text", ".rodata", ".data", ".eh_frame", ".gcc_except", ".init_array", ".bss")


def loaded_bytes(file):
    """What of the object file comes into memory."""
    process = subprocess.run(["size", "-A", str(file)], capture_output=True, text=True, check=False)
    require(process, "size")
    lines = [line.split() for line in process.stdout.splitlines()]
    return sum(int(line[1]) for line in lines if line and line[0].startswith(LOADED))


def compiled(bench, side, flags, *counts):
    """The object file of an interface with so many members, and the user time that it took."""
    file = bench.folder / "interface.cpp"
    file.write_text(interfaces.source(side, *counts))
    result = bench.folder / "interface.o"
    seconds = user_seconds([*compiler(*flags), "-c", str(file), "-o", str(result)])
    return result, seconds


def further_method(bench, side, level):
    few = loaded_bytes(compiled(bench, side, [level, "-fPIC"], 6)[0])
    many = loaded_bytes(compiled(bench, side, [level, "-fPIC"], 30)[0])
    return round((many - few) / 24)


def main():
    rows = []
    with Bench() as bench:
        for level in ("-Os", "-O2"):
            values = {side: further_method(bench, side, level) for side in SIDES}
            limited = level == "-Os"
            rows.append(rounds_row(f"a further method, {level}, bytes", "", [values], "at most 400" if limited else "",
                                   None, 400 if limited else None))
        values = {side: loaded_bytes(compiled(bench, side, ["-O2", "-fPIC"], 18, 6, 6)[0]) for side in SIDES}
        rows.append(rounds_row("an interface of 30 members, -O2, bytes", "", [values]))
        times = [{side: compiled(bench, side, ["-O2"], 18, 6, 6)[1] for side in SIDES} for _ in range(ROUNDS)]
        rows.append(rounds_row("compiling it, -O2, user time", "s", times, f"not above {SDBUS_CPP}", SDBUS_CPP, 1.0))
        times = [{side: compiled(bench, side, ["-O0", "-g"], 18, 6, 6)[1] for side in SIDES} for _ in range(ROUNDS)]
        rows.append(rounds_row("compiling it, -O0 -g, user time", "s", times, f"not above {SDBUS_CPP}", SDBUS_CPP, 1.0))
    write_results(
        "typed-code", "Code and compile time of an interface", rows,
        f"Code and data of an object file. The interface has 18 methods, 6 properties and 6 signals; {ROUNDS} rounds.",
    )


main()
