#!/usr/bin/env python3
"""The README's program is examples/greeter, and runs: on a private bus it greets, refuses, and stops.

  greeter_test.py PROJECT_FOLDER PROGRAM
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile


def main():
    project, program = pathlib.Path(sys.argv[1]), sys.argv[2]
    failures = []

    def check(what, expected, seen):
        if expected != seen:
            failures.append(f"FAILED {what}: {seen!r} instead of {expected!r}")

    blocks = re.findall(r"^```cpp\n(.*?)^```$", (project / "README.md").read_text(), re.M | re.S)
    check("README.md shows the program", [(project / "examples/greeter/main.cpp").read_text()], blocks)

    with tempfile.TemporaryDirectory() as work:
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={work}/bus"
        bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile", "--nosyslog", "--print-address",
                                f"--address=unix:path={work}/bus"], stdout=subprocess.PIPE)
        bus.stdout.readline()  # it listens
        service = subprocess.Popen([program], stderr=subprocess.DEVNULL)
        try:
            def call(name):
                done = subprocess.run(["busctl", "--system", "--timeout=30", "call", "com.example.Greeter",
                                       "/com/example/Greeter", "com.example.Greeter1", "Greet", "s", name],
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
                return done.stdout.strip()

            subprocess.run(["gdbus", "wait", "--system", "--timeout", "30", "com.example.Greeter"], check=True)
            check("a name", 's "Hello, World"', call("World"))
            check("no name", "Call failed: whom?", call(""))
            service.terminate()
            check("exit status", 0, service.wait(60))
        finally:
            service.kill()
            bus.kill()
            service.wait()
            bus.wait()
    print("\n".join([*failures, f"{len(failures)} failures"]))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
