#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Runs what script/bench measures with, on few changes: whether it works, never how fast.

  tests/bench/programs.py BUILD [EMULATOR...]     inside script/sandbox
"""

import os
import pathlib
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.append(str(TOP / "bench"))
import measure  # noqa: E402

BUILD = sys.argv.pop(1)
EMULATOR = sys.argv[1:]
sys.argv[1:] = []
# What the shell runs is the machine's own, as on a device.
NMCLI = """#!/bin/sh
[ "$1" != -g ] || echo f1e5a2c0-6d0b-4a34-9f43-3c6c5e1a7d42
"""


class Programs(unittest.TestCase):

    def setUp(self):
        place = measure.Place(BUILD)
        place.emulator = EMULATOR
        self.place = self.enterContext(place)
        self.path = os.environ["PATH"]
        self.addCleanup(os.environ.__setitem__, "PATH", self.path)

    def have_quick_nmcli(self):
        (self.place.quick / "nmcli").write_text(NMCLI, encoding="ascii")
        (self.place.quick / "nmcli").chmod(0o755)

    def check_times(self, times, count):
        self.assertEqual(len(times), count, times)
        self.assertTrue(all(0 < time < 60000 for time in times), times)

    def test_rawReader_reactsToALink(self):
        self.check_times(measure.react_to_links(self.place, "raw", 4, 500)["raw"], 2)

    def test_rawReaderWithTwoThreads_reactsToALink(self):
        seen = measure.react_to_links(self.place, "raw-two-threads", 4, 500)
        self.check_times(seen["raw-two-threads"], 2)

    def test_rawReader_reactsToAUevent(self):
        self.check_times(measure.react_to_uevents(self.place, "raw", 4, 500)["raw"], 4)

    def test_rawReaderWithTwoThreads_reactsToAUevent(self):
        seen = measure.react_to_uevents(self.place, "raw-two-threads", 4, 500)
        self.check_times(seen["raw-two-threads"], 4)

    def test_rawReaderWithAnEventLoop_reactsToALink(self):
        seen = measure.react_to_links(self.place, "raw-event-loop", 4, 500)
        self.check_times(seen["raw-event-loop"], 2)

    def test_rawReaderWithAnEventLoop_reactsToAUevent(self):
        seen = measure.react_to_uevents(self.place, "raw-event-loop", 4, 500)
        self.check_times(seen["raw-event-loop"], 4)

    def test_library_reactsToAUevent(self):
        self.check_times(measure.react_to_uevents(self.place, "library", 4, 500)["library"], 4)

    def test_rawReceiver_takesAFlood(self):
        self.check_times(measure.flood(self.place, "raw", 500)["raw"], 1)

    def test_library_takesAFloodWithoutAllocating(self):
        seen = measure.flood(self.place, "library", 500)
        self.check_times(seen["library"], 1)
        self.assertEqual(seen["allocations"], [0])

    def test_library_searches(self):
        self.have_quick_nmcli()
        self.check_times(measure.search(self.place, "library", 2)["library"], 2)

    def test_floor_searches(self):
        self.have_quick_nmcli()
        self.check_times(measure.search(self.place, "floor", 2)["floor"], 2)

    def test_script_searches(self):
        self.have_quick_nmcli()
        self.check_times(measure.search(self.place, "script", 2)["script"], 2)

    def test_searchesByStart_areCounted(self):
        self.have_quick_nmcli()
        seen = measure.searches_growth(self.place, "by-start", 1)
        self.assertEqual(seen["by-start 1"]["searches"], 1)
        self.assertEqual(seen["by-start 1"]["bytes"], 0)

    def test_applications_start(self):
        for program in "plain", "library":
            seen = measure.startup(self.place, program, 2)
            self.check_times(seen[program], 2)
            self.check_times(seen[f"{program}-instance"], 2)

    def test_cables_areLaidOneAfterAnother(self):
        for _ in range(20):
            with measure.Place(BUILD) as place:
                place.lay_cable()
                self.assertEqual(place.link_state(), "up")

    def test_programThatNeverReacts_isAnError(self):
        self.place.lay_cable()
        self.place.start(["sleep", "infinity"])
        with self.assertRaisesRegex(measure.LaboratoryError, "nobody does not react"):
            measure.react(self.place, "nobody", "link", 2, 50, patience=3)

    def test_wrongWords_areRefused(self):
        for words in (["change"], ["change", "link", "lo", "some", "1"], ["change", "link", "lo"],
                      ["change", "uevent", "1x", "1"], ["change", "uevent", "1", "0"],
                      ["change", "uevents", "1", "1"], ["reaction_raw"], ["reaction_raw", "link"],
                      ["reaction_raw", "links", "--threads"], ["reaction_library", "nothing"],
                      ["reaction_library", "links", "more"], ["search_floor", "1", "127.0.0.1"],
                      ["search_floor", "1", "127.0.0.1", "65536"], ["search_floor", "0", "::", "1"],
                      ["search_library"], ["search_library", "0"], ["search_library", "1", "2"],
                      ["search_library", "1", "--none"], ["search_library", "1", "--dead"],
                      ["flood_raw"], ["flood_raw", ""], ["flood_library", "1000001"],
                      ["flood_library", "1", "2"]):
            with self.subTest(words):
                done = subprocess.run(self.place.program(*words), stdin=subprocess.DEVNULL,
                                      capture_output=True, text=True, check=False, timeout=30)
                self.assertEqual((done.returncode, done.stdout), (64, ""), done.stderr)
                self.assertRegex(done.stderr, rf"^usage: .*\b{words[0]}\b")

    # On ARM the library listens to the LAN switch instead.
    if not EMULATOR:

        def test_library_reactsToALink(self):
            self.check_times(measure.react_to_links(self.place, "library", 4, 500)["library"], 2)

        def test_searchesByALink_areCounted(self):
            self.have_quick_nmcli()
            seen = measure.searches_growth(self.place, "by-link", 2)
            self.assertEqual(seen["by-link 100"]["searches"], 100)


if __name__ == "__main__":
    unittest.main(verbosity=2)
