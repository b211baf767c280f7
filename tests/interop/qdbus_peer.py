"""The type gallery by Qt's qdbus.

It takes numbers, texts, lists of texts and bytes that are text, makes them what the introspection data says, and writes
properties as text alone. It prints whatever it gets, so every property is read too, after busctl has written it.
"""

import random
import re
import shutil
import subprocess
import sys

import busctl_peer
import gallery
from gallery import INTERFACE, NAME, PATH, PROPERTIES, ROWS, CannotSay, Refused, Variant, types_of


def argument(signature, value):
    if signature == "v" and value.signature == "s":
        return [value.value]
    if signature == "b":
        return ["true" if value else "false"]
    if signature == "d":
        return [repr(value)]
    if signature == "as" and not set(value) & {"(", ")"} and '"' not in "".join(value):
        return ["(", *value, ")"]
    if signature == "ay" and 0 not in value:
        try:
            return [bytes(value).decode()]
        except UnicodeDecodeError:
            raise CannotSay from None
    if signature == "g" and value == "":
        raise CannotSay  # no signature to Qt
    if len(signature) == 1 and signature not in "vh":
        return [str(value)]
    raise CannotSay


def value_of(signature, printed):
    if signature == "as":
        return re.findall(r'"([^"]*)"', printed)
    if signature == "ay":
        return [int(byte) & 255 for byte in re.findall(r"-?\d+", printed)]
    if signature in "og":
        return re.fullmatch(r"\[\w+: (.*)\]", printed)[1]
    if signature == "b":
        return {"true": True, "false": False}[printed]
    if signature == "v":
        return Variant("s", printed)
    if signature == "d":
        return float(printed)
    return printed if signature == "s" else int(printed)


QT_TYPES = {"y": "uchar", "n": "short", "q": "ushort", "i": "int", "u": "uint", "x": "qlonglong", "t": "qulonglong",
            "d": "double", "b": "bool", "s": "QString", "as": "QStringList", "ay": "QByteArray"}  # fmt: skip


def literal(signature, value):
    """What qdbus prints for a value within another one."""
    if signature == "v":
        known = QT_TYPES.get(value.signature)
        return f"[Variant{f'({known})' if known else ''}: {literal(value.signature, value.value)}]"
    if signature == "s":
        return f'"{value}"'
    if signature == "o":
        return f"[ObjectPath: {value}]"
    if signature == "g":
        return f"[Signature: {value}]"
    if signature == "b":
        return "true" if value else "false"
    if signature == "d":
        return repr(value).removesuffix(".0")
    if signature == "ay":
        return "{" + ", ".join(str(byte - 256 if byte > 127 else byte) for byte in value) + "}"
    if signature == "as":
        return "{" + ", ".join(f'"{text}"' for text in value) + "}"
    if signature[0] == "(":
        inner = ", ".join(literal(t, v) for t, v in zip(types_of(signature[1:-1]), value))
    elif signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        inner = "{" + ", ".join(f"{literal(key, k)} = {literal(content, v)}" for k, v in value.items()) + "}"
    elif signature[0] == "a":
        inner = "{" + ", ".join(literal(signature[1:], v) for v in value) + "}"
    else:
        return str(value)
    return f"[Argument: {signature} {inner}]"


class QdbusPeer:
    name = "qdbus"
    tells_names = True
    cannot = {
        "method": ["Descriptor", "Doubles", "Booleans", "Triple", "Pairs", "Matrix", "Texts", "Numbers", "Structure", "Nested",
                   "Options", "StrictOptions", "DictAny"],
        "property": [row for row, signature in ROWS if signature != "s" and row != "Descriptor"],
        "signal": [row for row, _ in ROWS],
    }  # fmt: skip

    def ask(self, *command, is_literal=False):
        done = subprocess.run(["qdbus", "--system", *(["--literal"] if is_literal else []), NAME, PATH, *command],
                              capture_output=True)  # fmt: skip
        # As it is: Python's text mode changes the ends of lines.
        if done.returncode == 0:
            return done.stdout.decode().removesuffix("\n")
        told = (done.stderr + done.stdout).decode()
        if told.startswith("Invalid number of parameters"):
            raise CannotSay
        found = re.fullmatch(r"Error: ([\w.]+)\n(.*)\n", told, re.DOTALL)
        raise Refused(found[1], found[2]) if found else Refused("qdbus", told)

    def call(self, member, signature, values):
        types = types_of(signature)
        row = member.removeprefix("Echo")
        if values and dict(ROWS).get(row, signature) != signature:
            raise CannotSay  # it would be made to be of the method's type
        printed = self.ask(f"{INTERFACE}.{member}", *[a for t, v in zip(types, values) for a in argument(t, v)],
                           is_literal=signature in ("y", "o", "g", "as", "ay"))  # fmt: skip
        if member == "Later":
            return [printed]
        return [value_of(signature, printed)] if member.startswith("Echo") else []

    def get(self, row):
        return value_of(row.signature, self.ask(f"{PROPERTIES}.Get", INTERFACE, row.name))

    def set(self, name, signature, value):
        if signature != "s":
            raise CannotSay
        self.ask(f"{PROPERTIES}.Set", INTERFACE, name, value)

    def heard(self):
        return None


def try_reading(peer, seed):
    """Every property as qdbus prints it."""
    report = gallery.Report("qdbus, reading")
    maker = gallery.Maker(random.Random(seed))
    # What qdbus prints as something else: numbers with more than six digits, and -0.0.
    maker.double = lambda: maker.rng.choice([0.0, -1.5, 0.25, 1e300, 123456.0])
    for name, signature in ROWS:
        if name == "Descriptor":
            continue
        for sent, wanted in gallery.Row(name, signature, maker, 2).values[:4]:
            if name in ("Texts", "Numbers", "DictAny"):  # maps, which come back in order
                wanted = dict(sorted(wanted.items(), key=lambda entry: entry[0].encode() if signature != "a{us}" else entry[0]))
            subprocess.run(["busctl", "set-property", "--", NAME, PATH, INTERFACE, name, signature]
                           + busctl_peer.arguments(signature, sent), check=True)  # fmt: skip
            found = peer.ask(f"{PROPERTIES}.Get", INTERFACE, name, is_literal=True)
            expected = literal("v", Variant(signature, wanted))
            report.check("properties", found == expected, f"{name} is {gallery.short(found)} instead of {gallery.short(expected)}")
    return report.end()


def main():
    if shutil.which("qdbus") is None or subprocess.run(["qdbus", "--help"], capture_output=True).returncode != 0:
        print("qdbus is not installed (package qdbus-qt5)")
        return gallery.SKIPPED
    seed = gallery.seed_of_today()
    peer = QdbusPeer()
    return 1 if gallery.run(peer, seed) + try_reading(peer, seed) else 0


if __name__ == "__main__":
    sys.exit(main())
