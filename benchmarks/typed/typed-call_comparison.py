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
ROUNDS = 1 if QUICK else 2


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


def count(bench, side, shape, calls):
    """Instructions and requests for memory of one run."""
    command, file = bench.callgrind([f"{PLACES['programs']}/{SERVERS[side]}"])
    allocations = bench.folder / "allocations"
    environment = dict(bench.environment, LD_PRELOAD=PLACES["preload"], TERN_ALLOCATIONS=str(allocations))
    serve(bench, command, environment, shape, calls)
    return instructions_in(file), int(allocations.read_text())


def by_the_call(bench, side, shape):
    less, more = count(bench, side, shape, SHORT), count(bench, side, shape, LONG)
    return [(many - few) / (LONG - SHORT) for few, many in zip(less, more)]


def main():
    instructions, allocations = [], []
    with Bench() as bench:
        for shape, words in SHAPES.items():
            rounds = [{side: by_the_call(bench, side, shape) for side in SIDES} for _ in range(ROUNDS)]
            counted = [{side: round(both[0]) for side, both in one.items()} for one in rounds]
            instructions.append(
                rounds_row(f"{words}: instructions", "", counted, f"at most 1.03 of {HAND}", HAND, 1.03, (SDBUS_CPP,))
            )
            counted = [{side: round(both[1], 1) for side, both in one.items()} for one in rounds]
            allocations.append(rounds_row(f"{words}: allocations", "", counted, f"none further than {HAND}", HAND, 1.0))
    write_results(
        "typed-call", "A call of a typed method", instructions + allocations,
        "By callgrind, and of malloc, calloc and realloc, of the whole server, with the same key for libsystemd's hash tables on all "
        f"sides. Medians of {ROUNDS} rounds; they do not depend on the load.",
    )


main()
