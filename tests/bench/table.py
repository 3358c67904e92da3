#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""What script/bench makes of its samples: medians, ratios, bars, tables, the page."""

import contextlib
import importlib.machinery
import importlib.util
import io
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.append(str(TOP / "bench"))
import measure  # noqa: E402
import performance  # noqa: E402
from performance import Missing, Samples  # noqa: E402

MS = 1000000


def quantity(name):
    return next(quantity for quantity in performance.QUANTITIES if quantity.name == name)


def bar(text):
    found = [bar for bar in performance.BARS if bar.text.startswith(text)]
    assert len(found) == 1, found
    return found[0]


def whole():
    """Samples of all, as good as they have to be."""
    seen = {}
    for one in performance.QUANTITIES:
        if one.name not in performance.KINDS:
            seen[one.name] = {program: [[1.0, 1.0], [1.0, 1.0]] for program in one.programs}
    for peer in performance.PEERS:
        seen["links"][peer] = [[20.0], [20.0]]
    for name in "links", "links-in-succession", "uevents", "uevents-in-succession":
        seen[name]["library"] = [[0.1], [0.1]]
    seen["flood"] |= {"libudev": [[5.0]], "library": [[1.0]], "raw": [[1.0]], "allocations": [[0]]}
    seen["switch"] = {f"{program}-{half}": [[100.0]] for program in ("library", "script")
                      for half in ("dead", "success")}
    seen["startup"] |= {"plain-instance": [[1.0]], "library-instance": [[1.0]]}
    seen["rest"] = {"plain": [{"uss": 1000, "threads": 3, "wakings": 6, "seconds": 30}],
                    "library": [{"uss": 1300, "threads": 5, "wakings": 16, "own": 10,
                                 "seconds": 30}],
                    "netplugd": [{"uss": 136, "threads": 1, "wakings": 0, "seconds": 30}]}
    seen["size"] = {"library": [{"text": 71347, "relocations": 314, "exported": 93,
                                 "foreign": []}]}
    seen["events-growth"] = {str(count): [{"each": 2.0, "allocations": 0, "bytes": 0}]
                             for count in (10, 1000, 100000)}
    seen["searches-growth"] = {f"{how} {count}": [{"each": 6.0, "searches": count,
                                                   "bytes": each * (count - 1)}]
                               for how, each in (("by-start", 150), ("by-link", 0))
                               for count in (1, 100, 1000)}
    return seen


def judged(text, **changes):
    """Whether the bar is met by whole samples with these changes: quantity.program = rounds."""
    seen = whole()
    for name, rounds in changes.items():
        one, _, program = name.partition("__")
        seen[one.replace("_", "-")][program.replace("_", "-")] = rounds
    return bar(text).judge(Samples(seen))


