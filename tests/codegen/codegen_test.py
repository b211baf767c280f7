#!/usr/bin/env python3
"""The generator alone: what it writes for golden/*.xml, what it refuses and how, and that nothing brings it down.

  codegen_test.py TOOL [unittest's arguments]
  codegen_test.py TOOL --update     writes golden/ again; look at the difference before it is committed
  codegen_test.py TOOL --fuzz SECONDS [FOLDER]
                                    tries texts changed by chance for so long; one that brings the generator down is left in
                                    FOLDER and ends it with status 1. What it finds is kept in corpus/ when it is fixed.

TERN_SEED is the chance's, TERN_ROUNDS how many texts the test tries.
"""
import collections
import contextlib
import difflib
import importlib.machinery
import importlib.util
import io
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import unittest
import unittest.mock
import xml.etree.ElementTree as ElementTree

TOOL = ""
HERE = pathlib.Path(__file__).resolve().parent
GOLDEN = HERE / "golden"
# Texts that brought the generator down once, or what it wrote; and what is like them.
CORPUS = HERE / "corpus"
FORMS = ("{}_contract.h", "{}_skeleton.h", "{}_proxy.h", "{}.md")
# How long one run may take; busy machines and emulators are slow.
SECONDS = 60
MOST_MEMORY = 512 << 20


def load_tool():
    """As a module, as starting Python for each of hundreds of texts takes most of the time."""
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader("tern_dbus_codegen", TOOL)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def golden_arguments(name):
    return ["--namespace", f"golden::{name}", str(GOLDEN / f"{name}.xml")]


def interface(body, name="com.example.A"):
    return f'<node>\n<interface name="{name}">\n{body}\n</interface>\n</node>\n'


def method(arguments, attributes=""):
    return interface(f'<method name="M"{attributes}>{arguments}</method>')


