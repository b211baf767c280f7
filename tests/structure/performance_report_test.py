#!/usr/bin/env python3
"""The tables and plots of docs/performance.md: each criterion has a row, and a picture shows what it is drawn from.

    performance_report_test.py SOURCE_FOLDER
"""

import argparse
import contextlib
import io
import itertools
import json
import pathlib
import re
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
sys.dont_write_bytecode = True
sys.path.insert(0, str(SOURCE / "benchmarks"))

import plots  # noqa: E402
import report  # noqa: E402
import rows  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"
OURS = report.OURS


def row(what, values, unit="us", **more):
    return report.judge({"what": what, "unit": unit, "values": values, **more}, [values], more.get("ratios"))


def result(rows_of_it=(), growth=()):
    return {"name": "sample", "title": "A sample", "rows": list(rows_of_it), "growth": list(growth), "note": "A note."}


def line(what, points, unit="us"):
    return {"what": what, "unit": unit, "points": points}


def page_of(svg):
    page = ElementTree.fromstring(svg)
    return page, float(page.get("width")), float(page.get("height"))


def extent(text):
    """From where to where a text goes at most: a wide font's characters are 0.6 of its size wide."""
    size = 10 if "small" in text.get("class").split() else 12
    width, x = len(text.text) * size * 0.6, float(text.get("x"))
    first = {"start": x, "middle": x - width / 2, "end": x - width}[text.get("text-anchor")]
    return first, first + width


def cells(text, beginning):
    """The cells of the table's rows that begin so."""
    found = [entry for entry in text.splitlines() if entry.startswith(f"| {beginning}")]
    return [[cell.strip() for cell in entry.strip("|").split("|")] for entry in found]


LONG_NAMES = [f"a peer whose name is long, number {number}" for number in range(12)]


class Pages(unittest.TestCase):
    def check_inside(self, svg):
        page, width, height = page_of(svg)
        texts = page.findall(f".//{SVG}text")
        self.assertTrue(texts)
        for text in texts:
            first, last = extent(text)
            self.assertGreaterEqual(first, 0, text.text)
            self.assertLessEqual(last, width, text.text)
            self.assertLessEqual(float(text.get("y")), height, text.text)
        for bar in page.findall(f".//{SVG}rect"):
            self.assertLessEqual(float(bar.get("x", 0)) + float(bar.get("width")), width)
        legend = [text for text in texts if text.get("class") == "legend"]
        for one, other in itertools.combinations(legend, 2):
            if one.get("y") == other.get("y"):
                self.assertLess(extent(one)[1], extent(other)[0], "two names of a legend overlap")
        return [text.text for text in legend]

    def test_LegendOfBarsStaysInsideThePage(self):
        values = {OURS: 1.0, **{name: 2.0 for name in LONG_NAMES}}
        legend = self.check_inside(plots.ratios(result([row("short", values, against=LONG_NAMES[0])]), OURS))
        self.assertEqual(legend, ["ours", *LONG_NAMES])

    def test_LegendOfLinesStaysInsideThePage(self):
        lines = [line(name, {"10": 1.0, "100": 2.0}) for name in LONG_NAMES]
        self.assertEqual(self.check_inside(plots.growth(result(growth=lines))), LONG_NAMES)

    def test_LongTitleIsBroken(self):
        sample = result(growth=[line("one", {"10": 1.0, "100": 2.0})])
        sample["title"] = " ".join(["A title of many words"] * 8)
        self.check_inside(plots.growth(sample))

    def test_PlotsOfTheDocumentHaveTheirTextsInside(self):
        drawn = sorted((SOURCE / "docs").glob("performance-*.svg"))
        self.assertGreater(len(drawn), 10)
        for path in drawn:
            with self.subTest(path.name):
                self.check_inside(path.read_text())