class Measured(unittest.TestCase):

    def test_lines_arePairs(self):
        self.assertEqual(measure.stamps("12 up\n34 down\n"), [(12, "up"), (34, "down")])

    def test_lineThatIsNotWholeYet_isLeftOut(self):
        self.assertEqual(measure.stamps("12 up\n34 do"), [(12, "up")])

    def test_noLine_isNone(self):
        self.assertEqual(measure.stamps(""), [])

    def test_firstReactionOfTheKind_counts(self):
        found, missed = measure.matched([(10 * MS, "up")], [
            (11 * MS, "down"), (12 * MS, "up"), (13 * MS, "up")])
        self.assertEqual((found, missed), ([2.0], 0))

    def test_reactionBeforeItsChange_isAnothers(self):
        self.assertEqual(measure.matched([(10 * MS, "up")], [(9 * MS, "up")]), ([], 1))

    def test_reactionAfterTheNextChange_isLate(self):
        changes = [(10 * MS, "up"), (20 * MS, "down"), (30 * MS, "up")]
        found, missed = measure.matched(changes, [(21 * MS, "up"), (22 * MS, "down")])
        self.assertEqual((found, missed), ([10.0, 2.0], 2))

    def test_reactionInTheMomentOfItsChange_counts(self):
        self.assertEqual(measure.matched([(10, "up")], [(10, "up")]), ([0.0], 0))

    def test_clockOfTheDay_isTakenBack(self):
        self.assertEqual(measure.in_monotonic([(1005, "up")], 1000), [(5, "up")])

    def test_durations_areFromTheLastBegin(self):
        pairs = [(1 * MS, "begin"), (2 * MS, "begin"), (5 * MS, "dead"), (9 * MS, "success"),
                 (10 * MS, "success")]
        self.assertEqual(measure.durations(pairs, "begin", "success"), [7.0])
        self.assertEqual(measure.durations(pairs, "dead", "success"), [4.0])

    def test_searches_areWithoutSleepAndCommands(self):
        pairs = [(1 * MS, "begin"), (509 * MS, "success"), (7 * MS, "commands"),
                 (600 * MS, "begin"), (1110 * MS, "success"), (6 * MS, "commands")]
        self.assertEqual(measure.beyond_commands(pairs, 500), [1.0, 4.0])
        with self.assertRaises(ValueError):
            measure.beyond_commands(pairs[:-1], 500)

    def test_clocksAreRead_inTheLeastTime(self):
        monotonic = mock.patch("time.monotonic_ns", side_effect=[10, 90, 110, 112] + [0, 9] * 98)
        day = mock.patch("time.time_ns", side_effect=[1060, 1111] + [0] * 98)
        with monotonic, day:
            self.assertEqual(measure.clock_offset(), 1000)

    def test_threadsThatHaveEnded_areNotCounted(self):
        before = {("1", "main"): 5, ("2", "pool"): 90}
        after = {("1", "main"): 7, ("3", "QThread"): 4}
        self.assertEqual(measure.woken(before, after), 6)
        self.assertEqual(measure.woken(before, after, ("QThread",)), 4)

    def test_allThatIsMeasured_isShown(self):
        for one in performance.QUANTITIES:
            with self.subTest(one.name):
                self.assertEqual(set(one.programs), set(measure.QUANTITIES[one.name].programs))
        self.assertEqual({one.name for one in performance.QUANTITIES}, set(measure.QUANTITIES))


class Calculated(unittest.TestCase):

    def test_median_isOfTheRoundsMedians(self):
        samples = Samples({"links": {"raw": [[1, 2, 90], [4, 4, 4], [9, 9, 0]]}})
        self.assertEqual(samples.rounds("links", "raw"), [2, 4, 9])
        self.assertEqual(samples.median("links", "raw"), 4)

    def test_ratios_areRoundByRound(self):
        samples = Samples({"links": {"raw": [[6], [8]], "library": [[2], [4]]}})
        self.assertEqual(samples.ratios("links", "raw"), [3, 2])

    def test_whatWasNotMeasured_isToldApart(self):
        for ask in (Samples().rounds, Samples().record):
            with self.assertRaises(Missing):
                ask("links", "raw")

    def test_roundsAreAdded(self):
        samples = Samples()
        samples.add("links", {"raw": [1]})
        samples.add("links", {"raw": [2], "library": [3]})
        self.assertEqual(samples.seen, {"links": {"raw": [[1], [2]], "library": [[3]]}})

    def test_numbers_haveThreeDigits(self):
        for value, text in ((0.0714, "0.071"), (1.234, "1.23"), (12.34, "12.3"), (123.4, "123"),
                            (10200.2, "10,200"), (-0.5, "-0.500"), (-469.4, "-469"), (0, "0.000")):
            with self.subTest(value):
                self.assertEqual(performance.number(value), text)


