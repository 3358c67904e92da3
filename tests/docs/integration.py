# SPDX-License-Identifier: MIT
"""Holds docs/integration.md to what it shows: its code compiles, its commands and log lines are the
tool's and the library's, the sample unit has the settings that it explains, and the files and
headings that it names are there.

Usage: integration.py SOURCE_FOLDER LIBRARY HOPLANECTL
"""

import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

HOPLANECTL, LIBRARY, ROOT = (pathlib.Path(sys.argv.pop()).resolve() for _ in range(3))
GUIDE = (ROOT / "docs/integration.md").read_text(encoding="utf-8")
SAMPLES = ROOT / "examples/device"


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE, re.MULTILINE | re.DOTALL)


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          encoding="utf-8", check=False, **options)


class Guide(unittest.TestCase):
    def test_code_compiles(self):
        code, = blocks("cpp")
        flags = run("pkg-config", "--cflags", "--libs", "Qt5Network").stdout.split()
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder) / "client.cpp"
            source.write_text(code, encoding="utf-8")
            done = run("c++", "-std=c++17", "-fPIC", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
                       "-Werror", f"-I{ROOT / 'facade'}", str(source), "-o",
                       str(source.parent / "client"), str(LIBRARY), *flags)
            self.assertEqual(done.returncode, 0, done.stdout)

    def test_commands(self):
        commands = re.findall(r"\bhoplanectl (?:--app failover )?([a-z]+)((?: --[a-z]+)*)",
                              "".join(blocks("console")) + " ".join(re.findall("`(.*?)`", GUIDE)))
        self.assertGreaterEqual({name for name, _ in commands},
                                {"check", "plan", "search", "log", "set"})
        for name, options in commands:
            done = run(str(HOPLANECTL), name, "--help")
            self.assertEqual(done.returncode, 0, name)
            for option in options.split():
                self.assertIn(option, done.stdout)

    def test_configuration_of_the_service(self):
        """The guide's own commands, with the tool in place of its function for the user."""
        commands = re.findall(r"^configure (.*)$", "".join(blocks("sh")), re.MULTILINE)
        self.assertEqual(len(commands), 6)
        with tempfile.TemporaryDirectory() as home:
            for command in commands:
                done = run(str(HOPLANECTL), "--app", "failover", *shlex.split(command),
                           env={**os.environ, "HOME": home, "XDG_CONFIG_HOME": home})
                self.assertEqual(done.returncode, 0, done.stdout)
            stored = (pathlib.Path(home) / "Documents/failover/switch.ini").read_text("utf-8")
        for line in ("SwitchEnable=true", "connectionName=lan", "FirstServerIp=198.51.100.1",
                     "FirstIsAutomatically=true", "SecondServerIp=192.0.2.1",
                     "SecondIsAutomatically=false"):
            self.assertIn(f"\n{line}\n", stored)

    def test_log_lines(self):
        """hoplanectl knows each of them for one of the library's, or of nmcli's."""
        lines = "".join(blocks("log")).splitlines()
        self.assertGreater(len(lines), 5)
        beginning = '[ setStaticIpAddr ] LocalMask error: ""\n'
        for line in lines:
            done = run(str(HOPLANECTL), "log", input=beginning + line + "\n")
            self.assertEqual(done.returncode, 0, line)
            self.assertNotRegex(done.stdout, "not understood|of others left out", line)

    def test_unit(self):
        """What the guide explains of the unit, the unit has."""
        unit = (SAMPLES / "failover.service").read_text(encoding="utf-8")
        part = GUIDE[GUIDE.index("### The unit"):GUIDE.index("Restrictions, and what")]
        settings = re.findall(r"`([A-Z]\w+=\S+)`", part)
        self.assertGreater(len(settings), 5)
        for setting in settings:
            self.assertRegex(unit, rf"(?m)^(?:Environment=)?{re.escape(setting)}$")

    def test_environment(self):
        sample = (SAMPLES / "failover.env").read_text(encoding="utf-8")
        for setting in ("LC_ALL=C.UTF-8", "QT_MESSAGE_PATTERN"):
            self.assertIn(f"`{setting}`", GUIDE)
            self.assertRegex(sample, rf"(?m)^{setting}")

    def test_rule(self):
        actions = set(re.findall(r"org\.freedesktop\.NetworkManager\.[\w.-]+\w", GUIDE))
        rule = (SAMPLES / "50-failover.rules").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r'"(org\.freedesktop\.[\w.-]+)"', rule)), actions)

    def test_named_files(self):
        names = set(re.findall(r"\b(?:script|tests|examples|facade|cmake)/[\w./]+\w", GUIDE))
        names |= {f"examples/device/{name}" for name in
                  re.findall(r"\b(?:50-)?failover\.(?:service|rules|env)\b", GUIDE)}
        self.assertGreater(len(names), 6)
        for name in sorted(names):
            self.assertTrue((ROOT / name).exists(), name)

    def test_headings(self):
        headings = {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
                    for heading in re.findall(r"^#+ (.*)$", GUIDE, re.MULTILINE)}
        links = re.findall(r"\]\(#(.*?)\)", GUIDE)
        self.assertGreater(len(links), 5)
        self.assertLessEqual(set(links), headings)

    def test_columns(self):
        for line in GUIDE.splitlines():
            self.assertLessEqual(len(line), 100, line)


if __name__ == "__main__":
    unittest.main()
