"""The type gallery by gdbus: values as GVariant text both ways.

gdbus asks for the introspection data first and reads its arguments as what stands there, so it cannot send another type.
"""

import atexit
import json
import re
import shutil
import subprocess
import sys
import threading

import gallery
from gallery import INTERFACE, NAME, PATH, PROPERTIES, ROWS, CannotSay, Refused, Variant, types_of


def text(signature, value):
    """GVariant text, with the type in front of everything that could be taken for another one."""
    if signature == "v":
        return f"<{text(value.signature, value.value)}>"
    if signature == "h":
        raise CannotSay
    if signature in "sog":
        # JSON's escapes are GVariant's, but for characters beyond the first plane.
        quoted = "".join(f"\\U{ord(c):08x}" if ord(c) > 0xFFFF else json.dumps(c)[1:-1] for c in value)
        return f'@{signature} "{quoted}"'
    if signature == "b":
        return "true" if value else "false"
    if signature[0] == "(":
        items = [text(t, v) for t, v in zip(types_of(signature[1:-1]), value)]
        return f"({items[0]},)" if len(items) == 1 else f"({', '.join(items)})"
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        return f"@{signature} {{{', '.join(f'{text(key, k)}: {text(content, v)}' for k, v in value.items())}}}"
    if signature[0] == "a":
        return f"@{signature} [{', '.join(text(signature[1:], v) for v in value)}]"
    return f"@{signature} {value!r}"


class Reader:
    """GVariant text as gdbus prints it, with its types: read() gives signature and value."""

    KEYWORDS = {"boolean": "b", "byte": "y", "int16": "n", "uint16": "q", "int32": "i", "handle": "h", "uint32": "u",
                "int64": "x", "uint64": "t", "double": "d", "string": "s", "objectpath": "o", "signature": "g"}  # fmt: skip
    ESCAPES = {"a": "\a", "b": "\b", "f": "\f", "n": "\n", "r": "\r", "t": "\t", "v": "\v"}

    def __init__(self, printed):
        self.printed = printed
        self.at = 0

    def skip(self):
        while self.printed[self.at] == " ":
            self.at += 1

    def take(self, token):
        """Whether the token stands here; it is read then."""
        self.skip()
        if not self.printed.startswith(token, self.at):
            return False
        self.at += len(token)
        return True

    def match(self, pattern):
        self.skip()
        found = re.compile(pattern).match(self.printed, self.at)
        if found:
            self.at = found.end()
        return found

    def items(self, end, read):
        """Up to `end`, with commas between them."""
        found = []
        while not self.take(end):
            found.append(read())
            self.take(",")
        return found

    def quoted(self):
        quote = self.printed[self.at]
        self.at += 1
        result = ""
        while self.printed[self.at] != quote:
            if self.printed[self.at] != "\\":
                result += self.printed[self.at]
                self.at += 1
                continue
            code = self.printed[self.at + 1]
            digits = {"u": 4, "U": 8}.get(code, 0)
            result += chr(int(self.printed[self.at + 2 : self.at + 2 + digits], 16)) if digits else self.ESCAPES.get(code, code)
            self.at += 2 + digits
        self.at += 1
        return result

    def read(self, wanted=None):
        """`wanted` is the type when it is known already: of all elements but the first."""
        if found := self.match(r"@(\S+) "):
            return self.read(found[1])
        if found := self.match(r"(" + "|".join(self.KEYWORDS) + r") "):
            return self.read(self.KEYWORDS[found[1]])
        if found := self.match(r"true|false"):
            return "b", found[0] == "true"
        if found := self.match(r"b(?=['\"])"):  # bytes with a 0 at the end
            escaped = self.match(r"'((?:[^'\\]|\\.)*)'|\"((?:[^\"\\]|\\.)*)\"")
            raw = (escaped[1] if escaped[1] is not None else escaped[2]).encode("latin-1")
            return "ay", list(re.sub(rb"\\([0-7]{3}|.)", self.byte, raw, flags=re.DOTALL)) + [0]
        self.skip()
        if self.printed[self.at] in "'\"":
            return wanted or "s", self.quoted()
        if self.take("<"):
            content = self.read()
            self.take(">")
            return "v", Variant(*content)
        if self.take("("):
            types = iter(types_of(wanted[1:-1]) if wanted else [])
            fields = self.items(")", lambda: self.read(next(types, None)))
            return "(" + "".join(t for t, _ in fields) + ")", tuple(v for _, v in fields)
        if self.take("["):
            return self.array(wanted)
        if self.take("{"):
            return self.dictionary(wanted)
        number = self.match(r"[-+0-9a-zA-Z.]+")[0]
        signature = wanted or ("d" if re.search(r"^[^x]*[.e]|inf|nan", number) else "i")
        return signature, float(number) if signature == "d" else int(number, 0)

    def byte(self, escape):
        code = escape[1].decode("latin-1")
        return bytes([int(code, 8)]) if len(code) == 3 else self.ESCAPES.get(code, code).encode("latin-1")

    def array(self, wanted):
        of = [wanted[1:] if wanted else None]

        def element():
            of[0], value = self.read(of[0])
            return value

        values = self.items("]", element)
        return "a" + of[0], values

    def dictionary(self, wanted):
        of = types_of(wanted[2:-1]) if wanted else [None, None]

        def entry():
            of[0], key = self.read(of[0])
            self.take(":")
            of[1], value = self.read(of[1])
            return key, value

        entries = self.items("}", entry)
        return "a{" + of[0] + of[1] + "}", dict(entries)


