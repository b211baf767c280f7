"""The type gallery by busctl: values as its arguments, answers and signals as its JSON.

It fails to make JSON of dictionaries whose keys are no text, so those are read from its plain output.
"""

import atexit
import codecs
import json
import re
import shutil
import subprocess
import sys
import threading

import gallery
from gallery import INTERFACE, NAME, PATH, CannotSay, Refused, Variant, parts, types_of


def is_sayable(signature, value):
    return not any(s == "h" or (s.startswith("a{") and s[2] not in "sog") for s, _ in parts(signature, value))


def arguments(signature, value):
    """A value as busctl takes it."""
    if signature == "v":
        return [value.signature] + arguments(value.signature, value.value)
    if signature == "b":
        return ["true" if value else "false"]
    if signature[0] == "(":
        return [a for t, v in zip(types_of(signature[1:-1]), value) for a in arguments(t, v)]
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        return [str(len(value))] + [a for k, v in value.items() for a in arguments(key, k) + arguments(content, v)]
    if signature[0] == "a":
        return [str(len(value))] + [a for v in value for a in arguments(signature[1:], v)]
    return [repr(value) if signature == "d" else str(value)]


def from_json(signature, data):
    if signature == "v":
        return Variant(data["type"], from_json(data["type"], data["data"]))
    if signature == "d":
        return float(data)
    if signature[0] == "(":
        return tuple(from_json(t, d) for t, d in zip(types_of(signature[1:-1]), data))
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        return {(k if key in "sog" else int(k)): from_json(content, d) for k, d in data.items()}
    if signature[0] == "a":
        return [from_json(signature[1:], d) for d in data]
    return data


def from_plain(text):
    """The answer of Numbers: `a{us} 2 5 "x" 6 "y"`. Values in the form of the JSON."""
    signature, rest = text.rstrip("\n").split(" ", 1)
    assert signature == "a{us}", text
    entries = re.findall(r' (\d+) "((?:[^"\\]|\\.)*)"', rest)
    assert len(entries) == int(rest.split(" ", 1)[0]), text
    return {"type": signature,
            "data": {key: codecs.escape_decode(value.encode())[0].decode() for key, value in entries}}  # fmt: skip


class Monitor:
    """`busctl monitor`: what the gallery says to everybody, and its errors."""

    def __init__(self):
        self.process = subprocess.Popen(
            ["busctl", "monitor", "--json=short", f"--match=type='signal',sender='{NAME}'",
             f"--match=type='error',sender='{NAME}'"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)  # fmt: skip
        self.lock = threading.Condition()
        self.signals = []
        self.errors = []
        atexit.register(self.process.kill)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            if not line.startswith("{"):
                continue
            message = json.loads(line)
            payload = message["payload"]
            types = types_of(payload["type"] or "") if payload else []
            values = [from_json(t, d) for t, d in zip(types, payload["data"])] if types else []
            with self.lock:
                if message["type"] == "error":
                    self.errors.append((message["error_name"], values[0] if values else ""))
                elif message["interface"] in (INTERFACE, gallery.PROPERTIES):
                    self.signals.append((message["member"], values))
                self.lock.notify_all()

    def begin(self, provoke):
        """Returns when everything is heard; what has been heard so far is forgotten."""
        for _ in range(200):
            provoke()
            with self.lock:
                if self.lock.wait_for(lambda: self.signals, timeout=0.1):
                    break
        else:
            sys.exit("busctl monitor hears nothing")
        # Then nothing of the provoked is under way any more: the last of them is this one.
        provoke("last")
        with self.lock:
            if not self.lock.wait_for(lambda: self.signals[-1][1] == ["last"], timeout=20):
                sys.exit("busctl monitor has stopped hearing")
            self.signals.clear()

    def heard(self):
        with self.lock:
            return list(self.signals)


class BusctlPeer:
    name = "busctl"
    tells_names = True
    cannot = {"method": ["Descriptor"], "property": [], "signal": ["Numbers"]}

    def __init__(self):
        self.monitor = Monitor()
        self.monitor.begin(lambda text="": self.call("EchoString", "s", [text]))

    def ask(self, command):
        """What it prints. busctl tells the text of an error; its name is on the monitor."""
        count = len(self.monitor.errors)
        done = subprocess.run(["busctl", *command], capture_output=True, text=True)
        if done.returncode == 0:
            return done.stdout
        text = done.stderr.removesuffix("\n")
        if text.startswith("Failed to create bus message") or text.startswith("Failed to parse"):
            raise gallery.Refused("busctl", text)
        with self.monitor.lock:
            if not self.monitor.lock.wait_for(lambda: len(self.monitor.errors) > count, timeout=20):
                raise Refused("no error on the bus", text)
            name, told = self.monitor.errors[count]
        # For a refused access it has a text of its own.
        if not text.endswith(told or "failed: ") and name != gallery.PREFIX + "AccessDenied":
            raise Refused("busctl tells another text than the bus", text)
        raise Refused(name, told)

    def call(self, member, signature, values):
        if member != "EchoNumbers" and not all(is_sayable(t, v) for t, v in zip(types_of(signature), values)):
            raise CannotSay
        arguments_ = [a for t, v in zip(types_of(signature), values) for a in arguments(t, v)]
        command = ["call", "--", NAME, PATH, INTERFACE, member] + ([signature] + arguments_ if signature else [])
        if member == "EchoNumbers":
            return [from_json("a{us}", from_plain(self.ask(command))["data"])]
        text = self.ask(["--json=short"] + command)
        if not text.strip():
            return []
        answer = json.loads(text)
        return [from_json(t, d) for t, d in zip(types_of(answer["type"]), answer["data"])]

    def get(self, row):
        command = ["get-property", NAME, PATH, INTERFACE, row.name]
        answer = from_plain(self.ask(command)) if row.name == "Numbers" else json.loads(self.ask(["--json=short"] + command))
        return from_json(answer["type"], answer["data"])

    def set(self, name, signature, value):
        if name != "Numbers" and not is_sayable(signature, value):
            raise CannotSay
        self.ask(["set-property", "--", NAME, PATH, INTERFACE, name, signature] + arguments(signature, value))

    def heard(self):
        return self.monitor.heard()


def main():
    if shutil.which("busctl") is None:
        print("busctl is not installed (package systemd)")
        return gallery.SKIPPED
    return gallery.run(BusctlPeer(), gallery.seed_of_today())


if __name__ == "__main__":
    sys.exit(main())