class Fixture(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.out = self.folder / "out"
        self.out.mkdir()

    def xml(self, text, name="a.xml"):
        path = self.folder / name
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return str(path)

    def run_tool(self, *arguments, **more):
        """As a program: (status, standard error)."""
        done = subprocess.run(
            [sys.executable, TOOL, *map(str, arguments)], capture_output=True, text=True, timeout=SECONDS, **more
        )
        return done.returncode, done.stderr

    def run_here(self, *arguments):
        """As a module of this program: (status, standard error)."""
        said = io.StringIO()
        with contextlib.redirect_stderr(said):
            status = MODULE.run([str(a) for a in arguments])
        return status, said.getvalue()

    def read(self, name):
        return (self.out / name).read_text()

    def assert_nothing_written(self):
        self.assertEqual(list(self.out.iterdir()), [])

    def assert_refused(self, text, message, *options):
        """`message` stands behind the file's name and a colon: LINE: PLACE: TEXT"""
        path = self.xml(text)
        status, said = self.run_here(*options, path, self.out)
        self.assertEqual(said, f"{path}:{message}\ntern-dbus-codegen: nothing was written\n")
        self.assertEqual(status, 1)
        self.assert_nothing_written()


class Golden(Fixture):
    def test_writes_what_it_wrote_before(self):
        for name in ("room", "names"):
            status, said = self.run_here(*golden_arguments(name), self.out)
            self.assertEqual((status, said), (0, ""))
            for form in FORMS:
                file = form.format(name)
                old, new = (GOLDEN / file).read_text(), self.read(file)
                if old != new:
                    sys.stdout.writelines(
                        difflib.unified_diff(old.splitlines(True), new.splitlines(True), f"golden/{file}", "written now")
                    )
                self.assertEqual(old, new, f"{file} differs; --update takes what is written now")

    def test_same_input_gives_the_same_bytes_wherever_it_lies_and_whenever(self):
        first = self.folder / "first"
        self.assertEqual(self.run_tool(*golden_arguments("room"), first)[0], 0)
        shutil.copy(GOLDEN / "room.xml", self.folder / "room.xml")
        environment = {"PATH": os.environ["PATH"], "PYTHONHASHSEED": "7", "LC_ALL": "C", "TZ": "Asia/Tokyo"}
        status, said = self.run_tool("--namespace", "golden::room", "room.xml", "second", cwd=self.folder, env=environment)
        self.assertEqual((status, said), (0, ""))
        for form in FORMS:
            file = form.format("room")
            self.assertEqual((first / file).read_bytes(), (self.folder / "second" / file).read_bytes())

    def test_the_encoding_does_not_matter(self):
        text = (GOLDEN / "room.xml").read_text()
        for encoding, declared in (("utf-16", ""), ("iso-8859-1", '<?xml version="1.0" encoding="iso-8859-1"?>')):
            path = self.xml((declared + text).encode(encoding), "room.xml")
            self.assertEqual(self.run_here("--namespace", "golden::room", path, self.out), (0, ""))
            for form in FORMS:
                self.assertEqual(self.read(form.format("room")), (GOLDEN / form.format("room")).read_text())

    def test_names_no_folder_and_no_date(self):
        self.run_here(*golden_arguments("room"), self.out)
        for file in self.out.iterdir():
            self.assertNotIn(str(GOLDEN), file.read_text())
            self.assertNotIn(time.strftime("%Y"), file.read_text())


class Options(Fixture):
    def test_writes_only_what_is_asked_for(self):
        path = self.xml(interface('<method name="M"/>'))
        for options, files in (
            (["--server"], ["a_contract.h", "a_skeleton.h"]),
            (["--client"], ["a_contract.h", "a_proxy.h"]),
            (["--docs", self.out], ["a.md", "a_contract.h"]),
            (["--server", "--name", "b"], ["b_contract.h", "b_skeleton.h"]),
        ):
            self.assertEqual(self.run_here(*options, path, self.out), (0, ""))
            self.assertEqual(sorted(f.name for f in self.out.iterdir()), files)
            for file in self.out.iterdir():
                file.unlink()

    def test_what_is_not_marked_is_closed_unless_it_is_told_otherwise(self):
        path = self.xml(interface('<method name="M"/><property name="P" type="u" access="readwrite"/>'))
        self.run_here("--server", path, self.out)
        self.assertNotIn("OPEN", self.read("a_contract.h"))
        self.run_here("--server", "--open", path, self.out)
        self.assertEqual(self.read("a_contract.h").count("mwl::Typed::OPEN"), 2)

    def test_what_is_marked_counts_whatever_is_told(self):
        mark = '<annotation name="org.freedesktop.systemd1.Privileged" value="{}"/>'
        body = "".join(f'<method name="{v}">{mark.format(v)}</method>' for v in ("true", "false"))
        for options in ([], ["--open"]):
            self.run_here("--server", *options, self.xml(interface(body)), self.out)
            self.assertIn('true_{"true", {}, mwl::Typed::Flags{}}', self.read("a_contract.h"))
            self.assertIn('false_{"false", {}, mwl::Typed::OPEN}', self.read("a_contract.h"))

    def test_what_the_interface_is_marked_with_counts_for_its_members(self):
        mark = '<annotation name="org.freedesktop.systemd1.Privileged" value="{}"/>'
        members = f'<method name="A"/><property name="P" type="u" access="readwrite"/><method name="B">{mark.format("{}")}</method>'
        for value, other, options, is_open in (("true", "false", ["--open"], {"B"}), ("false", "true", [], {"A", "P"})):
            body = mark.format(value) + members.format(other)
            self.assertEqual(self.run_here("--server", *options, self.xml(interface(body)), self.out), (0, ""))
            lines = " ".join(self.read("a_contract.h").split()).split(";")
            self.assertEqual({m for m in "ABP" for line in lines if f'"{m}"' in line and "OPEN" in line}, is_open)

    def test_takes_one_interface_of_several(self):
        text = '<node><interface name="a.A"/><interface name="a.B"/><interface name="a.C"/></node>'
        self.assertEqual(self.run_here("--interface", "a.C", "--interface", "a.A", self.xml(text), self.out), (0, ""))
        self.assertIn("struct A {", self.read("a_contract.h"))
        self.assertNotIn("struct B {", self.read("a_contract.h"))
        self.assertIn("struct C {", self.read("a_contract.h"))

    def test_stubs_are_written_once(self):
        path = self.xml(interface('<method name="M"/><property name="P" type="u" access="readwrite"/>'))
        self.assertEqual(self.run_here("--stubs", path, self.out), (0, ""))
        self.assertEqual(sorted(f.name for f in self.out.iterdir()), ["a_interface.cpp", "a_interface.h"])
        self.assertIn('NotSupported("M is not written yet")', self.read("a_interface.cpp"))
        (self.out / "a_interface.h").unlink()
        (self.out / "a_interface.cpp").write_text("edited")
        status, said = self.run_here("--stubs", path, self.out)
        self.assertEqual(status, 1)
        self.assertEqual(said, f"tern-dbus-codegen: {self.out}/a_interface.cpp is there already, and may have been edited; "
                         "nothing was written\n")
        self.assertEqual([(f.name, f.read_text()) for f in self.out.iterdir()], [("a_interface.cpp", "edited")])

    def test_names_the_files_after_the_xml(self):
        path = self.xml(interface(""), "com.Example-Room.xml")
        self.assertEqual(self.run_here("--server", path, self.out), (0, ""))
        self.assertTrue((self.out / "com_example_room_contract.h").exists())

    def test_wrong_use_is_status_2_with_nothing_written(self):
        path = self.xml(interface(""))
        for arguments in (
            [],
            [path, self.out, "more"],
            ["--colour", path],
            ["--name", "../a", path, self.out],
            ["--name", "", path, self.out],
            ["--namespace", "a::", path, self.out],
            ["--namespace", "a::class", path, self.out],
            ["--namespace", "std", path, self.out],
            ["--namespace", "a::mw", path, self.out],
            ["--namespace", "a b", path, self.out],
            ["--user", path, self.out],
            ["--address", "unix:path=/x", path, self.out],
            ["--stubs", "--server", path, self.out],
            ["--from-bus", "a.b"],
            ["--from-bus", "", "/", self.out],
            ["--from-bus", "a.b", "/", "--user", "--address", "unix:path=/x", self.out],
        ):
            with self.subTest(arguments=arguments[:2]), contextlib.redirect_stderr(io.StringIO()) as said:
                with self.assertRaises(SystemExit) as ended:
                    MODULE.run([str(a) for a in arguments])
                self.assertEqual(ended.exception.code, 2)
                self.assertIn("tern-dbus-codegen: error: ", said.getvalue())
                self.assert_nothing_written()

    def test_helps(self):
        done = subprocess.run([sys.executable, TOOL, "--help"], capture_output=True, text=True, timeout=SECONDS)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        for option in ("--server", "--client", "--docs", "--open", "--from-bus", "--namespace", "--entities"):
            self.assertIn(option, done.stdout)


ANNOTATION = '<annotation name="{}" value="{}"/>'
DEEP = "a" * 33 + "u"
MISTAKES = (
    # No XML, or another one.
    ("", "1: no XML: no element found, at column 1"),
    ("<node>\n<interface></node>", "2: no XML: mismatched tag, at column 14"),
    ('<?xml version="1.0" encoding="martian"?><node/>', "1: no XML: unknown encoding: martian"),
    (b"<node>\n\xff</node>", "2: no XML: not well-formed (invalid token), at column 1"),
    ("<svg/>", "1: the outermost element is 'svg', not 'node'"),
    ("<node/>", "1: there is no interface to generate from"),
    ('<node><interface name="org.freedesktop.DBus.Peer"/></node>', "1: there is no interface to generate from"),
    # Elements and attributes.
    (interface("\n<methd name='M'/>"), "4: the element 'methd' is unknown in 'interface'"),
    ('<node><method name="M"/></node>', "1: the element 'method' is unknown in 'node'"),
    (method("\n<arg typ='u' type='u'/>"), "4: the attribute 'typ' of 'arg' is unknown"),
    # Names.
    (interface("", "com"), "2: com: an interface's name has two or more parts with dots between them, each of letters, "
     "digits and '_', not beginning with a digit, and 255 characters at most"),
    (interface("", "a.b-c"), "2: a.b-c: an interface's name has two or more parts with dots between them, each of letters, "
     "digits and '_', not beginning with a digit, and 255 characters at most"),
    ('<node><interface name="a.A"/>\n<interface name="a.A"/></node>', "2: a.A: the interface is there twice, first in line 1"),
    (interface("<method/>"), "3: com.example.A: there is no name"),
    (interface('<method name="1"/>'), "3: com.example.A.1: a member's name is of letters, digits and '_', does not begin "
     "with a digit and has 255 characters at most"),
    (interface('<signal name="a.b"/>'), "3: com.example.A.a.b: a member's name is of letters, digits and '_', does not "
     "begin with a digit and has 255 characters at most"),
    (interface('<method name="M"/>\n<method name="M"/>'), "4: com.example.A.M: the method is there twice, first in line 3"),
    (interface('<signal name="M"/><signal name="M"/>'), "3: com.example.A.M: the signal is there twice, first in line 3"),
    (method("<arg name='a b' type='u'/>"), "3: com.example.A.M: the argument 'a b': its name is not of letters, digits, "
     "'_', '-' and '.'"),
    (method("<arg name='größe' type='u'/>"), "3: com.example.A.M: the argument 'größe': its name is not of letters, digits, "
     "'_', '-' and '.'"),
    (interface('<method name="Öffne"/>'), "3: com.example.A.Öffne: a member's name is of letters, digits and '_', does not "
     "begin with a digit and has 255 characters at most"),
    (interface("", "com.exämple"), "2: com.exämple: an interface's name has two or more parts with dots between them, each of "
     "letters, digits and '_', not beginning with a digit, and 255 characters at most"),
    ("".join(('<node>', *(f'<interface name="a.b{i}"/>' for i in range(1025)), '</node>')), "1: more than 1024 interfaces"),
    # Types.
    (method("<arg name='a' type='u'/><arg type='uu'/>"), "3: com.example.A.M: the argument number 2: the signature 'uu' is of "
     "several types; one is wanted"),
    (method("<arg/>"), "3: com.example.A.M: the argument number 1: there is no type"),
    (method("\n<arg type='u'/>\n<arg type='uu'/>"), "5: com.example.A.M: the argument number 2: the signature 'uu' is of "
     "several types; one is wanted"),
    (method("<arg name='x' type='k'/>"), "3: com.example.A.M: the argument 'x': the signature 'k' has 'k', which is no type"),
    (method("<arg type='a'/>"), "3: com.example.A.M: the argument number 1: the signature 'a' ends in the middle of a type"),
    (method("<arg type='(s'/>"), "3: com.example.A.M: the argument number 1: the signature '(s' ends in the middle of a type"),
    (method("<arg type='()'/>"), "3: com.example.A.M: the argument number 1: the signature '()' has an empty structure"),
    (method("<arg type='a{vs}'/>"), "3: com.example.A.M: the argument number 1: the signature 'a{vs}' has a dictionary "
     "whose key is no basic type"),
    (method("<arg type='a{hs}'/>"), "3: com.example.A.M: the argument number 1: the signature 'a{hs}' has a dictionary "
     "whose key is a file descriptor"),
    (method("<arg type='a{sss}'/>"), "3: com.example.A.M: the argument number 1: the signature 'a{sss}' has a dictionary "
     "without its '}' behind one value"),
    (method("<arg type='{ss}'/>"), "3: com.example.A.M: the argument number 1: the signature '{ss}' has '{', which is no type"),
    (method(f"<arg type='{DEEP}'/>"), f"3: com.example.A.M: the argument number 1: the signature '{DEEP}' has more than 32 "
     "of 'a' inside each other"),
    (method(f"<arg type='({'u' * 254})'/>"), f"3: com.example.A.M: the argument number 1: the signature '({'u' * 59}...' "
     "has more than 255 characters"),
    (method("<arg type='(%s)'/>" % ("u" * 253) + "<arg type='u'/>"), "3: com.example.A.M: the types of the arguments "
     "together have more than 255 characters"),
    (method(ANNOTATION.format("mwl.Typed.Type", "x").join(("<arg type='u'>", "</arg>")).replace('"x"', '"x; y"')),
     "3: com.example.A.M: the argument number 1: the annotation 'mwl.Typed.Type' says 'x; y', which is no C++ type"),
    (interface(ANNOTATION.format("mwl.Typed.Include", "a.h \\b")), "2: com.example.A: the annotation 'mwl.Typed.Include' has "
     "'\\b', which is no header's name"),
    # Directions, access.
    (method("<arg type='u' direction='sideways'/>"), "3: com.example.A.M: the argument number 1: its direction is "
     "'sideways', not in or out"),
    (interface("<signal name='S'><arg name='x' type='u' direction='in'/></signal>"), "3: com.example.A.S: the argument 'x': "
     "its direction is 'in', and it is of a signal"),
    (interface("<property name='P' type='u'/>"), "3: com.example.A.P: the property's access is '', not read or readwrite"),
    (interface("<property name='P' type='u' access='write'/>"), "3: com.example.A.P: the property can be written and not "
     "be read, which sd-bus has not"),
    (interface("<property name='P' access='read'/>"), "3: com.example.A.P: there is no type"),
    # Annotations.
    (method(ANNOTATION.format("org.freedesktop.DBus.Deprecated", "yes")), "3: com.example.A.M: the annotation "
     "'org.freedesktop.DBus.Deprecated' says 'yes', not true or false"),
    (method(ANNOTATION.format("mwl.Typed.Sensitiv", "true")), "3: com.example.A.M: the annotation 'mwl.Typed.Sensitiv' is "
     "unknown"),
    (method("<annotation value='true'/>"), "3: com.example.A.M: an annotation has no name"),
    (method(2 * ("\n" + ANNOTATION.format("mwl.Typed.Deferred", "true"))), "5: com.example.A.M: the annotation "
     "'mwl.Typed.Deferred' is there twice"),
    (interface(f"<property name='P' type='u' access='read'>{ANNOTATION.format('mwl.Typed.Deferred', 'true')}</property>"),
     "3: com.example.A.P: the annotation 'mwl.Typed.Deferred' has no meaning for the element 'property'"),
    (method("<arg type='u' direction='out'/>" + ANNOTATION.format("org.freedesktop.DBus.Method.NoReply", "true")),
     "3: com.example.A.M: the method has a result, and nobody expects a reply"),
    (interface("<property name='P' type='u' access='read'>" + ANNOTATION.format("org.freedesktop.systemd1.Explicit", "true")
               + "</property>"), "3: com.example.A.P: the property is not sent unasked, and its changes are: "
     "'org.freedesktop.DBus.Property.EmitsChangedSignal' says true"),
    (interface("<property name='P' type='u' access='readwrite'>" + ANNOTATION.format(
        "org.freedesktop.DBus.Property.EmitsChangedSignal", "const") + "</property>"), "3: com.example.A.P: the property can "
     "be written, and 'org.freedesktop.DBus.Property.EmitsChangedSignal' says const"),
    (interface("".join(f"<property name='P{i}' type='u' access='read'/>" for i in range(65))), "2: com.example.A: more than "
     "64 properties announce their changes"),
    (method("\n" + ANNOTATION.format("org.gtk.GDBus.DocString", "ä" * 32768)), "4: com.example.A.M: the documentation has more "
     "than 65535 bytes"),
    # Entities.
    ('<!DOCTYPE node SYSTEM "x.dtd">\n<node><!-- &a; --><interface name="a.A">\n<method name="M&b;"/></interface></node>',
     "3: the entity 'b' is not declared in the file itself"),
    ('<!DOCTYPE node SYSTEM "x.dtd">\n<node><interface name="a.A"><method name="M&b;"/></interface></node>'.encode("utf-16"),
     "2: the entity 'b' is not declared in the file itself"),
    ('<!DOCTYPE node [\n<!ENTITY a "b">]>\n<node/>', "2: the entity 'a' is declared; --entities takes those that are short "
     "plain texts"),
    # What a message shows of a text is short and on one line.
    (f'<node><interface name="a.A"><property name="P" type="u" access="{"x" * 100}"/></interface></node>',
     f"1: a.A.P: the property's access is '{'x' * 60}...', not read or readwrite"),
    (f'<node><interface name="a&#10;{"b" * 1000}"/></node>', f"1: a?{'b' * 58}...: an interface's name has two or more parts with "
     "dots between them, each of letters, digits and '_', not beginning with a digit, and 255 characters at most"),
    (interface('<method name="&#9;M&#x202e;"/>'), "3: com.example.A.?M?: a member's name is of letters, digits and '_', does not "
     "begin with a digit and has 255 characters at most"),
)


class Mistakes(Fixture):
    def test_each_is_told_with_line_interface_and_member(self):
        for text, message in MISTAKES:
            with self.subTest(message=message):
                self.assert_refused(text, message)

    def test_all_of_a_file_are_told_at_once(self):
        path = self.xml(interface("<method name='1'/>\n<signal name='S'><arg type='z'/></signal>\n<method name='M'/>"))
        status, said = self.run_here(path, self.out)
        self.assertEqual(status, 1)
        self.assertEqual([line.split(": ")[:2] for line in said.splitlines()[:-1]],
                         [[f"{path}:3", "com.example.A.1"], [f"{path}:4", "com.example.A.S"]])

    def test_of_very_many_the_first_ones_are_told(self):
        path = self.xml(interface("\n".join(f"<method name='{i}'/>" for i in range(500))))
        status, said = self.run_here(path, self.out)
        self.assertEqual((status, len(said.splitlines())), (1, 22))
        self.assertIn("and 480 mistakes more\n", said)

    def test_an_interface_that_is_asked_for_and_not_there(self):
        self.assert_refused(interface(""), "1: com.example.B: the interface is not there", "--interface", "com.example.B")

    def test_entities_that_grow_are_refused_also_where_some_are_taken(self):
        declared = '<!DOCTYPE node [\n<!ENTITY a "{}">\n<!ENTITY b "&a;&a;">]>\n<node/>'
        self.assert_refused(declared.format("b"), "3: the entity 'b' is not a plain text of at most 128 characters", "--entities")
        self.assert_refused(declared.format("b" * 129), "2: the entity 'a' is not a plain text of at most 128 characters",
                            "--entities")
        self.assert_refused('<!DOCTYPE node [<!ENTITY a SYSTEM "/etc/passwd">]><node/>',
                            "1: the entity 'a' is not a plain text of at most 128 characters", "--entities")
        self.assert_refused('<!DOCTYPE node [<!ENTITY % a "b">]><node/>',
                            "1: the entity 'a' is not a plain text of at most 128 characters", "--entities")
        many = "".join(f'<!ENTITY a{i} "b">' for i in range(17))
        self.assert_refused(f"<!DOCTYPE node [{many}]><node/>", "1: more than 16 entities are declared", "--entities")

    def test_plain_entities_are_taken_where_they_are_allowed(self):
        text = '<!DOCTYPE node [<!ENTITY name "Boost">]>' + interface('<method name="&name;"/>')
        self.assertEqual(self.run_here("--entities", self.xml(text), self.out), (0, ""))
        self.assertIn('"Boost"', self.read("a_contract.h"))

    def test_nothing_outside_the_file_is_read(self):
        (self.folder / "other.dtd").write_text('<!ENTITY name "Boost">')
        text = f'<!DOCTYPE node SYSTEM "{self.folder}/other.dtd">' + interface('<method name="M&name;"/>')
        self.assert_refused(text, "3: the entity 'name' is not declared in the file itself")
        self.assert_refused(text, "3: the entity 'name' is not declared in the file itself", "--entities")
        # In text that is not used they may be whatever they are.
        text = f'<!DOCTYPE node SYSTEM "{self.folder}/other.dtd">' + interface(
            '<method name="M&#78;"/><doc:doc>&name; &lt;</doc:doc><!-- <a b="&name;"> --><![CDATA[ <a b="&name;"> ]]>')
        self.assertEqual(self.run_here(self.xml(text), self.out), (0, ""))
        self.assertIn('"MN"', self.read("a_contract.h"))


class Files(Fixture):
    def test_what_cannot_be_read_is_told(self):
        for path, why in ((self.folder / "none.xml", "No such file or directory"), (self.folder, "Is a directory")):
            status, said = self.run_here(path, self.out)
            self.assertEqual((status, said), (1, f"tern-dbus-codegen: {path} cannot be read: {why}; nothing was written\n"))
        self.assert_nothing_written()

    def test_all_are_written_or_none(self):
        (self.out / "a_skeleton.h").mkdir()
        path = self.xml(interface('<method name="M"/>'))
        status, said = self.run_here(path, self.out)
        self.assertEqual(
            (status, said), (1, f"tern-dbus-codegen: {self.out}/a_skeleton.h is a folder; nothing was written\n")
        )
        self.assertEqual([f.name for f in self.out.iterdir()], ["a_skeleton.h"])

    def test_a_mistake_leaves_what_was_written_before(self):
        self.run_here(self.xml(interface('<method name="M"/>')), self.out)
        before = {f.name: f.read_bytes() for f in self.out.iterdir()}
        self.assertEqual(self.run_here(self.xml(interface('<method name="1"/>')), self.out)[0], 1)
        self.assertEqual({f.name: f.read_bytes() for f in self.out.iterdir()}, before)

    def test_a_full_disk_leaves_nothing(self):
        # The limit stands in for it: the signal is ignored, so writing fails.
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (512, 512))

        status, said = self.run_tool("--server", self.xml(interface('<method name="M"/>')), self.out, preexec_fn=limit)
        self.assertEqual(status, 1)
        self.assertRegex(said, r"^tern-dbus-codegen: .* cannot be written: File too large; nothing was written\n$")
        self.assert_nothing_written()

    def test_a_disk_that_is_full_at_the_second_file_leaves_nothing(self):
        path = self.xml(interface("".join(f'<method name="M{i}"/>' for i in range(9))))
        self.assertEqual(self.run_tool("--server", path, self.out)[0], 0)
        sizes = sorted(f.stat().st_size for f in self.out.iterdir())
        self.assertLess(sizes[0], sizes[1])

        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (sizes[0], sizes[0]))

        new = self.folder / "new" / "deep"
        status, said = self.run_tool("--server", path, new, preexec_fn=limit)
        self.assertEqual((status, said), (1, f"tern-dbus-codegen: {new}/a_skeleton.h cannot be written: File too large; nothing "
                                          "was written\n"))
        self.assertFalse(new.parent.exists(), "a folder was left")

    def test_what_cannot_be_put_in_place_leaves_all_as_it_was(self):
        """Whichever of the files it is, whether the others were there before or not, and whatever ends it."""
        replace, link = os.replace, os.link
        for number in (1, 2, 3, 4):
            for error, status in ((PermissionError(1, "Operation not permitted", "x", None, "y"), 1), (KeyboardInterrupt(), 130)):
                for can_link in (True, False):
                    with self.subTest(number=number, status=status, can_link=can_link):
                        shutil.rmtree(self.out)
                        self.out.mkdir()
                        self.run_here("--server", self.xml(interface('<method name="Old"/>')), self.out)
                        before = {f.name: f.read_bytes() for f in self.out.iterdir()}
                        calls = []

                        def failing(*names):
                            calls.append(names)
                            if len(calls) == number:
                                raise error
                            return replace(*names)

                        def linking(*names, **more):
                            if not can_link:
                                raise PermissionError(1, "Operation not permitted")
                            return link(*names, **more)

                        path = self.xml(interface('<method name="New"/>'))
                        with unittest.mock.patch("os.replace", failing), unittest.mock.patch("os.link", linking):
                            is_status, said = self.run_here(path, self.out)
                        self.assertEqual(is_status, status)
                        self.assertEqual(said, "tern-dbus-codegen: y cannot be written: Operation not permitted; nothing was "
                                         "written\n" if status == 1 else "")
                        self.assertEqual({f.name: f.read_bytes() for f in self.out.iterdir()}, before)

    def test_the_files_of_before_are_replaced_and_no_others_left(self):
        for name in ("Old", "New"):
            self.assertEqual(self.run_here(self.xml(interface(f'<method name="{name}"/>')), self.out), (0, ""))
        self.assertEqual(sorted(f.name for f in self.out.iterdir()), sorted(form.format("a") for form in FORMS))
        for form in FORMS:
            self.assertIn("New", self.read(form.format("a")))

    def test_the_xml_is_not_written_over(self):
        path = self.out / "a_contract.h"
        path.write_text(interface(""))
        status, said = self.run_here("--name", "a", path, self.out)
        self.assertEqual((status, said), (1, f"tern-dbus-codegen: {path} is the XML itself; --name gives another; nothing was "
                                          "written\n"))
        self.assertEqual([(f.name, f.read_text()) for f in self.out.iterdir()], [("a_contract.h", interface(""))])

    def test_a_signal_ends_it_with_its_number(self):
        """While it reads: a pipe that nobody writes."""
        pipe = self.folder / "pipe.xml"
        os.mkfifo(pipe)
        for number in (signal.SIGTERM, signal.SIGHUP):
            tool = subprocess.Popen([sys.executable, TOOL, pipe, self.out], stderr=subprocess.PIPE)
            with open(pipe, "wb"):  # as soon as it reads
                tool.send_signal(number)
                said = tool.communicate(timeout=SECONDS)[1]
            self.assertEqual((tool.returncode, said), (128 + number, b""))
            self.assert_nothing_written()

    def test_a_file_where_the_folder_should_be(self):
        (self.folder / "file").write_text("")
        status, said = self.run_here(self.xml(interface("")), self.folder / "file")
        self.assertEqual(status, 1)
        self.assertRegex(said, r"^tern-dbus-codegen: .*/file cannot be written: File exists; nothing was written\n$")