class Bars(unittest.TestCase):

    def test_wholeSamples_meetAll(self):
        verdicts = performance.judged(Samples(whole()), performance.QUANTITIES)
        self.assertEqual(len(verdicts), len(performance.BARS))
        self.assertEqual([bar.text for bar, _, met in verdicts if not met], [])

    def test_barsOfWhatWasNotMeasured_areLeftOut(self):
        verdicts = performance.judged(Samples(whole()), [quantity("flood")])
        self.assertEqual({bar.quantities for bar, _, _ in verdicts}, {("flood",)})

    def check_limit(self, text, name, good, bad, **more):
        self.assertTrue(judged(text, **{name: [good]}, **more)[1], good)
        self.assertFalse(judged(text, **{name: [bad]}, **more)[1], bad)

    def test_limitsOfTimes(self):
        self.check_limit("a link's change", "links__library", [0.2], [0.201])
        self.check_limit("a uevent", "uevents__library", [0.15], [0.151])
        self.check_limit("processor time", "flood__library", [1.3], [1.31])
        self.check_limit("4 times", "flood__libudev", [4.0], [3.99])
        self.check_limit("a search", "search__library", [3.0], [3.01])
        self.check_limit("ahead", "search__library", [1.0], [1.01])
        self.check_limit("dead server", "switch__library_dead", [100.0], [100.1])
        self.check_limit("from there", "switch__library_success", [100.0], [100.1])
        self.check_limit("start-up", "startup__library", [4.0], [4.01])

    def test_bestPeer_isTheFastest(self):
        seen, met = judged("15 times", links__netplugd=[[1.4]])
        self.assertEqual((seen, met), ("14.0 times", False))
        self.assertTrue(judged("15 times", links__netplugd=[[1.6]])[1])
        self.assertEqual(judged("15 times", links__netplugd=[[1], [3], [4]],
                                links__library=[[1], [1], [2]])[0], "2.00 times")

    def test_shellThatOnlyReads_isNoPeer(self):
        self.assertTrue(judged("15 times", links__ip_monitor_read=[[0.1]])[1])

    def test_oneAllocation_isTooMany(self):
        self.check_limit("no heap", "flood__allocations", [0], [1])
        self.assertFalse(judged("no heap", flood__allocations=[[1], [0]])[1])

    def test_memory_isOverTheApplication(self):
        record = {"uss": 1400, "threads": 5, "wakings": 0}
        self.check_limit("memory over", "rest__library", record, record | {"uss": 1401})

    def test_oneTick_isNeitherMoreNorLess(self):
        for ticks, seconds, met in ((10, 30, True), (9, 30, True), (8, 30, False), (11, 30, True),
                                    (12, 30, False), (0, 3, False), (2, 6, True)):
            record = {"uss": 1, "threads": 5, "wakings": 16, "own": ticks, "seconds": seconds}
            self.assertEqual(judged("at rest", rest__library=[record]),
                             (f"{ticks} in {seconds} s", met))

    def test_whatIsExported_isOurs(self):
        record = {"text": 90 * 1024, "relocations": 1, "exported": 1, "foreign": []}
        self.check_limit("nothing exported", "size__library", record,
                         record | {"foreign": ["alien"]})
        self.check_limit("at most 90", "size__library", record, record | {"text": 90 * 1024 + 1})

    def test_growthOfEvents(self):
        record = {"each": 2.6, "allocations": 0, "bytes": 65536}
        self.check_limit("memory flat over events", "events_growth__100000", record,
                         record | {"bytes": 65537})
        self.check_limit("time linear over events", "events_growth__100000", record,
                         record | {"each": 2.61})

    def test_growthOfSearches(self):
        for name, text, good, more in (
                ("by-link 1000", "memory flat over searches", {"bytes": 28800},
                 {"bytes": 28801}),
                ("by-start 1000", "at most 256", {"bytes": 99 * 150 + 900 * 256},
                 {"bytes": 99 * 150 + 900 * 256 + 1}),
                ("by-start 1000", "time linear over searches", {"each": 7.8}, {"each": 7.81}),
                ("by-link 1000", "time linear over searches", {"each": 7.8}, {"each": 7.81})):
            seen = whole()
            record = seen["searches-growth"][name][0]
            seen["searches-growth"][name] = [record | good]
            self.assertTrue(bar(text).judge(Samples(seen))[1], text)
            seen["searches-growth"][name] = [record | more]
            self.assertFalse(bar(text).judge(Samples(seen))[1], text)

    def test_whatTheMachineDoesNotChange_isSteady(self):
        steady = {text for text in ("no heap", "memory over", "at rest", "at most 90", "nothing",
                                    "memory flat over e", "memory flat over s", "at most 256")
                  if bar(text).steady}
        self.assertEqual(len(steady), 8)
        self.assertEqual(sum(bar.steady for bar in performance.BARS), 8)