class Bars(unittest.TestCase):
    def bars(self, values, unit="us"):
        """Of each number: whether a mark of a cut stands in its line."""
        page, _, _ = page_of(plots.ratios(result([row("what", values, unit, against="peer")]), OURS))
        numbers = [text for text in page.findall(f".//{SVG}text") if "value" in text.get("class").split()]
        marks = [self.top_of(mark) for mark in page.findall(f"{SVG}g[@class='cut']")]
        return {number.text: any(0 <= float(number.get("y")) - mark < 11 for mark in marks) for number in numbers}

    @staticmethod
    def top_of(mark):
        """Where the arrow begins, from the path of the gap: it starts at the bar's lower edge, 10 below."""
        return float(re.match(r"M\S+ (\S+?)l", mark.find(f"{SVG}path").get("d")).group(1)) - 10

    def test_CutBarIsMarkedAndCarriesItsTrueNumber(self):
        self.assertEqual(self.bars({OURS: 10.7, "peer": 1.0}), {"10.70": True, "1.00": False})

    def test_BarThatFitsIsNotMarked(self):
        self.assertEqual(self.bars({OURS: 3.0, "peer": 1.0}), {"3.00": False, "1.00": False})

    def test_MoreIsBetterForRates(self):
        self.assertEqual(self.bars({OURS: 5.0, "peer": 20.0}, "1/s"), {"4.00": True, "1.00": False})

    def test_RateOfNothingIsEndless(self):
        self.assertEqual(self.bars({OURS: 0.0, "peer": 20.0}, "1/s"), {"∞": True, "1.00": False})

    def test_PageSaysWhatTheMarkMeansOnlyWhereThereIsOne(self):
        for ours, there in ((10.0, True), (2.0, False)):
            svg = plots.ratios(result([row("what", {OURS: ours, "peer": 1.0}, against="peer")]), OURS)
            self.assertEqual("cut at 3" in svg, there)

    def test_SidesAreDrawnDifferently(self):
        names = [f"p{number}" for number in range(14)]
        values = {OURS: 1.0, **{name: 1.0 for name in names}}
        page, _, _ = page_of(plots.ratios(result([row("what", values, against="p0")]), OURS))
        styles = {}
        for bar in page.findall(f"{SVG}rect"):
            if float(bar.get("height")) == 10 and float(bar.get("width")) != 22:
                styles.setdefault(bar.get("y"), []).append(bar.get("fill"))
        self.assertEqual(len(styles), 15)
        self.assertEqual(len({tuple(style) for style in styles.values()}), 15)


class Lines(unittest.TestCase):
    def series(self, svg):
        page, _, _ = page_of(svg)
        found = {}
        for group in page.findall(f"{SVG}g[@class='series']"):
            path = group.find(f"{SVG}polyline")
            style = (path.get("stroke"), path.get("stroke-dasharray"), group.get("data-marker"))
            points = [tuple(float(number) for number in point.split(",")) for point in path.get("points").split()]
            found[group.get("data-name")] = (style, points)
        return found

    def test_FirstFortyStylesDiffer(self):
        self.assertEqual(len({plots.line_style(index) for index in range(40)}), 40)

    def test_SeriesOfOnePictureDiffer(self):
        lines = [line(f"line {number}", {"10": 1.0 + number, "100": 9.0}) for number in range(16)]
        series = self.series(plots.growth(result(growth=lines)))
        self.assertEqual(len(series), 16)
        self.assertEqual(len({style for style, _ in series.values()}), 16)

    def test_ManyPairsStandInPicturesOfTheirOwn(self):
        lines = []
        for number in range(8):
            lines += [line(f"kind {number}", {"10": 1.0, "100": 2.0}), line(f"kind {number}, peer", {"10": 1.0, "100": 3.0})]
        svg = plots.growth(result(growth=lines))
        page, _, _ = page_of(svg)
        texts = [text.text for text in page.findall(f".//{SVG}text")]
        for number in range(8):
            self.assertEqual(texts.count(f"kind {number}"), 1)
        self.assertEqual([text.text for text in page.findall(f".//{SVG}text[@class='legend']")], ["ours", "peer"])
        series = self.series(svg)
        places = {points[0] for name, (_, points) in series.items() if not name.endswith("peer")}
        self.assertEqual(len(places), 8)

    def test_UnitsAreConvertedToOneAxis(self):
        lines = [line("a", {"10": 20.0, "100": 2000.0}, "ns"), line("b", {"10": 0.02, "100": 2.0}, "us")]
        svg = plots.growth(result(growth=lines))
        series = self.series(svg)
        self.assertEqual(series["a"][1], series["b"][1])
        page, _, _ = page_of(svg)
        texts = [text.text for text in page.findall(f".//{SVG}text")]
        for tick in ("10 ns", "100 ns", "1 us", "10 us"):
            self.assertIn(tick, texts)

    def test_LineGoesWhereTheTicksSay(self):
        page, _, _ = page_of(plots.growth(result(growth=[line("a", {"10": 10.0, "100": 1000.0}, "us")])))
        ticks = {text.text: float(text.get("y")) - 4 for text in page.findall(f".//{SVG}text")}
        points = self.series(ElementTree.tostring(page, encoding="unicode"))["a"][1]
        self.assertAlmostEqual(points[0][1], ticks["10 us"], delta=0.2)
        self.assertAlmostEqual(points[1][1], ticks["1 ms"], delta=0.2)

    def test_OtherUnitsHaveAxesOfTheirOwn(self):
        lines = [line("a", {"10": 1.0, "100": 10.0}), line("b", {"10": 1000.0, "100": 5000.0}, "KiB")]
        page, _, _ = page_of(plots.growth(result(growth=lines)))
        texts = [text.text for text in page.findall(f".//{SVG}text")]
        self.assertIn("10 us", texts)
        self.assertIn("10000 KiB", texts)
        self.assertNotIn("1000 us", texts)

    def test_WhatALogarithmicScaleCannotShowIsLeftOut(self):
        lines = [line("a", {"10": 0.0, "100": 10.0}), line("none", {"10": 0.0})]
        self.assertEqual({name: len(points) for name, (_, points) in self.series(plots.growth(result(growth=lines))).items()}, {"a": 1})
        self.assertIsNone(plots.growth(result(growth=lines[1:])))