class Bus(Fixture):
    """The message bus itself is the service that is asked."""

    def setUp(self):
        super().setUp()
        if shutil.which("dbus-daemon") is None or shutil.which("busctl") is None:
            self.skipTest("no dbus-daemon, or no busctl")
        self.address = f"unix:path={self.folder}/bus"
        config = self.xml(
            f'<busconfig><listen>{self.address}</listen><policy context="default"><allow user="*"/><allow own="*"/>'
            '<allow send_type="method_call"/><allow receive_type="*"/></policy></busconfig>', "bus.conf")
        read, write = os.pipe()
        self.bus = subprocess.Popen(["dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile", "--nosyslog",
                                     f"--print-address={write}"], pass_fds=[write])
        self.addCleanup(self.bus.wait)
        self.addCleanup(self.bus.kill)
        os.close(write)
        with os.fdopen(read) as started:
            self.assertIn(self.address, started.readline())

    def from_bus(self, *arguments, **more):
        return self.run_tool("--from-bus", *arguments, "--address", self.address, self.out, **more)

    def test_asks_a_running_service(self):
        status, said = self.from_bus("org.freedesktop.DBus", "/org/freedesktop/DBus")
        self.assertEqual((status, said), (0, ""))
        self.assertIn("struct DBus {", self.read("dbus_contract.h"))
        self.assertIn("> ListNames{", self.read("dbus_contract.h"))
        self.assertIn("from org.freedesktop.DBus /org/freedesktop/DBus;", self.read("dbus_contract.h"))

    def test_a_service_that_is_not_there_is_told(self):
        status, said = self.from_bus("com.example.Nobody", "/")
        self.assertEqual(status, 1)
        self.assertRegex(said, "^tern-dbus-codegen: com.example.Nobody / cannot be asked: .*; nothing was written\n$")
        self.assert_nothing_written()

    def test_without_busctl_it_says_what_is_missing(self):
        status, said = self.from_bus("org.freedesktop.DBus", "/", env={"PATH": str(self.folder)})
        self.assertEqual(
            (status, said),
            (1, "tern-dbus-codegen: --from-bus needs busctl, which is in the package systemd; nothing was written\n"),
        )