class Told(unittest.TestCase):

    def test_everyTable_hasItsCommand(self):
        text = performance.report(Samples(whole()), performance.QUANTITIES)
        for one in performance.QUANTITIES:
            self.assertIn(f"### {one.title}\n\n`script/bench {one.name}`\n\n|", text)

    def test_row_hasMedianRoundsAndRatio(self):
        samples = Samples({"links": {"raw": [[1], [3], [2]], "library": [[2], [2], [4]]}})
        rows = performance.rows_of_times(samples, quantity("links"))
        self.assertEqual(rows, [
            ["floor: raw read", "2.00", "1.00 to 3.00", "0.500 (0.500 to 1.50)"],
            ["library", "2.00", "2.00 to 4.00", ""]])

    def test_halvesOfASwitch_areComparedEachWithItsOwn(self):
        samples = Samples({"switch": {"library-dead": [[10]], "script-dead": [[20]],
                                      "library-success": [[2]], "script-success": [[1]]}})
        rows = performance.rows_of_times(samples, quantity("switch"))
        self.assertEqual([row[3] for row in rows], ["", "2.00", "", "0.500"])

    def test_tables_areMarkdown(self):
        self.assertEqual(performance.table(["a", "b"], [["1", "2"]]),
                         ["| a | b |", "|---|---|", "| 1 | 2 |"])

    def test_missedBar_isMarked(self):
        lines = performance.bars_table([(bar("no heap"), "1", False), (bar("4 times"), "5", True)])
        self.assertIn("| no heap allocation | 1 | **missed** |", lines)
        self.assertIn("| 4 times less than libudev | 5 | met |", lines)

    def test_longLine_isWrapped(self):
        self.assertEqual(performance.wrapped("aa bb cc", 5), "aa bb\ncc")

    def test_noPicture_lacksARow(self):
        samples = Samples(whole())
        rows = performance.reactions_data(samples)
        self.assertEqual(sum(bool(row) for row in rows), 16)
        self.assertEqual([row[4] for row in rows if row].count(1), 2)
        self.assertEqual(performance.memory_data(samples)[:2], [
            ["the library, over the application", 300], ["application without it", 1000]])
        self.assertEqual(len(performance.growth_data(samples)), 9)


class Page(unittest.TestCase):

    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.page = pathlib.Path(folder) / "page.md"
        self.enterContext(mock.patch.object(performance, "PAGE", self.page))
        self.enterContext(mock.patch.object(performance, "machine", lambda: "A machine."))

    def test_onlyWhatWasMeasured_isReplaced(self):
        self.page.write_text(f"Before\n{performance.BEGIN}\nold\n{performance.END}\nAfter\n")
        performance.write_page("new\n")
        self.assertEqual(self.page.read_text(), f"Before\n{performance.BEGIN}\n\nA machine.\n\n"
                         f"new\n\n{performance.END}\nAfter\n")

    def test_pageWithoutAPlace_staysAsItIs(self):
        for text in ("nothing", performance.BEGIN, performance.END + performance.BEGIN,
                     performance.BEGIN * 2 + performance.END):
            self.page.write_text(text)
            with self.assertRaisesRegex(SystemExit, "has no place"):
                performance.write_page("new")
            self.assertEqual(self.page.read_text(), text)