class Criteria(unittest.TestCase):
    def test_TargetThatIsMetIsNotMissedForAnotherReason(self):
        values = {OURS: 1.01, "sd-bus": 1.0, "fast": 0.9, "slow": 2.0}
        sample = row("trip", values, target="<= 1.03 of sd-bus", against="sd-bus", limit=1.03, ahead_of=("fast", "slow"))
        named, ahead = cells(report.section_text(result([sample])), "trip")
        self.assertEqual(named, ["trip, us", "1.01", "1", "0.900", "2", "1.01", "<= 1.03 of sd-bus", "met"])
        self.assertEqual(
            ahead, ["trip, us", "1.01", "", "0.900", "2", "1.12", "ahead of fast and slow", "**missed** (behind fast)"]
        )

    def test_TargetThatIsMissedDoesNotHideBeingAhead(self):
        values = {OURS: 1.5, "sd-bus": 1.0, "slow": 2.0}
        sample = row("trip", values, target="<= 1.03 of sd-bus", against="sd-bus", limit=1.03, ahead_of=("slow",))
        named, ahead = cells(report.section_text(result([sample])), "trip")
        self.assertEqual(named[-3:], ["1.50", "<= 1.03 of sd-bus", "**missed**"])
        self.assertEqual(ahead[-3:], ["0.75", "ahead of slow", "met"])

    def test_EachMissedCriterionIsCounted(self):
        values = {OURS: 1.5, "sd-bus": 1.0, "fast": 1.2}
        sample = row("trip", values, target="<= 1.03 of sd-bus", against="sd-bus", limit=1.03, ahead_of=("fast",))
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            report.print_missed([result([sample])])
        self.assertEqual(
            output.getvalue().strip().splitlines(),
            ["2 targets are missed", "  sample: trip, <= 1.03 of sd-bus", "  sample: trip, ahead of fast"],
        )

    def test_PeerThatIsNotThereMakesNoRow(self):
        sample = row("trip", {OURS: 1.0, "a": 1.0}, target="t", against="a", limit=1.03, ahead_of=("gone",))
        self.assertEqual(len(cells(report.section_text(result([sample])), "trip")), 1)

    def test_RatiosOfTheProgramCount(self):
        sample = row("trip", {OURS: 2.0, "a": 1.0}, target="t", against="a", limit=1.03, ratios={"a": 1.02})
        self.assertEqual(cells(report.section_text(result([sample])), "trip")[0][-3:], ["1.02", "t", "met"])

    def test_ValueOfOursMayHaveALimitItself(self):
        for ours, said in ((0, "met"), (2, "**missed**")):
            sample = row("wake-ups", {OURS: ours}, "1/min", target="none", most=0.5)
            self.assertEqual(cells(report.section_text(result([sample])), "wake-ups")[0][-2:], ["none", said])

    def test_GrowthSaysItsTarget(self):
        sample = result(growth=[dict(line("a", {"10": 1.0, "100": 100.0}), limit=1.25)])
        self.assertEqual(cells(report.section_text(sample), "a,")[0][-3:], ["2.00", "at most 1.25", "**missed**"])

    def test_NoTargetOfTheRowsNamesTwo(self):
        for section in rows.SECTIONS:
            for one in section.rows:
                if one.ahead_of:
                    self.assertNotIn("ahead", one.target, one.what)


