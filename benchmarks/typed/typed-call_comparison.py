#!/usr/bin/env python3
"""What a call of each shape costs its server: instructions and requests for memory, exactly.

    typed-call_comparison RESULT_FILE

Both are the difference of two runs of different length, by the call, so that start and end do not count."""

import subprocess
import sys

from measuring import HAND, OURS, PLACES, QUICK, SDBUS_CPP, SIDES, Bench, instructions_in, rounds_row, write_results

SHAPES = {
    "Empty": "no arguments",
    "Number": "u → u",
    "Text": "s → s",
    "Four": "udbs →",
    "Items": "a(ds) of 5 →",
    "Options": "a{sv} → a structure",
    "Bytes": "ay of 4 KiB →",
    "Get": "a property read",
}
SERVERS = {OURS: "typed_server", HAND: "hand_server", SDBUS_CPP: "sdbus_cpp_typed_server"}
SHORT, LONG = (20, 120) if QUICK else (100, 600)
ROUNDS = 1 if QUICK else 3


def serve(bench, command, environment, shape, calls):
    server = subprocess.Popen(command, env=environment, stderr=subprocess.PIPE, text=True)
    client = subprocess.run(
        [f"{PLACES['programs']}/bench_client", shape, str(calls)],
        env=bench.environment, capture_output=True, text=True, check=False,
    )
    if client.returncode != 0:
        server.kill()
    _, said = server.communicate()
    if server.returncode != 0 or client.returncode != 0:
        sys.exit(f"calls of {shape} failed: {client.stderr}{said}")


def instructions(bench, side, shape, calls):
    command, file = bench.callgrind([f"{PLACES['programs']}/{SERVERS[side]}"])
    serve(bench, command, dict(bench.environment, LD_PRELOAD=PLACES["preload"]), shape, calls)
    return instructions_in(file)


def allocations(bench, side, shape, calls):
    file = bench.folder / "allocations"
    environment = dict(bench.environment, LD_PRELOAD=PLACES["preload"], TERN_ALLOCATIONS=str(file))
    serve(bench, [f"{PLACES['programs']}/{SERVERS[side]}"], environment, shape, calls)
    return int(file.read_text())


def by_the_call(count, bench, side, shape):
    return (count(bench, side, shape, LONG) - count(bench, side, shape, SHORT)) / (LONG - SHORT)


def main():
    rows = []
    with Bench() as bench:
        for shape, words in SHAPES.items():
            rounds = [{side: round(by_the_call(instructions, bench, side, shape)) for side in SIDES} for _ in range(ROUNDS)]
            rows.append(rounds_row(f"{words}: instructions", "", rounds, f"at most 1.03 of {HAND}", HAND, 1.03, (SDBUS_CPP,)))
        for shape, words in SHAPES.items():
            values = {side: round(by_the_call(allocations, bench, side, shape), 1) for side in SIDES}
            rows.append(rounds_row(f"{words}: allocations", "", [values], f"none further than {HAND}", HAND, 1.0))
    write_results(
        "typed-call", "A call of a typed method", rows,
        "By callgrind, and of malloc, calloc and realloc, of the whole server, with the same key for libsystemd's hash tables on all "
        f"sides. Medians of {ROUNDS} rounds; they do not depend on the load.",
    )


main()
