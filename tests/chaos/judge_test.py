#!/usr/bin/env python3
"""What judge.py is to find, and what not."""

import os
import sys
import time
import unittest

sys.dont_write_bytecode = True
sys.path.append(os.path.dirname(os.path.abspath(__file__)))
import judge  # noqa: E402
from harms import BusKilled, Killed, Stopped  # noqa: E402

SYSTEMD = "Main process exited, code=killed, status=9/KILL"


def lives(kind="cut-off", pid=50, told_of=50, restarts=3, at=None):
    former, life = judge.Life("a", pid, 0.0), judge.Life("b", 60, 5.0)
    former.restarts = 2
    life.kind, life.restarts = kind, restarts
    when = time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(time.time() if at is None else at))
    life.sentences = ["It just ended, without a word.", f"Process {told_of} (tern-soak) was last heard of at {when} UTC, 4 s."]
    return former, life


class OfEnd(unittest.TestCase):
    def problems(self, harm, systemd=SYSTEMD, **what):
        return judge.of_end(*lives(**what), systemd, harm, time.time() - 5)

    def test_accepts_what_fits(self):
        self.assertEqual([], self.problems(Killed()))

    def test_refuses_an_end_that_nothing_caused(self):
        self.assertRegex(self.problems(None)[0], "although nothing was done to it")

    def test_refuses_an_end_by_what_ends_nothing(self):
        self.assertRegex(self.problems(Stopped())[0], "it was not to end")

    def test_refuses_another_kind(self):
        self.assertRegex(self.problems(BusKilled(), systemd="status=1/FAILURE")[0], "'cut-off', not lost-bus")
        self.assertRegex(self.problems(Killed(), kind="stopped")[0], "'stopped', not cut-off or hanging")

    def test_refuses_what_systemd_saw_otherwise(self):
        self.assertRegex(self.problems(Killed(), systemd="status=6/ABRT")[0], "systemd has nothing like")

    def test_refuses_an_end_that_nobody_told_of(self):
        self.assertRegex(self.problems(Killed(), restarts=4)[0], "1 ends were told by nobody")

    def test_refuses_what_is_said_of_another_process(self):
        self.assertRegex(self.problems(Killed(), told_of=40)[0], "nothing is said of its process 50")

    def test_refuses_another_time(self):
        self.assertRegex(self.problems(Killed(), at=time.time() - 60)[0], "at another time")


class OfKept(unittest.TestCase):
    def test_accepts_what_is_between_the_promise_and_what_was_asked_for(self):
        for number in (7, 8):
            self.assertEqual("", judge.of_kept(0, f"{number}\n" * judge.KEPT_LINES, 7, 8))
        self.assertEqual("", judge.of_kept(0, None, 0, 1))

    def test_refuses_less_more_and_nothing(self):
        self.assertIn("6 is kept", judge.of_kept(0, "6\n" * judge.KEPT_LINES, 7, 8))
        self.assertIn("9 is kept", judge.of_kept(0, "9\n" * judge.KEPT_LINES, 7, 8))
        self.assertIn("is lost", judge.of_kept(0, None, 1, 1))

    def test_refuses_parts(self):
        whole = "12\n" * judge.KEPT_LINES
        for part in ("", "12\n", whole[:-1], whole[:-3] + "13\n", whole + "1"):
            self.assertIn("not whole", judge.of_kept(0, part, 12, 12))


class OfCalls(unittest.TestCase):
    FIGURES = {"lost": 1, "errors": 1, "wrong": 1, "missed": 1, "unable": 1, "complaints": ["old"]}

    def test_accepts_no_change_and_jobs_refused_for_want(self):
        self.assertEqual([], judge.of_calls(self.FIGURES, self.FIGURES, None))
        harm = Killed()
        harm.is_short_of = "disk"
        self.assertEqual([], judge.of_calls(self.FIGURES, {**self.FIGURES, "unable": 5}, harm))

    def test_refuses_each_of_them(self):
        for key in ("lost", "errors", "wrong", "missed", "unable"):
            self.assertEqual(1, len(judge.of_calls(self.FIGURES, {**self.FIGURES, key: 2}, Killed())), key)
        self.assertEqual(["new"], judge.of_calls(self.FIGURES, {**self.FIGURES, "complaints": ["old", "new"]}, None))


class OfSettings(unittest.TestCase):
    def test_accepts_all_and_refuses_parts(self):
        whole = "[settings]\n" + "".join(f"key{i}={i}\n" for i in range(judge.SETTINGS))
        self.assertEqual("", judge.of_settings(whole))
        for part in ("", whole[:-1], whole + "key20=20\n"):
            self.assertIn("not whole", judge.of_settings(part))


if __name__ == "__main__":
    unittest.main()
