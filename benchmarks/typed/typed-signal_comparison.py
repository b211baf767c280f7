#!/usr/bin/env python3
"""What a signal of each shape costs who receives it: instructions and requests for memory, exactly.

    typed-signal_comparison RESULT_FILE

Both are the difference of two runs of different length, by the signal, so that start and end do not count."""

from measuring import HAND, OURS, QUICK, Bench, Peer, by_the_item, rounds_row, write_results

PROGRAM = "bench_receiver"
KINDS = {"number": "u", "text": "s", "four": "udbs", "doubles": "ad of 64"}
NAMES = {"a well-known name": [], "a unique name": ["unique"]}
SIDES = {OURS: "typed", HAND: "hand"}
SHORT, LONG = (100, 600) if QUICK else (500, 3000)
ROUNDS = 1 if QUICK else 2


def main():
    instructions, allocations = [], []
    with Bench() as bench:

        def count(side, kind, name):
            return by_the_item(
                bench, PROGRAM, lambda signals: [side, kind, signals, *name], SHORT, LONG,
                peer=lambda signals: Peer(bench, PROGRAM, "send", kind, signals),
            )

        for words, name in NAMES.items():
            for kind, shape in KINDS.items():
                rounds = [{side: count(said, kind, name) for side, said in SIDES.items()} for _ in range(ROUNDS)]
                counted = [{side: round(both[0]) for side, both in one.items()} for one in rounds]
                what = f"{shape} of {words}"
                instructions.append(
                    rounds_row(f"{what}: instructions", "", counted, "at most 1.05 of a plain match", HAND, 1.05)
                )
                counted = [{side: round(both[1], 1) for side, both in one.items()} for one in rounds]
                allocations.append(
                    rounds_row(f"{what}: allocations", "", counted, "none further than a plain match", HAND, 1.0)
                )
    write_results(
        "typed-signal", "A signal received", instructions + allocations,
        "By hand: a plain match. By callgrind, and of malloc, calloc and realloc, of the whole receiver, with the same key for "
        f"libsystemd's hash tables on both sides. Medians of {ROUNDS} rounds; they do not depend on the load.",
    )


main()
