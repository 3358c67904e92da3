# SPDX-License-Identifier: MIT
"""What the tests of `hoplanectl check` share."""

import os
import pathlib
import subprocess

import tool

# In the order of the output.
ITEMS = ["file", "keys", "trust", "enabled", "server-1", "server-2", "servers", "network-1",
         "network-2", "networks", "name", "nmcli", "awk", "manager", "connection", "interface",
         "profile", "permissions", "device-file", "link-events", "clock", "locale"]
PROBES = ["probe-1", "probe-2"]
LEVELS = ["good", "warning", "fault"]
DEVICE_FILE = pathlib.Path("/userdata/netSettings.ini")
# A clock that somebody sets, whatever the machine's is like.
SYNCHRONISED = {"SURROUNDINGS_CLOCK": "1000 0"}


def surroundings():
    """The library that tells hoplanectl of other surroundings; built beside it."""
    build = pathlib.Path(tool.COMMAND[-1]).resolve().parents[2]
    library = build / "tests/hoplanectl/surroundings/libhoplanectl_surroundings.so"
    if not library.exists():
        raise FileNotFoundError(library)
    return library


def fault(text, remedy=None):
    return ("fault", text, remedy)


def warning(text, remedy=None):
    return ("warning", text, remedy)


def not_judged(reason):
    return ("not judged", reason, None)


def good(text):
    return ("good", text, None)


class CheckCase(tool.TestCase):
    """Runs `check` and compares all that it finds."""

    def setUp(self):
        super().setUp()
        subprocess.run(["rm", "-rf", DEVICE_FILE], check=True)

    def run_check(self, *arguments, environment=None, within=(), clock=True):
        """Runs check in its surroundings; `within` is a command line that runs another."""
        told = {"LD_PRELOAD": str(surroundings()),
                # Of a sanitized build: other libraries may come before the sanitizer's.
                "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0",
                **(SYNCHRONISED if clock else {}), **(environment or {})}
        # Only hoplanectl itself is told; the programs that run it are not.
        command = [*within, "/usr/bin/env", *(f"{key}={value}" for key, value in told.items()),
                   *tool.COMMAND, *arguments]
        return tool.Result(subprocess.run(command, stdin=subprocess.DEVNULL,
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                          encoding="utf-8", timeout=120, check=False))

    def expect_findings(self, expected, *arguments, **options):
        """Everything but what is expected is good. `expected`: for an item its findings, each a
        level, a part or parts of its text, and a part of its remedy. The exit status follows from
        the worst level."""
        result = self.run_check(*arguments, "check", "--json", **options)
        self.compare(expected, result)
        return result

    def compare(self, expected, result, items=None):
        self.assertEqual(result.err, "", result)
        *findings, summary = result.objects
        wanted = items or ITEMS
        self.assertEqual(list(dict.fromkeys(finding["item"] for finding in findings)), wanted,
                         result)
        for item in wanted:
            rows = expected.get(item, [good("")])
            self.compare_item(item, rows if isinstance(rows, list) else [rows],
                              [finding for finding in findings if finding["item"] == item], result)
        self.assertEqual(set(expected) - set(wanted), set())
        levels = [finding["level"] for finding in findings]
        counts = [levels.count(level) for level in LEVELS]
        self.assertEqual([summary["good"], summary["warnings"], summary["faults"]], counts, result)
        self.assertEqual(result.status, max(LEVELS.index(level) for level in levels), result)

    def compare_item(self, item, rows, findings, result):
        message = f"{item}: {result}"
        self.assertEqual(len(findings), len(rows), message)
        for (level, text, remedy), finding in zip(rows, findings):
            self.assertEqual(set(finding), {"type", "item", "level", "judged", "text", "remedy"})
            self.assertEqual(finding["type"], "check")
            self.assertEqual(finding["judged"], level != "not judged", message)
            if level == "not judged":
                level, text = "warning", "not judged: " + text
            self.assertEqual(finding["level"], level, message)
            for part in text if isinstance(text, tuple) else [text]:
                self.assertIn(part, finding["text"], message)
            self.assertIs(finding["remedy"] is None, level == "good" or not finding["judged"],
                          message)
            if remedy is not None:
                self.assertIn(remedy, finding["remedy"], message)
