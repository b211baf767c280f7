#!/usr/bin/env python3
"""What an asynchronous call of each shape costs its client: instructions and requests for memory, exactly.

    typed-client_comparison RESULT_FILE

Both are the difference of two runs of different length, by the call, so that start and end do not count."""

from measuring import HAND, OURS, QUICK, SDBUS_CPP, SIDES, Bench, Peer, by_the_item, rounds_row, write_results

PROGRAM = "bench_caller"
KINDS = {"empty": "no arguments", "number": "u → u", "text": "s → s", "property": "a property read"}
# Their names in bench_caller, and how many requests for memory they may make beyond those by hand: the handler is kept
# in one, and a task is one.
WAYS = {"awaited": ("awaited", 0), "handler": ("with a handler", 1), "task": ("in a task of its own", 1)}
NO_LOOP = "by hand, without sd-event"
OTHERS = {HAND: "hand", NO_LOOP: "plain", SDBUS_CPP: "sdbus-c++"}
SHORT, LONG = (20, 120) if QUICK else (200, 1200)
ROUNDS = 1 if QUICK else 2


def main():
    instructions, allocations = [], []
    with Bench() as bench, Peer(bench, PROGRAM, "serve"):

        def count(side, kind):
            return by_the_item(bench, PROGRAM, lambda calls: [side, kind, calls], SHORT, LONG)

        for kind, words in KINDS.items():
            others = [
                {side: count(said, kind) for side, said in OTHERS.items() if side != SDBUS_CPP or side in SIDES}
                for _ in range(ROUNDS)
            ]
            for way, (said, further) in WAYS.items():
                rounds = [{OURS: count(way, kind), **one} for one in others]
                counted = [{side: round(both[0]) for side, both in one.items()} for one in rounds]
                goals = {} if way == "task" else {"target": f"at most 1.05 of {HAND}", "limit": 1.05, "ahead_of": (SDBUS_CPP,)}
                instructions.append(rounds_row(f"{words}, {said}: instructions", "", counted, against=HAND, **goals))
                counted = [{side: round(both[1]) for side, both in one.items() if side != NO_LOOP} for one in rounds]
                target = f"{'one' if further else 'none'} further than {HAND}"
                most = counted[0][HAND] + further
                allocations.append(rounds_row(f"{words}, {said}: allocations", "", counted, target, limit=most))
    write_results(
        "typed-client", "An asynchronous call", instructions + allocations,
        "By callgrind, and of malloc, calloc and realloc, of the whole client, which makes one call after the other, with the same "
        f"key for libsystemd's hash tables on all sides. Medians of {ROUNDS} rounds; those in sd-event do not depend on the load.",
    )


main()