def read_tuple(printed):
    """Types and values of what stands in (...)."""
    if printed.strip() == "()":
        return [], []
    signature, values = Reader(printed.rstrip("\n") + "\n").read()
    return types_of(signature[1:-1]), list(values)


class Monitor:
    """`gdbus monitor`: what the gallery says to everybody."""

    def __init__(self):
        self.process = subprocess.Popen(["gdbus", "monitor", "--system", "--dest", NAME], stdout=subprocess.PIPE, text=True)
        self.lock = threading.Condition()
        self.signals = []
        atexit.register(self.process.kill)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            for interface in (INTERFACE, PROPERTIES):
                prefix = f"{PATH}: {interface}."
                if line.startswith(prefix):
                    member, printed = line.removeprefix(prefix).split(" ", 1)
                    with self.lock:
                        self.signals.append((member, printed))
                        self.lock.notify_all()

    def begin(self, provoke):
        """Returns when everything is heard; what has been heard so far is forgotten."""
        for _ in range(200):
            provoke("")
            with self.lock:
                if self.lock.wait_for(lambda: self.signals, timeout=0.1):
                    break
        else:
            sys.exit("gdbus monitor hears nothing")
        provoke("last")
        with self.lock:
            if not self.lock.wait_for(lambda: "last" in self.signals[-1][1], timeout=20):
                sys.exit("gdbus monitor has stopped hearing")
            self.signals.clear()

    def heard(self):
        with self.lock:
            return [(member, read_tuple(printed)[1]) for member, printed in self.signals]


class GdbusPeer:
    name = "gdbus"
    tells_names = True
    cannot = {"method": ["Descriptor"], "property": [], "signal": []}

    def __init__(self):
        self.monitor = Monitor()
        self.monitor.begin(lambda said: self.call("EchoString", "s", [said]))

    def ask(self, method, types, values):
        if any(gallery.glib_misreads(t, v) for t, v in zip(types, values)):
            raise CannotSay
        done = subprocess.run(
            ["gdbus", "call", "--system", "--dest", NAME, "--object-path", PATH, "--method", method]
            + [text(t, v) for t, v in zip(types, values)],
            capture_output=True, text=True)  # fmt: skip
        if done.returncode == 0:
            return read_tuple(done.stdout)
        if done.stderr.startswith("Error parsing parameter"):
            raise CannotSay
        found = re.fullmatch(r"(?:Warning: [^\n]*\n)?Error: GDBus\.Error:([\w.]+): (.*?)\n(\(According to introspection data, .*\)\n)?",
                             done.stderr, re.DOTALL)  # fmt: skip
        if not found:
            raise Refused("gdbus", done.stderr)
        raise Refused(found[1], found[2])

    def call(self, member, signature, values):
        # One argument is made to be of the method's type.
        if dict(ROWS).get(member.removeprefix("Echo"), signature) != signature and len(values) == 1:
            raise CannotSay
        return self.ask(f"{INTERFACE}.{member}", types_of(signature), values)[1]

    def get(self, row):
        return self.ask(f"{PROPERTIES}.Get", ["s", "s"], [INTERFACE, row.name])[1][0].value

    def set(self, name, signature, value):
        self.ask(f"{PROPERTIES}.Set", ["s", "s", "v"], [INTERFACE, name, Variant(signature, value)])

    def heard(self):
        return self.monitor.heard()


def main():
    if shutil.which("gdbus") is None:
        print("gdbus is not installed (package libglib2.0-bin)")
        return gallery.SKIPPED
    return gallery.run(GdbusPeer(), gallery.seed_of_today())


if __name__ == "__main__":
    sys.exit(main())
