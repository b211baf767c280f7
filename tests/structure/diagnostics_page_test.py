#!/usr/bin/env python3
"""docs/diagnostics.md says what is: its C++ is compiled, and every event, figure, member, kind of end, command and bound of the
recorder's memory stands on it.

  diagnostics_page_test.py PROJECT_FOLDER
"""
import pathlib
import re
import sys

from typed_page_test import lines_of, stands_in

LONGEST_LINE = 100


def blocks_of(page, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)


def marked(page):
    """What stands in code marks, in tables and sentences."""
    return set(re.findall(r"`([^`\n]+)`", re.sub(r"^```.*?^```$", "", page, flags=re.MULTILINE | re.DOTALL)))


def constant(source, name):
    return re.search(rf"\b{name} = ([^;]+);", source).group(1)


def expected(project):
    """What has to be in code marks: what it is, and its name."""
    read = lambda name: (project / name).read_text()
    contract = read("include/tern/diagnostics/contract.h")
    for name in re.findall(r"^    X\(\w+, (\w+)\)", read("foundation/tell_events.h"), re.MULTILINE):
        yield "event", name
    for name in re.findall(r'\bField\("(\w+)"', contract):
        yield "figure", name
    interface = contract[contract.index("struct Diagnostics1 {") :]
    for name in re.findall(r"ALL\{\}|\bMembers<([^>]*)>", interface):
        for member in re.findall(r"\w+", name):
            yield "member of the interface", member
    for name in re.findall(r'Say\("([a-z-]+)"', read("diagnostics/diagnosis.cpp")):
        yield "kind of end", name
    for name in ("none", "unreadable"):
        yield "kind of end", name
    for name in re.findall(r'\{"([a-z-]+)",\s+ternctl::Run', read("tools/ternctl/main.cpp")):
        yield "command", name


def bounds(project):
    """The rows of the recorder's memory, by the numbers of its format."""
    source = (project / "diagnostics/ring_format.h").read_text()
    names = source[source.index("struct Name {") :]
    messages = source[source.index("struct Message {") :]
    yield f"| header | {constant(source, 'HEADER_BYTES')} bytes |"
    yield f"| names | {constant(source, 'NAMES')} of {constant(names, 'LONGEST')} bytes |"
    yield f"| threads | {constant(source, 'THREADS')}, in {constant(source, 'DEEPEST')} things each |"
    yield f"| messages | {constant(source, 'MESSAGES')} of {constant(messages, 'LONGEST')} bytes |"
    most = re.fullmatch(r"(\d+)U << 20U", constant(source, "MOST_EVENT_BYTES")).group(1)
    yield f"| events | {constant(source, 'LEAST_EVENT_BYTES')} bytes to {most} MiB, 32 bytes each"


def missing(page, project):
    found = marked(page)
    commands = {words.split()[1] for words in found if words.startswith("ternctl ")}
    for what, name in expected(project):
        if name not in (commands if what == "command" else found):
            yield f"the {what} '{name}' is not on the page"
    for row in bounds(project):
        if row not in page:
            yield f"the page has not '{row}'"
    sources = [lines_of(path.read_text()) for path in sorted((project / "tests/diagnostics").rglob("*.cpp"))]
    for block in blocks_of(page, "cpp"):
        if not any(stands_in(lines_of(block), source) for source in sources):
            yield f"this block is in no source of tests/diagnostics:\n{block}"
    for number, line in enumerate(page.splitlines(), 1):
        if len(line) > LONGEST_LINE and not in_output(page, number):
            yield f"line {number} has {len(line)} characters"


def in_output(page, number):
    """Whether the line is in a block, which shows what programs print."""
    return sum(line.startswith("```") for line in page.splitlines()[: number - 1]) % 2 == 1


def main():
    project = pathlib.Path(sys.argv[1])
    page = (project / "docs/diagnostics.md").read_text()
    failures = list(missing(page, project))
    # What is not there has to be noticed, else this proves nothing.
    for part in ("`call_began`", "`LongestTurnUs`", "`OpenRecorder`", "`cut-off`", "`ternctl why NAME`", "| names | 512", "mBus.Close();"):
        if len(list(missing(page.replace(part, "surplus"), project))) <= len(failures):
            failures.append(f"nobody notices that {part} is missing")
    print("\n".join(failures))
    asked = len(list(expected(project)))
    print(f"{asked} names, {len(blocks_of(page, 'cpp'))} blocks of C++, {len(failures)} failures")
    return 0 if not failures and asked >= 100 else 1


if __name__ == "__main__":
    sys.exit(main())
