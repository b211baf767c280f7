"""What every peer tries with the type gallery: each row there and back through its method, its property and its signal, then
values and calls that are refused, and the methods that end otherwise.

A peer is an object that says what it can express and does it; run() does the rest.

Values: numbers, bool, str; list for arrays, tuple for structures, dict for dictionaries, Variant for variants.

    gallery.py SEED      the plan as JSON, for peers in other languages
"""

import json
import os
import random
import struct
import sys
import time

NAME = "com.example.TypeGallery"
PATH = "/com/example/TypeGallery"
INTERFACE = "com.example.TypeGallery1"
PROPERTIES = "org.freedesktop.DBus.Properties"
PREFIX = "org.freedesktop.DBus.Error."
SKIPPED = 77


class Variant:
    def __init__(self, signature, value):
        self.signature = signature
        self.value = value

    def __repr__(self):
        return f"<{self.signature} {self.value!r}>"


class Refused(Exception):
    """The service's error, as the peer has it. Without a name where the peer does not tell it."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


class CannotSay(Exception):
    """The peer cannot express this value or call."""


def end_of_type(signature, at):
    """Where the complete type that begins at `at` ends."""
    if signature[at] == "a":
        return end_of_type(signature, at + 1)
    if signature[at] in "({":
        at += 1
        while signature[at] not in ")}":
            at = end_of_type(signature, at)
    return at + 1


def types_of(signature):
    """The complete types of a signature."""
    types = []
    at = 0
    while at < len(signature):
        end = end_of_type(signature, at)
        types.append(signature[at:end])
        at = end
    return types


def canonical(signature, value):
    """A form of the value in which equal ones are equal and others are not: 0.0 and -0.0 differ, True and 1 as well."""
    code = signature[0]
    if code == "d":
        return ("d", struct.pack(">d", value))
    if code == "v":
        return ("v", value.signature, canonical(value.signature, value.value))
    if code == "(":
        types = types_of(signature[1:-1])
        assert len(types) == len(value), f"{value!r} is no {signature}"
        return tuple(canonical(t, v) for t, v in zip(types, value))
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        return sorted((canonical(key, k), canonical(content, v)) for k, v in value.items())
    if code == "a":
        return [canonical(signature[1:], v) for v in value]
    kinds = {"b": bool, "s": str, "o": str, "g": str}
    assert type(value) is kinds.get(code, int), f"{value!r} is no {signature}"
    return (code, value)


RANGES = {
    "y": (0, 2**8 - 1), "n": (-(2**15), 2**15 - 1), "q": (0, 2**16 - 1), "i": (-(2**31), 2**31 - 1), "u": (0, 2**32 - 1),
    "x": (-(2**63), 2**63 - 1), "t": (0, 2**64 - 1),
}  # fmt: skip

# Text that is easily broken: quotes, escapes, spaces at the ends, control characters, all lengths of UTF-8.
TEXTS = ["", " ", "-", "--help", "'\"\\`$(x)", "\t two\nlines\r\n", "\x01\x1f\x7f", "é ß 中文 🙂 \U0010fffd", "%s%n", "{}[]()<>@as",
         "a" * 3000]  # fmt: skip


class Maker:
    """Random values."""

    def __init__(self, rng):
        self.rng = rng

    def text(self):
        if self.rng.random() < 0.3:
            return self.rng.choice(TEXTS)
        alphabet = "abcXYZ 0129_-.,;:'\"\\/<>é中🙂\n\t"
        return "".join(self.rng.choice(alphabet) for _ in range(self.rng.randrange(20)))

    def double(self):
        kind = self.rng.randrange(4)
        if kind == 0:
            return self.rng.choice([0.0, 0.1, -1.5, 2.0**53, 1.7976931348623157e308, 2.2250738585072014e-308])
        if kind == 1:
            return float(self.rng.randrange(-1000, 1000))
        return self.rng.uniform(-1, 1) * 10.0 ** self.rng.randrange(-200, 200)

    def path(self):
        parts = ["".join(self.rng.choice("abcXYZ019_") for _ in range(self.rng.randrange(1, 9)))
                 for _ in range(self.rng.randrange(5))]  # fmt: skip
        return "/" + "/".join(parts)

    def type(self, depth=3):
        """Any complete type, without descriptors."""
        kind = self.rng.randrange(9 if depth > 0 else 5)
        if kind < 5:
            return self.rng.choice("ybnqiuxtdsog")
        if kind == 5:
            return "a" + self.type(depth - 1)
        if kind == 6:
            return "(" + "".join(self.type(depth - 1) for _ in range(self.rng.randrange(1, 4))) + ")"
        if kind == 7:
            return "a{" + self.rng.choice("yqisuxt") + self.type(depth - 1) + "}"
        return "v"

    def value(self, signature, depth=3):
        code = signature[0]
        if code in RANGES:
            low, high = RANGES[code]
            return self.rng.choice([low, high, 0, self.rng.randint(low, high), self.rng.randint(low, high)])
        if code == "d":
            return self.double()
        if code == "b":
            return self.rng.random() < 0.5
        if code == "s":
            return self.text()
        if code == "o":
            return self.path()
        if code == "g":
            return "".join(self.type() for _ in range(self.rng.randrange(4)))
        if code == "v":
            content = self.type(depth - 1)
            return Variant(content, self.value(content, depth - 1))
        if code == "(":
            return tuple(self.value(t, depth) for t in types_of(signature[1:-1]))
        count = self.rng.choice([0, 1, 2, 5])
        if signature.startswith("a{"):
            key, content = types_of(signature[2:-1])
            return {self.value(key, depth): self.value(content, depth) for _ in range(count)}
        return [self.value(signature[1:], depth) for _ in range(count)]

    def options(self, is_strict):
        value = {"Seconds": Variant("u", self.value("u"))}
        if self.rng.random() < 0.7:
            value["Note"] = Variant("s", self.text())
        expected = dict(value)
        if not is_strict and self.rng.random() < 0.7:
            content = self.type(2)
            value["Later" + str(self.rng.randrange(9))] = Variant(content, self.value(content, 2))
        return value, expected


class Row:
    """One row of the gallery. `values` are pairs: what is sent, and what comes back."""

    def __init__(self, name, signature, maker, count):
        self.name = name
        self.signature = signature
        self.has_property = signature != "h"
        make = {
            "Triple": lambda: [maker.double() for _ in range(3)],
            "Choice": lambda: Variant(t := maker.rng.choice(["u", "s", "as"]), maker.value(t)),
            "Color": lambda: maker.rng.randrange(3),
            "Mode": lambda: maker.rng.choice(["off", "eco", "full"]),
        }.get(name, lambda: maker.value(signature))
        if name in ("Options", "StrictOptions"):
            self.values = [maker.options(name == "StrictOptions") for _ in range(count)]
            least = {"Seconds": Variant("u", 0)}
            self.values.append((least, least))
        elif signature == "h":
            self.values = []
        else:
            self.values = [(value, value) for value in (make() for _ in range(count))]
            self.values += [(value, value) for value in self.ends()]

    def ends(self):
        """The ends of the range and what each peer can express, whatever chance says."""
        rows = {
            "Color": [0, 2],
            "Mode": ["off", "eco", "full"],
            "Bytes": [[], list("é\n".encode())],
            "Strings": [[], [""], ["a", "b"]],
            "Anything": [Variant("s", ""), Variant("s", "x"), Variant("v", Variant("ay", [0, 255]))],
            "DictAny": [{}, {"": Variant("as", [])}],
            "Choice": [Variant("u", 0), Variant("s", "x"), Variant("as", [])],
        }
        signatures = {"s": TEXTS, "b": [True, False], "d": [0.0, 5e-300, -1.7976931348623157e308]}
        return rows.get(self.name) or signatures.get(self.signature) or RANGES.get(self.signature, ())


ROWS = [
    ("Byte", "y"), ("Int16", "n"), ("UInt16", "q"), ("Int32", "i"), ("UInt32", "u"), ("Int64", "x"), ("UInt64", "t"),
    ("Double", "d"), ("Boolean", "b"), ("String", "s"), ("ObjectPath", "o"), ("Signature", "g"), ("Descriptor", "h"),
    ("Bytes", "ay"), ("Doubles", "ad"), ("Strings", "as"), ("Booleans", "ab"), ("Triple", "ad"), ("Pairs", "a(ds)"),
    ("Matrix", "aad"), ("Texts", "a{ss}"), ("Numbers", "a{us}"), ("Structure", "(isd)"), ("Nested", "(i(sad))"),
    ("Options", "a{sv}"), ("StrictOptions", "a{sv}"), ("Anything", "v"), ("DictAny", "a{sv}"), ("Choice", "v"),
    ("Color", "u"), ("Mode", "s"),
]  # fmt: skip


def make_rows(seed, count):
    maker = Maker(random.Random(seed))
    return [Row(name, signature, maker, count) for name, signature in ROWS]


def invalid(text):
    return PREFIX + "InvalidArgs", text


def wrong_signature(sent, member, wanted):
    return invalid(f"Invalid arguments '{sent}' to call {INTERFACE}.{member}(), expecting '{wanted}'.")


SECONDS = Variant("u", 5)
# Row, signature and value that are sent, what the text says of the value. For the method and for the property.
WRONG_VALUES = [
    ("Color", "u", 3, "3 is not one of its values"),
    ("Color", "u", 2**32 - 1, "4294967295 is not one of its values"),
    ("Mode", "s", "fast", "'fast' is not one of its values"),
    ("Mode", "s", "Off", "'Off' is not one of its values"),
    ("Mode", "s", "", "'' is not one of its values"),
    ("Triple", "ad", [], "0 elements where 3 are wanted"),
    ("Triple", "ad", [1.0], "1 element where 3 are wanted"),
    ("Triple", "ad", [1.0, 2.0, 3.0, 4.0], "4 elements where 3 are wanted"),
    ("Options", "a{sv}", {}, "the key 'Seconds' is missing"),
    ("Options", "a{sv}", {"Note": Variant("s", "x")}, "the key 'Seconds' is missing"),
    ("Options", "a{sv}", {"Seconds": Variant("s", "5")}, (".Seconds", "'s' where 'u' is wanted")),
    ("Options", "a{sv}", {"Seconds": SECONDS, "Note": Variant("as", ["x"])}, (".Note", "'as' where 's' is wanted")),
    ("StrictOptions", "a{sv}", {}, "the key 'Seconds' is missing"),
    ("StrictOptions", "a{sv}", {"Seconds": SECONDS, "Minutes": Variant("u", 1)}, "the key 'Minutes' is unknown"),
    ("StrictOptions", "a{sv}", {"Seconds": SECONDS, "seconds": Variant("u", 1)}, "the key 'seconds' is unknown"),
    ("StrictOptions", "a{sv}", {"Seconds": Variant("i", 5)}, (".Seconds", "'i' where 'u' is wanted")),
    ("Choice", "v", Variant("d", 1.5), "'d' where 'u' or 's' or 'as' is wanted"),
    ("Choice", "v", Variant("i", 5), "'i' where 'u' or 's' or 'as' is wanted"),
    ("Choice", "v", Variant("v", Variant("u", 5)), "'v' where 'u' or 's' or 'as' is wanted"),
]


def deep(levels):
    """A variant with so many variants inside each other below it."""
    value = Variant("u", 5)
    for _ in range(levels):
        value = Variant("v", value)
    return value


def text_of(subject, fault):
    where, what = fault if isinstance(fault, tuple) else ("", fault)
    return f"{subject}{where}': {what}"


def wrong_calls():
    """Member, signature and values that are sent, name and text of the error that comes back."""
    calls = []
    for row, signature, value, fault in WRONG_VALUES:
        calls.append((f"Echo{row}", signature, [value], *invalid(text_of("argument 'x", fault))))
    calls += [
        ("EchoAnything", "v", [deep(33)], *invalid(text_of("argument 'x", "more than 32 containers inside each other"))),
        ("EchoByte", "u", [5], *wrong_signature("u", "EchoByte", "y")),
        ("EchoString", "", [], *wrong_signature("", "EchoString", "s")),
        ("EchoString", "ss", ["a", "b"], *wrong_signature("ss", "EchoString", "s")),
        ("EchoStructure", "(is)", [(1, "a")], *wrong_signature("(is)", "EchoStructure", "(isd)")),
        ("EchoPairs", "a(sd)", [[("a", 1.5)]], *wrong_signature("a(sd)", "EchoPairs", "a(ds)")),
        ("EchoTexts", "a{sv}", [{}], *wrong_signature("a{sv}", "EchoTexts", "a{ss}")),
        ("EchoNothing", "", [], PREFIX + "UnknownMethod", f"Unknown method EchoNothing or interface {INTERFACE}."),
    ]
    # Ends of calls that are not of the arguments' making.
    calls += [
        ("Fail", "ss", ["com.example.Error.Hot", "too hot: 451 °F"], "com.example.Error.Hot", "too hot: 451 °F"),
        ("Fail", "ss", ["com.example.Error.Hot", ""], "com.example.Error.Hot", ""),
        ("Fail", "ss", ["no name", "why"], PREFIX + "Failed", "no name: why"),
        ("Throw", "s", ["bad_alloc"], PREFIX + "NoMemory", "out of memory"),
        ("Throw", "s", ["runtime_error"], PREFIX + "Failed", "the service failed internally"),
        ("Throw", "s", ["int"], PREFIX + "Failed", "the service failed internally"),
        ("Throw", "s", ["nothing"], *invalid("'nothing' is neither thrown nor a StatusCode")),
        ("Drop", "", [], PREFIX + "Failed", "the service dropped the call"),
        ("Later", "us", [10001, "x"], *invalid("more than ten seconds")),
        ("Add", "s", ["/elsewhere"], *invalid("'/elsewhere' is no object path below /com/example")),
        ("Add", "s", ["/com/example/a b"], *invalid("'/com/example/a b' is no object path below /com/example")),
        ("Remove", "s", ["/com/example/none"], "mwl.StatusCode.NotFound", "NotFound"),
    ]
    standard = {
        "AccessDenied": "AccessDenied", "NotPermitted": "AccessDenied", "InvalidArgument": "InvalidArgs",
        "NotSupported": "NotSupported", "OutOfMemory": "NoMemory", "Timeout": "Timeout", "ResourceUnavailable": "LimitsExceeded",
    }  # fmt: skip
    own = ["Failure", "StreamError", "Busy", "Stopping", "Deadlock", "AlreadyExists", "Interrupted", "IoError", "KeyNotFound",
           "NotFound", "OpenFailed", "NotInitialized"]  # fmt: skip
    calls += [("Throw", "s", [status], PREFIX + name, status) for status, name in standard.items()]
    calls += [("Throw", "s", [status], "mwl.StatusCode." + status, status) for status in own]
    return calls


def wrong_properties():
    """Property, signature and value that are written, name and text of the error that comes back."""
    cases = [(row, signature, value, *invalid(text_of(f"property '{row}", fault)))
             for row, signature, value, fault in WRONG_VALUES]  # fmt: skip
    for row, sent, value, wanted in [("Byte", "u", 5, "y"), ("Strings", "s", "x", "as"), ("Options", "a{ss}", {}, "a{sv}")]:
        cases.append((row, sent, value, *invalid(f"Incorrect parameters for property '{row}', expected '{wanted}', got '{sent}'.")))
    return cases


class Report:
    def __init__(self, peer):
        self.peer = peer
        self.failures = 0
        self.done = {}

    def check(self, kind, is_good, what):
        self.done[kind] = self.done.get(kind, 0) + 1
        if not is_good:
            self.failures += 1
            if self.failures <= 30:
                print(f"FAILED {self.peer}: {what}")

    def end(self):
        for kind, count in self.done.items():
            print(f"{self.peer}: {kind}: {count}")
        print(f"{self.failures} failures")
        return 1 if self.failures else 0


def seed_of_today():
    seed = int(os.environ.get("INTEROP_SEED") or time.time_ns() % 2**31)
    print(f"seed {seed} (INTEROP_SEED={seed} repeats it)")
    return seed


def equal(signature, found, expected):
    try:
        return canonical(signature, found) == canonical(signature, expected)
    except (AssertionError, TypeError, AttributeError, struct.error) as error:
        print(f"  {error}")
        return False


def parts(signature, value):
    """The value and all that is in it, each with its signature."""
    yield signature, value
    inner = []
    if signature == "v":
        inner = [(value.signature, value.value)]
    elif signature[0] == "(":
        inner = zip(types_of(signature[1:-1]), value)
    elif signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        inner = [pair for k, v in value.items() for pair in ((key, k), (content, v))]
    elif signature[0] == "a":
        inner = [(signature[1:], v) for v in value]
    for part in inner:
        yield from parts(*part)


def glib_misreads(signature, value):
    """GLib 2.74 loses the last structure or entry of an array when it takes no more than four bytes, also in messages of its
    own. Sizes are taken as the smallest that the type can have; those of a fixed size are read."""
    smallest = {"y": 1, "n": 2, "q": 2, "x": 8, "t": 8, "d": 8, "g": 2, "s": 5, "o": 5}

    def size(code):
        if code[0] in "({":
            return sum(size(t) for t in types_of(code[1:-1]))
        return smallest.get(code[0], 4)

    def is_lost(code):
        is_array = code[0] == "a" and code[1] in "({"
        return is_array and bool(set(code[1:]) & set("asogv")) and size(code[1:]) <= 4

    return any(is_lost(code) for code, _ in parts(signature, value))


def short(value):
    text = repr(value)
    return text if len(text) < 300 else text[:300] + "..."


def run(peer, seed, count=3):
    """Tries everything that the peer can express. The exit status.

    peer.name
    peer.call(member, signature, values) -> [values]     of the gallery's interface; Refused, CannotSay
    peer.get(row) -> value, peer.set(row.name, signature, value)    Refused, CannotSay
    peer.heard() -> [(member, [values])]      signals of the gallery so far, in order, or None where the peer hears none;
                                              PropertiesChanged as well
    peer.cannot     rows that it cannot express in a method, hold as a property, hear in a signal
    peer.tells_names    whether it tells the names of errors
    """
    report = Report(peer.name)
    expected = []  # signals, in order
    said = {}

    def expect(member, row, wanted):
        if row.name not in peer.cannot["signal"]:
            expected.append((member, row.signature, wanted))

    def note(row, how):
        said.setdefault(row, set()).add(how)

    for row in make_rows(seed, count):
        for sent, wanted in row.values:
            try:
                found = peer.call("Echo" + row.name, row.signature, [sent])
                expect("Got" + row.name, row, wanted)
                report.check("echoes", len(found) == 1 and equal(row.signature, found[0], wanted),
                             f"Echo{row.name}: {short(sent)} came back as {short(found)}")  # fmt: skip
                note(row.name, "method")
            except CannotSay:
                pass
            except Refused as refused:
                report.check("echoes", False, f"Echo{row.name}: {short(sent)} was refused: {refused}")
            if not row.has_property:
                continue
            try:
                peer.set(row.name, row.signature, sent)
                expect(row.name, row, wanted)
                found = peer.get(row)
                report.check("properties", equal(row.signature, found, wanted),
                             f"{row.name}: {short(sent)} became {short(found)}")  # fmt: skip
                note(row.name, "property")
            except CannotSay:
                pass
            except Refused as refused:
                report.check("properties", False, f"{row.name}: {short(sent)} was refused: {refused}")

    def heard():
        """Signals of rows, and changes of properties in the same form."""
        told = []
        for member, values in peer.heard():
            if member != "PropertiesChanged":
                told.append((member, values[0]))
            elif values[0] == INTERFACE:
                told += [(name, variant.value) for name, variant in values[1].items()]
        return [(member, value) for member, value in told if member.removeprefix("Got") not in peer.cannot["signal"]]

    if peer.heard() is not None:
        deadline = time.monotonic() + 20
        while len(heard()) < len(expected) and time.monotonic() < deadline:
            time.sleep(0.02)
        told = heard()
        report.check("signals", len(told) == len(expected), f"{len(told)} signals instead of {len(expected)}")
        for (member, signature, wanted), (found_member, found) in zip(expected, told):
            report.check("signals", member == found_member and equal(signature, found, wanted),
                         f"{member} {short(wanted)} was heard as {found_member} {short(found)}")  # fmt: skip

    def refuses(what, action, name, text):
        try:
            action()
            report.check("refusals", False, f"{what} was not refused")
        except CannotSay:
            pass
        except Refused as refused:
            # Where a peer does not tell the name, the text has to do.
            is_good = refused.text == text and (refused.name == name or (refused.name is None and not peer.tells_names))
            report.check("refusals", is_good, f"{what} was refused by {refused} instead of {name}: {text}")

    before = len(heard()) if peer.heard() is not None else 0
    for member, signature, values, name, text in wrong_calls():
        refuses(f"{member}{short(values)}", lambda: peer.call(member, signature, values), name, text)
    for row, signature, value, name, text in wrong_properties():
        refuses(f"{row} = {short(value)}", lambda: peer.set(row, signature, value), name, text)
    for action, expectation in [
        (lambda: peer.call("Later", "us", [50, "later"]), ["later"]),
        (lambda: peer.call("Closed", "", []), []),
        (lambda: peer.call("Throw", "s", ["Ok"]), []),
        (lambda: peer.call("Add", "s", ["/com/example/interop"]), []),
        (lambda: peer.call("Remove", "s", ["/com/example/interop"]), []),
    ]:
        try:
            found = action()
            report.check("calls", found == expectation, f"{found} instead of {expectation}")
        except CannotSay:
            pass
        except Refused as refused:
            report.check("calls", False, f"a call was refused: {refused}")
    # What was refused has told nobody anything.
    if peer.heard() is not None:
        time.sleep(0.05)
        report.check("signals", len(heard()) == before, f"signals of refused calls: {short(heard()[before:])}")
    for how in ("method", "property"):
        rows = [name for name, hows in said.items() if how in hows]
        left_out = [name for name, _ in ROWS if name not in rows and not (how == "property" and name == "Descriptor")]
        print(f"{peer.name}: {how} of {len(rows)} rows" + (f", not {', '.join(left_out)}" if left_out else ""))
        # A peer that expresses nothing any more must not pass.
        report.check("rows", sorted(left_out) == sorted(peer.cannot[how]),
                     f"rows without a {how}: {left_out} instead of {peer.cannot[how]}")  # fmt: skip
    return report.end()


# --- the plan for peers in other languages


def to_json(signature, value):
    """64-bit integers and keys as text, dictionaries as lists of pairs, as JSON knows neither."""
    if signature in ("x", "t"):
        return str(value)
    if signature == "v":
        return {"signature": value.signature, "value": to_json(value.signature, value.value)}
    if signature[0] == "(":
        return [to_json(t, v) for t, v in zip(types_of(signature[1:-1]), value)]
    if signature.startswith("a{"):
        key, content = types_of(signature[2:-1])
        return [[to_json(key, k), to_json(content, v)] for k, v in value.items()]
    if signature[0] == "a":
        return [to_json(signature[1:], v) for v in value]
    return value


def plan(seed, count=3):
    return {
        "rows": [{"name": row.name, "signature": row.signature, "hasProperty": row.has_property,
                  "values": [[to_json(row.signature, v) for v in pair] for pair in row.values]}
                 for row in make_rows(seed, count)],
        "wrongCalls": [{"member": member, "signature": signature, "name": name, "text": text,
                        "values": [to_json(t, v) for t, v in zip(types_of(signature), values)]}
                       for member, signature, values, name, text in wrong_calls()],
        "wrongProperties": [{"row": row, "signature": signature, "name": name, "text": text, "value": to_json(signature, value)}
                            for row, signature, value, name, text in wrong_properties()],
    }  # fmt: skip


if __name__ == "__main__":
    print(json.dumps(plan(int(sys.argv[1]))))