class Instructions(unittest.TestCase):

    def setUp(self):
        path = str(TOP / "script" / "instructions")
        loader = importlib.machinery.SourceFileLoader("instructions", path)
        self.script = importlib.util.module_from_spec(
            importlib.util.spec_from_loader("instructions", loader))
        loader.exec_module(self.script)

    def compared(self, now, before):
        with contextlib.redirect_stdout(io.StringIO()) as output:
            return self.script.compare(now, before), output.getvalue()

    def test_fivePercentMore_isAllowed(self):
        wrong, output = self.compared({"walk": 1050}, {"walk": 1000})
        self.assertEqual(wrong, [])
        self.assertRegex(output, r"^walk +1,050 instructions, +\+5\.0%\n$")

    def test_moreThanThat_isWrong(self):
        self.assertEqual(self.compared({"walk": 1051}, {"walk": 1000})[0],
                         ["walk takes 1,051 instructions instead of 1,000"])

    def test_less_isAllowed(self):
        self.assertEqual(self.compared({"walk": 1}, {"walk": 1000})[0], [])

    def test_whatIsOnOneSideOnly_isWrong(self):
        self.assertEqual(self.compared({"new": 1}, {"old": 1})[0],
                         ["new is not kept", "old is kept, but not counted"])

    def test_whatIsKept_isRead(self):
        kept = self.script.kept()
        self.assertIn("parse_uevent-of-ours", kept)
        self.assertEqual(len(kept), 7)
        self.assertTrue(all(count > 100 for count in kept.values()), kept)


class Run(unittest.TestCase):

    def run_with(self, seen, *arguments):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        samples = folder / "samples.json"
        samples.write_text(json.dumps(seen))
        output, errors = io.StringIO(), io.StringIO()
        with mock.patch.object(sys, "argv", ["bench", "build", str(folder), "--samples",
                                             str(samples), *arguments]), \
                contextlib.redirect_stdout(output), contextlib.redirect_stderr(errors):
            return performance.main(), output.getvalue(), errors.getvalue()

    def test_allMet_isZero(self):
        status, output, errors = self.run_with(whole(), "flood", "size")
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("| no heap allocation | 0.000 | met |", output)
        self.assertNotIn("script/bench links", output)

    def test_missedSteadyBar_isOne(self):
        seen = whole()
        seen["flood"]["allocations"] = [[1]]
        status, _, errors = self.run_with(seen, "flood")
        self.assertEqual((status, errors), (1, "Not as it should be: no heap allocation\n"))

    def test_missedBarOfTimes_isZero(self):
        seen = whole()
        seen["uevents"]["library"] = [[9.0]]
        status, output, _ = self.run_with(seen, "uevents")
        self.assertEqual(status, 0)
        self.assertIn("| 9.00 ms | **missed** |", output)

    def test_whatWasNotMeasured_isTold(self):
        seen = whole()
        del seen["uevents"]["library"]
        status, _, errors = self.run_with(seen, "uevents")
        self.assertEqual((status, errors),
                         (1, "script/bench: uevents of library was not measured\n"))

    def test_unknownName_isRefused(self):
        status, _, errors = self.run_with(whole(), "link")
        self.assertEqual(status, 64)
        self.assertRegex(errors, "^script/bench: there is no link; there are links, ")

    def test_words_areRefusedBeforeAnythingIsInstalled(self):
        for words in (["--slow"], ["--docs", "--quick"], ["--docs", "links"], ["link"]):
            done = subprocess.run([TOP / "script" / "bench", *words], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual((done.returncode, done.stdout), (64, ""))
            self.assertRegex(done.stderr, "see script/bench --help|is no link; there are links")

    def test_list_namesAll(self):
        done = subprocess.run([TOP / "script" / "bench", "--list"], stdout=subprocess.PIPE,
                              text=True, check=True)
        for one in performance.QUANTITIES:
            self.assertRegex(done.stdout, rf"(?m)^{one.name}: ")


if __name__ == "__main__":
    unittest.main()
