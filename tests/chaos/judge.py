"""What is in order, and what is not."""

import calendar
import re
import time

KEPT_LINES = 300
SETTINGS = 20


class Life:
    """A life of the extension, and what it said of the one before it."""

    def __init__(self, invocation, pid, seen):
        self.invocation = invocation
        self.pid = pid  # in the container
        self.seen = seen  # monotonic
        self.kind = ""
        self.sentences = []
        self.restarts = 0


def of_end(former, life, systemds_view, harm, began):
    """What is wrong with how `life` explains the end of the life `former`, which met with the harm, or with none, from `began`
    (time of day) on."""
    problems = []
    if harm is None:
        return [f"it ended, as '{life.kind}', although nothing was done to it: {life.sentences[:1]}"]
    if harm.ends == "none":
        problems.append(f"it was not to end, and ended as '{life.kind}'")
    elif life.kind not in harm.kinds:
        problems.append(f"it is said to have ended as '{life.kind}', not {' or '.join(sorted(harm.kinds))}")
    if harm.ends != "none" and not re.search(harm.status, systemds_view):
        problems.append(f"systemd has nothing like '{harm.status}' of its end")
    if life.restarts != former.restarts + 1:
        problems.append(f"{life.restarts - former.restarts - 1} ends were told by nobody")
    about = [sentence for sentence in life.sentences if sentence.startswith(f"Process {former.pid} (")]
    if len(about) != 1:
        problems.append(f"nothing is said of its process {former.pid}")
    elif harm.is_clock_right:
        told = re.search(r" at (\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) UTC", about[0])
        at = calendar.timegm(time.strptime(told.group(1), "%Y-%m-%d %H:%M:%S")) if told else 0
        if not began - 3 <= at <= time.time() + 1:
            problems.append(f"it is said to have been heard of last at another time: {about[0]}")
    return [f"{problem}; told: {' / '.join(life.sentences)}" if problem == problems[0] else problem for problem in problems]


def of_kept(name, content, answered, asked):
    """What is wrong with a file of what was promised to be kept, when `answered` was promised before it was read and `asked` was
    asked for at most afterwards."""
    if content is None:
        return f"the number {answered} of client {name} is lost" if answered else ""
    lines = content.split("\n")
    if len(lines) != KEPT_LINES + 1 or lines[-1] != "" or set(lines[:-1]) != {lines[0]} or not lines[0].isdigit():
        return f"what client {name} had kept is not whole: {len(content)} bytes, {lines[:2]}"
    if not answered <= int(lines[0]) <= asked:
        return f"client {name} was promised the number {answered} (asked for {asked}), and {lines[0]} is kept"
    return ""


def of_settings(content):
    wanted = "[settings]\n" + "".join(f"key{i}={i}\n" for i in range(SETTINGS))
    return "" if content == wanted else f"the settings are not whole: {len(content)} bytes"


def of_calls(before, after, harm):
    """What is wrong with what came of the calls in between."""
    problems = [f"{after[key] - before[key]} {words}" for key, words in (
        ("lost", "calls had no answer"), ("errors", "calls failed though the extension lived"),
        ("wrong", "answers were wrong"), ("missed", "signals were missed")) if after[key] != before[key]]
    if not (harm and harm.is_short_of) and after["unable"] != before["unable"]:
        problems.append(f"{after['unable'] - before['unable']} jobs were refused")
    return problems + after["complaints"][len(before["complaints"]):]