class FakeBus:
    """A message bus at `path`, as far as busctl needs it. What is asked but Hello is answered by `answer(serial)`, which returns
    the bytes to be sent, and ends the connection when it returns None."""

    def __init__(self, path, answer, is_mute=False):
        self.answer = answer
        self.is_mute = is_mute
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def close(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()

    def serve(self):
        with contextlib.suppress(OSError):
            connection, _ = self.listener.accept()
            with connection, connection.makefile("rb") as file:
                self.talk(connection, file)

    def talk(self, connection, file):
        if self.is_mute:
            file.read()
            return
        line = b""
        while line != b"BEGIN\r\n":
            line = file.readline()
            words = line.strip(b"\0\r\n").split()
            if not words:
                return
            if words[0] != b"BEGIN":
                connection.sendall({b"AUTH": b"DATA\r\n", b"DATA": b"OK " + b"0" * 32 + b"\r\n",
                                    b"NEGOTIATE_UNIX_FD": b"AGREE_UNIX_FD\r\n"}[words[0]])
        while len(head := file.read(16)) == 16:
            body, serial, fields = struct.unpack("<III", head[4:])
            asked = file.read((fields + 7) // 8 * 8 + body)
            reply = self.reply(serial, ":1.1") if b"Hello" in asked else self.answer(serial)
            if reply is None:
                return
            connection.sendall(reply)

    @staticmethod
    def text(text):
        return struct.pack("<I", len(text)) + text + b"\0"

    @classmethod
    def reply(cls, serial, text, error=""):
        """The whole message: a text, or an error with one."""
        fields = [(5, b"u", struct.pack("<I", serial)), (7, b"s", cls.text(b"org.freedesktop.DBus")), (8, b"g", b"\1s\0")]
        fields += [(4, b"s", cls.text(error.encode()))] if error else []
        header = b""
        for number, kind, value in fields:
            header += b"\0" * (-len(header) % 8) + bytes((number, 1)) + kind + b"\0" + value
        body = cls.text(text.encode())
        head = struct.pack("<cBBBIII", b"l", 3 if error else 2, 1, 1, len(body), serial + 1000, len(header))
        return head + header + b"\0" * (-len(header) % 8) + body


class Peers(Fixture):
    """Services that behave badly, and one that does not."""

    def setUp(self):
        super().setUp()
        if shutil.which("busctl") is None:
            self.skipTest("no busctl")

    def ask(self, answer, seconds=SECONDS, **more):
        path = self.folder / "bus"
        bus = FakeBus(path, answer, **more)
        began = time.monotonic()
        try:
            with unittest.mock.patch.object(MODULE, "BUS_SECONDS", seconds):
                status, said = self.run_here("--from-bus", "a.Peer", "/", "--address", f"unix:path={path}", self.out)
        finally:
            bus.close()
        self.took = time.monotonic() - began
        if status != 0:
            self.assert_nothing_written()
        return status, said

    def test_one_that_answers(self):
        self.assertEqual(self.ask(lambda serial: FakeBus.reply(serial, interface('<method name="M"/>'))), (0, ""))
        self.assertIn('"M"', self.read("peer_contract.h"))

    def test_one_that_answers_slowly_is_waited_for(self):
        def answer(serial):
            time.sleep(1.5)
            return FakeBus.reply(serial, interface('<method name="M"/>'))

        self.assertEqual(self.ask(answer), (0, ""))
        self.assertGreaterEqual(self.took, 1.5)

    def test_one_that_does_not_answer(self):
        said = "tern-dbus-codegen: a.Peer / has not answered within 1 seconds; nothing was written\n"
        self.assertEqual(self.ask(lambda serial: b"", 1), (1, said))
        self.assertGreaterEqual(self.took, 1)
        self.assertLess(self.took, SECONDS)

    def test_one_that_stops_in_the_middle_of_its_answer(self):
        said = "tern-dbus-codegen: a.Peer / has not answered within 1 seconds; nothing was written\n"
        self.assertEqual(self.ask(lambda serial: FakeBus.reply(serial, interface(""))[:-10], 1), (1, said))

    def test_a_bus_that_says_nothing_at_all(self):
        said = "tern-dbus-codegen: a.Peer / has not answered within 1 seconds; nothing was written\n"
        self.assertEqual(self.ask(None, 1, is_mute=True), (1, said))

    def test_one_that_goes_away(self):
        status, said = self.ask(lambda serial: None)
        self.assertEqual(status, 1)
        self.assertRegex(said, "^tern-dbus-codegen: a.Peer / cannot be asked: .*; nothing was written\n$")

    def test_one_that_answers_with_ten_mebibytes(self):
        status, said = self.ask(lambda serial: FakeBus.reply(serial, "<node>" + " " * (10 << 20) + "</node>"))
        self.assertEqual((status, said), (1, "a.Peer /:1: the XML has more than 1048576 bytes\ntern-dbus-codegen: nothing was "
                                          "written\n"))

    def test_what_an_error_says_is_shown_on_one_line_without_steering_the_terminal(self):
        status, said = self.ask(lambda serial: FakeBus.reply(serial, "Go\naway\x1b[31m!", "a.b"))
        self.assertEqual(status, 1)
        self.assertRegex(said, r"^tern-dbus-codegen: a\.Peer / cannot be asked: .*Go away\?\[31m!; nothing was written\n$")


class Hostile(Fixture):
    def limited(self, text, *options):
        """As a program with little memory: (status, standard error)."""
        path = self.xml(text, "huge.xml")
        return self.run_tool(
            *options, path, self.out, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
        )

    def assert_limited(self, text, message, *options):
        status, said = self.limited(text, *options)
        self.assertEqual((status, said.splitlines()[-1]), (1, "tern-dbus-codegen: nothing was written"), said[-2000:])
        self.assertIn(message, said)
        self.assert_nothing_written()

    def test_a_huge_file_is_refused(self):
        self.assert_limited("<node>" + " " * (1 << 20), ":1: the XML has more than 1048576 bytes")
        self.assert_limited("<node>" + "<node/>" * 70000 + "</node>", ":1: more than 65536 elements")

    def test_an_endless_file_is_refused(self):
        status, said = self.run_tool("/dev/zero", "--name", "zero", self.out)
        self.assertEqual((status, said), (1, "/dev/zero:1: the XML has more than 1048576 bytes\ntern-dbus-codegen: nothing was written\n"))

    def test_the_largest_that_is_allowed_is_read(self):
        body = "".join(f"<method name='M{i}'><arg type='a{{sv}}'/></method>" for i in range(18000))
        text = interface(body)
        self.assertLess(len(text), 1 << 20)
        self.assertEqual(self.limited(text), (0, ""))

    def test_as_many_interfaces_as_are_allowed_whatever_they_are_called(self):
        same = (".".join("aA"[i >> k & 1] for k in range(20)) for i in range(1024))  # all would be the same in C++
        for names in ((f"com.example.a{i}" for i in range(1024)), same):
            text = "<node>" + "".join(f'<interface name="{name}"/>' for name in names) + "</node>"
            self.assertEqual(self.limited(text), (0, ""))
            for file in self.out.iterdir():
                file.unlink()
        text = "<node>" + "".join(f'<interface name="a.b{i}"/>' for i in range(30000)) + "</node>"
        self.assert_limited(text, ":1: more than 1024 interfaces")

    def test_elements_deep_inside_each_other_are_refused(self):
        self.assert_limited("<node>" * 33 + "</node>" * 33, ":1: more than 32 elements inside each other")
        self.assert_limited("<node>" + "<d:d>" * 100000, ":1: more than 32 elements inside each other")

    def test_attributes_in_great_number_are_refused(self):
        attributes = " ".join(f"a{i}=''" for i in range(60000))
        self.assert_limited(f"<node {attributes}/>", "mistakes more")

    def test_entities_do_not_grow(self):
        laughs = '<!DOCTYPE node [<!ENTITY a0 "ha">' + "".join(
            f'<!ENTITY a{i} "{f"&a{i - 1};" * 10}">' for i in range(1, 12)) + "]><node><interface name='&a11;'/></node>"
        self.assert_limited(laughs, ":1: the entity 'a0' is declared")
        self.assert_limited(laughs, ":1: the entity 'a1' is not a plain text", "--entities")
        long = f'<!DOCTYPE node [<!ENTITY a "{"h" * 128}">]><node><interface name="' + "&a;" * 340000 + '"/></node>'
        self.assert_limited(long, "an interface's name has", "--entities")

    def test_a_signature_as_deep_as_it_gets(self):
        self.assert_limited(method(f"<arg type='{'(' * 200000}'/>"), "has more than 255 characters")
        self.assert_limited(method(f"<arg type='{'(' * 255}'/>"), "has more than 32 of '(' inside each other")

    def test_whatever_is_changed_ends_in_order(self):
        seed = int(os.environ.get("TERN_SEED", time.time_ns() % 1000000))
        print(f"TERN_SEED={seed}")
        changer = Changer(seed)
        for number in range(int(os.environ.get("TERN_ROUNDS", 400))):
            data = changer.text()
            try:
                changer.try_one(data)
            except Exception:
                print(f"round {number}: {data!r}")
                raise
        print(changer.counted())
        self.assertGreater(changer.counts[0], 0)
        self.assertGreater(changer.counts[1], 0)

    def test_what_was_found_before_ends_in_order(self):
        changer = Changer(0)
        paths = sorted(CORPUS.iterdir())
        self.assertGreater(len(paths), 0)
        for path in paths:
            with self.subTest(path=path.name):
                for options in Changer.OPTIONS:
                    changer.try_one(path.read_bytes(), options)


class Changer:
    """Texts changed by chance, half of them as bytes, half of them as XML that stays XML; and what has to hold for each: no
    exception, one of two exit statuses, files only with the right one, in them nothing that leaves its comment or literal, and
    an end in time."""

    OPTIONS = ([], ["--open"], ["--entities"], ["--stubs"], ["--interface", "com.example.Door1"])
    WORDS = [b"<", b">", b'"', b"/>", b"&", b"&#0;", b"&#xD800;", b"]]>", b"<!--", b"<!DOCTYPE node [", b"<![CDATA[",
             b"<?xml version='1.0' encoding='utf-16'?>", b"\xff\xfe", b"\x00", b"a{sv}", b"((((", b"name=''", b"\xc3",
             b"<interface name='a.b'>", b"</interface>", b"<arg type='", "\u202e\u00ad\ufeff".encode(), b"\\", b"??/",
             b"<!ENTITY a 'b'>", b"&a;", b"<!ATTLIST node name CDATA 'x'>", b"<!DOCTYPE node SYSTEM 'x'>"]
    VALUES = ["", "M", "a.B", "a.b.C", "delete", "__FILE__", "Get", "Emit", "true", "false", "const", "invalidates", "in", "out",
              "read", "readwrite", "write", "u", "s", "h", "as", "a{sv}", "a{oa(tb)}", "(" * 32 + "u" + ")" * 32, "a" * 32 + "u",
              "a{s" * 32 + "v" + "}" * 32, "u" * 256, "x" * 255, "x" * 256, "\\", "??/", "*/", '"', "//", "\n", "\r", "\u2028",
              "\u202e", "\U0001f600", "R\"(", "#define", "%s", "{}", "std::string", "std::vector<std::string_view>", "::a", "<:",
              "a,b", "<chrono>", "a.h", "../a.h", "é", "org.freedesktop.DBus.Peer"]

    def __init__(self, seed):
        self.chance = random.Random(seed)
        self.texts = [path.read_bytes() for path in sorted(GOLDEN.glob("*.xml")) + sorted(CORPUS.iterdir())]
        self.counts = {0: 0, 1: 0}
        self.longest = 0.0
        self.names = [*MODULE.ANNOTATIONS, "mwl.Typed.Unknown", "a.b"]

    def counted(self):
        return f"{self.counts[0]} of the texts were still right, {self.counts[1]} were refused, {self.longest:.1f} s at most"

    def text(self):
        data = self.as_bytes() if self.chance.random() < 0.5 else self.as_xml()
        if self.chance.random() < 0.01:  # a huge one
            at = self.chance.randrange(len(data) + 1)
            data = data[:at] + data[at : at + self.chance.randrange(1, 400)] * self.chance.randrange(1, 5000) + data[at:]
        return data

    def as_bytes(self):
        chance = self.chance
        data = bytearray(chance.choice(self.texts))
        for _ in range(chance.choice((1, 1, 2, 5, 40))):
            at = chance.randrange(len(data) + 1)
            what = chance.randrange(5)
            if what == 0:
                data[at:at] = chance.choice(self.WORDS)
            elif what == 1:
                del data[at : at + chance.choice((1, 2, 10, 500))]
            elif what == 2 and at < len(data):
                data[at] = chance.randrange(256)
            elif what == 3:
                other = chance.choice(self.texts)
                begin = chance.randrange(len(other))
                data[at:at] = other[begin : begin + chance.randrange(300)]
            else:
                data[at:at] = data[at : at + chance.randrange(50)] * chance.choice((1, 3, 30))
        return bytes(data)

    def as_xml(self):
        """Values, annotations and members of another one."""
        chance = self.chance
        while True:
            with contextlib.suppress(ElementTree.ParseError):  # what was found need not be XML
                root = ElementTree.fromstring(chance.choice(self.texts))
                break
        for _ in range(chance.choice((1, 1, 2, 5))):
            elements = [e for e in root.iter() if isinstance(e.tag, str)]
            element, other = chance.choice(elements), chance.choice(elements)
            what = chance.randrange(5)
            if what == 0 and element.attrib:
                name = chance.choice(sorted(element.attrib))
                value = chance.choice((chance.choice(self.VALUES), other.get(name, ""), element.get(name) + chance.choice(self.VALUES)))
                element.set(name, value)
            elif what == 1:
                value = "".join(chance.choice(self.VALUES) for _ in range(chance.choice((1, 1, 3, 40))))
                ElementTree.SubElement(element, "annotation", name=chance.choice(self.names), value=value)
            elif what == 2 and len(element) > 0:
                element.remove(chance.choice(list(element)))
            elif what == 3 and element is not other and element not in list(other.iter()):
                element.append(other)
            elif what == 4 and len(element) > 0:
                children = list(element)
                chance.shuffle(children)
                element[:] = children
        if sum(1 for _ in root.iter()) > 20000:
            return b"<node/>"
        return ElementTree.tostring(root, encoding=chance.choice(("utf-8", "us-ascii", "utf-16")))

    # Of generated code, piece by piece.
    PIECE = re.compile(r'//[^\n]*|"(?:\\.|[^"\\\n])*"|/\*[A-Za-z_]\w*\*/|#(?:include (?:<[\w./+-]+>|"[\w./+-]+")|pragma once)\n'
                       r"|[A-Za-z_]\w*|[0-9]+|[ \n{}()<>\[\],;:=.&|~*+!-]", re.ASCII)

    def try_one(self, data, options=None):
        with tempfile.TemporaryDirectory() as folder, contextlib.redirect_stderr(io.StringIO()) as said:
            path, out = pathlib.Path(folder) / "a.xml", pathlib.Path(folder) / "out"
            path.write_bytes(data)
            began = time.monotonic()
            options = self.chance.choice(self.OPTIONS) if options is None else options
            status = MODULE.run([*options, str(path), str(out)])
            took = time.monotonic() - began
            self.longest = max(self.longest, took)
            assert took < SECONDS, f"{took} seconds"
            self.counts[status] += 1  # no other status
            assert bool(said.getvalue()) == (status == 1), said.getvalue()
            assert len(said.getvalue()) < 60000, "too much is said"
            assert all(c.isprintable() or c == "\n" for c in said.getvalue()), said.getvalue()
            if status == 1:
                assert not out.exists(), "something was written"
                return
            forms = ("{}_interface.h", "{}_interface.cpp") if "--stubs" in options else FORMS
            assert sorted(f.name for f in out.iterdir()) == sorted(form.format("a") for form in forms)
            for file in out.iterdir():
                if file.suffix != ".md":
                    self.check_code(file.read_text())

    def check_code(self, text):
        at, depth = 0, collections.Counter()
        while at < len(text):
            piece = self.PIECE.match(text, at)
            assert piece, f"what is this: {text[max(0, at - 60) : at + 60]!r}"
            assert not piece[0].startswith("//") or not re.search(r"(\\|\?\?/)$", piece[0]), f"takes the next line along: {piece[0]!r}"
            assert not piece[0].startswith('"') or "??" not in piece[0], f"a trigraph: {piece[0]!r}"
            depth[piece[0]] += 1
            at = piece.end()
        for opening, closing in ("{}", "()"):
            assert depth[opening] == depth[closing], f"{depth[opening]} {opening} and {depth[closing]} {closing}"


def fuzz(seconds, folder=None):
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
    seed = int(os.environ.get("TERN_SEED", time.time_ns() % 1000000))
    print(f"TERN_SEED={seed}", flush=True)
    changer = Changer(seed)
    end = time.monotonic() + float(seconds)
    while time.monotonic() < end:
        data = changer.text()
        try:
            changer.try_one(data)
        except Exception:
            traceback.print_exc()
            handle, path = tempfile.mkstemp(prefix="crash-", suffix=".xml", dir=folder)
            with os.fdopen(handle, "wb") as file:
                file.write(data)
            print(f"left in {path}; {changer.counted()}")
            return 1
    print(changer.counted())
    return 0


def update():
    for name in ("room", "names"):
        if MODULE.run([*golden_arguments(name), str(GOLDEN)]) != 0:
            return 1
    return 0


if __name__ == "__main__":
    TOOL = os.path.abspath(sys.argv.pop(1))
    MODULE = load_tool()
    if sys.argv[1:] == ["--update"]:
        sys.exit(update())
    if sys.argv[1:2] == ["--fuzz"]:
        sys.exit(fuzz(*sys.argv[2:]))
    unittest.main(verbosity=2)
