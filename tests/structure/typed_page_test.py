#!/usr/bin/env python3
"""Each block of C++ in docs/typed.md stands word for word, but for the indentation, in a test that compiles and runs it.

  typed_page_test.py PROJECT_FOLDER
"""
import pathlib
import re
import sys


def lines_of(text):
    return [line.strip() for line in text.splitlines() if line.strip()]


def stands_in(block, source):
    return any(source[i : i + len(block)] == block for i in range(len(source) - len(block) + 1))


def main():
    project = pathlib.Path(sys.argv[1])
    page = (project / "docs/typed.md").read_text()
    sources = [lines_of(test.read_text()) for test in sorted((project / "tests/typed").glob("*_test.cpp"))]
    blocks = [lines_of(block) for block in re.findall(r"^```cpp\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)]
    failures = 0
    for block in blocks:
        if not any(stands_in(block, source) for source in sources):
            failures += 1
            known = {line for source in sources for line in source}
            missing = next((line for line in block if line not in known), block[0])
            print(f"a block of docs/typed.md is not in any test of tests/typed, from: {missing}")
    # A block that is not there has to be noticed, else this proves nothing.
    if any(stands_in(blocks[0] + ["int surplus;"], source) for source in sources):
        failures += 1
        print("a mistake is not noticed")
    # Each row of the table leads to a section.
    sections = {re.sub(r"[^a-z -]", "", title.lower()).replace(" ", "-") for title in re.findall(r"^## (.*)$", page, re.M)}
    for link in re.findall(r"\(#([a-z-]+)\)", page):
        if link not in sections:
            failures += 1
            print(f"there is no section '{link}'")
    print(f"{len(blocks)} blocks, {failures} failures")
    return 0 if failures == 0 and len(blocks) >= 10 else 1


if __name__ == "__main__":
    sys.exit(main())