class Redrawing(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.raw = self.folder / "raw"
        self.raw.mkdir()
        before = report.RAW
        report.RAW = self.raw
        self.addCleanup(setattr, report, "RAW", before)
        self.document = self.folder / "performance.md"
        self.document.write_text(
            "# Performance\n\n<!-- generated: machine -->\nthat machine\n<!-- end: machine -->\n\nProse.\n\n"
            "<!-- generated: growth -->\nold\n\n![x](performance-growth-growth.svg)\n<!-- end: growth -->\n"
        )

    def comparison(self, name, **more):
        values = {OURS: 2.0, "peer": 1.0}
        sample = {"what": "it", "unit": "us", "values": values, "against": "peer", "limit": 1.03, "target": "t"}
        content = {"name": name, "title": f"The {name}", "load": 0.5, "rows": [sample], **more}
        (self.raw / f"{name}.json").write_text(json.dumps(content))

    def rounds(self, times):
        """Of the section 'reports', whose rows compare two benchmarks."""
        for number, time in enumerate(times, 1):
            runs = [
                {"name": "BM_NotifyWork", "cpu_time": time, "time_unit": "ns"},
                {"name": "BM_ClockAndStore", "cpu_time": 10.0, "time_unit": "ns"},
            ]
            content = {"context": {"load_avg": [0.5 * number, 0, 0]}, "benchmarks": runs}
            (self.raw / f"reports-{number}.json").write_text(json.dumps(content))

    def redraw(self, *names):
        output = io.StringIO()
        with contextlib.redirect_stdout(output), contextlib.redirect_stderr(output):
            report.redraw(names, self.folder)
        return output.getvalue()

    def test_TablesAndPlotsComeFromTheRawResults(self):
        self.rounds([10.0, 30.0, 20.0])
        self.comparison("call")
        said = self.redraw()
        document = self.document.read_text()
        self.assertEqual(cells(document, "NotifyWork")[0], ["NotifyWork, ns", "20", "10", "2.00", "", ""])
        self.assertIn("3 rounds, load 0.5 to 1.5.", document)
        self.assertEqual(cells(document, "it,")[0], ["it, us", "2", "1", "2.00", "t", "**missed**"])
        self.assertIn("Prose.", document)
        self.assertIn("that machine", document)
        self.assertIn("no raw results of 'locks'", said)
        for name in ("performance-reports.svg", "performance-call.svg"):
            self.assertIn(f"({name})", document)
            self.assertTrue((self.folder / name).exists())

    def test_MachineIsThatOfTheRun(self):
        self.comparison("call")
        (self.raw / "machine.txt").write_text("another machine")
        self.redraw()
        self.assertIn("-->\nanother machine\n<!--", self.document.read_text())

    def test_NamesDoNotStutterAndOldPlotsGo(self):
        old = self.folder / "performance-growth-growth.svg"
        old.write_text("old")
        self.comparison("growth", growth=[line("a", {"10": 1.0, "100": 2.0})])
        self.redraw("growth")
        self.assertFalse(old.exists())
        self.assertTrue((self.folder / "performance-growth.svg").exists())
        self.assertTrue((self.folder / "performance-growth-ratios.svg").exists())

    def test_SectionWithoutRawResultsIsAnErrorWhenNamed(self):
        self.comparison("call")
        with self.assertRaisesRegex(SystemExit, "no raw results of 'locks'"):
            self.redraw("locks")

    def test_FileThatIsNotWholeIsAnError(self):
        self.comparison("call")
        (self.raw / "call.json").write_text('{"name": "call", ')
        with self.assertRaisesRegex(SystemExit, "call.json cannot be read as JSON"):
            self.redraw()

    def test_QuickLooksAreNotTakenForResults(self):
        self.assertNotEqual(report.raw_folder(argparse.Namespace(quick=True)), report.raw_folder(argparse.Namespace(quick=False)))
        self.assertEqual(report.raw_folder(argparse.Namespace(quick=False)), self.raw)


if __name__ == "__main__":
    unittest.main()
