# SPDX-License-Identifier: MIT
"""What each command that ends by itself shows on a terminal of 80 columns, against the golden
texts terminal-NAME.txt, in which <red>TEXT</> is a text in red; and that without colours it is the
same text. With HOPLANE_WRITE_GOLDEN set the golden texts are written anew."""

import os
import pathlib
import platform
import re
import socket
import subprocess

import checking
import tool
from pseudoterminal import GOLDEN, Terminal, golden

APP = "failover"
BIN, DEVICE = (pathlib.Path("/sandbox/tmp", name) for name in ("bin", "device.ini"))
UUID = "3c9f1a52-77c0-4a47-9d3c-6b8f0f5f2d11"
MARKS = {"1": "bold", "2": "dim", "31": "red", "32": "green", "33": "yellow", "0": "/"}
MARK = re.compile("<({})>".format("|".join(MARKS.values())))
COMMANDS = ["show", "set", "import", "check", "plan", "probe", "search", "watch", "log"]

FILE = {
    "SwitchEnable": "true", "connectionName": "Wired connection 1",
    "FirstServerIp": "198.51.100.1", "FirstServerPort": "9000", "FirstIsAutomatically": "true",
    "FirstLocalIp": "198.51.100.2", "FirstLocalMask": "255.255.255.0",
    "FirstLocalGateWay": "198.51.100.1", "FirstPreferredDNS": "198.51.100.53",
    "FirstSpareDNS": "198.51.100.54",
    "SecondServerIp": "192.0.2.1", "SecondServerPort": "9001", "SecondIsAutomatically": "false",
    "SecondLocalIp": "", "SecondLocalMask": "", "SecondLocalGateWay": "",
    "SecondPreferredDNS": "", "SecondSpareDNS": "",
}
DEVICE_TEXT = """[NetworkConnections]
conName=wan
MasterNet\\bDhcpEnabled=false
MasterNet\\ip=10.0.0.2
MasterNet\\mask=255.255.255.0
MasterNet\\gateway=10.0.0.1
MasterNet\\dns1=10.0.0.53
SlaveNet\\bDhcpEnabled=true
"""


class Case:
    """A run of the tool; what it begins with is in the file."""

    def __init__(self, status, *arguments, changes=None, environment=None):
        self.status, self.arguments, self.changes = status, arguments, changes or {}
        self.environment = environment or {}

    @property
    def words(self):
        """For people who read the tests' messages."""
        return " ".join(self.arguments)


# What nobody has looked at: it colours nothing and moves nothing.
ESCAPES = {"connectionName": "lan\\x1b[31m", "FirstServerIp": "\\r\\x9b?25l"}
# nmcli answers, whatever it is asked.
ASKED = {"PATH": f"{BIN}:/usr/bin:/bin"}
CASES = {
    "show": Case(0, "show"),
    "show-empty": Case(0, "show", changes=dict.fromkeys(FILE, "")),
    "show-escapes": Case(0, "show", changes=ESCAPES),
    "show-raw": Case(0, "show", "--raw"),
    "show-nobody": Case(1, "--app", "nobody", "show"),
    "set": Case(0, "set", "server", "2", "203.0.113.7:65535"),
    "set-network": Case(0, "set", "network", "2", "--address", "10.20.30.40/22", "--gateway",
                        "10.20.28.1", "--dns", "8.8.8.8", "--dns", "8.8.4.4"),
    "set-same": Case(0, "set", "enabled", "on"),
    "set-escapes": Case(0, "set", "connection", "lan", changes=ESCAPES),
    "set-refused": Case(1, "set", "connection", "lan; \x1b[31m"),
    "set-refused-network": Case(1, "set", "network", "1", "--address", "10.0.0.2/8"),
    "import-dry-run": Case(0, "import", "--dry-run", "--from", str(DEVICE)),
    "import-refused": Case(1, "import", "--from", "/nowhere"),
    "check": Case(2, "check"),
    "check-faults": Case(2, "check", changes={"FirstServerPort": "0", "Extra": "1"}),
    "plan": Case(0, "plan", environment=ASKED),
    "plan-off": Case(1, "plan", environment=ASKED,
                     changes={"SwitchEnable": "false", "SecondServerPort": "x"}),
    "plan-nobody": Case(1, "--app", "nobody", "plan"),
    "probe-accepts": Case(0, "probe", "ACCEPTS"),
    "probe-refuses": Case(1, "probe", "REFUSES", "--attempts", "2", "--interval", "1"),
    "probe-not-tried": Case(3, "probe", "192.0.2.1:9000"),
    "log": Case(0, "log", str(GOLDEN / "second-server.log")),
    "log-faults": Case(0, "log", str(GOLDEN / "unusable-values.log")),
    "log-nothing": Case(1, "log", "/dev/null"),
    "usage": Case(64, "set", "server", "1"),
    "usage-command": Case(64, "sow"),
}
HELP = {"help": Case(0, "--help")} | {f"help-{command}": Case(0, command, "--help")
                                      for command in COMMANDS}


def marked(text):
    """The output of a terminal with its styles as marks. Nothing else may be in it but printable
    characters, and no style may last beyond its line."""
    text = re.sub(r"\x1b\[(\d+)m", lambda match: f"<{MARKS[match[1]]}>", text)
    if stray := re.search(r"[^\n\x20-\x7e\xa0-\uffff]", text):
        raise AssertionError(f"there is a {stray[0]!r}: {text!r}")
    for line in text.splitlines():
        marks = MARK.findall(line)
        if marks[1::2] != ["/"] * (len(marks) // 2) or "/" in marks[::2] or len(marks) % 2:
            raise AssertionError(f"styles are not ended: {line}")
    return text


def without_marks(text):
    return MARK.sub("", text)


class TerminalCase(tool.TestCase):
    def setUp(self):
        super().setUp()
        BIN.mkdir(exist_ok=True)
        (BIN / "nmcli").write_text(f"#!/bin/sh\necho {UUID}\n", encoding="utf-8")
        (BIN / "nmcli").chmod(0o755)
        DEVICE.write_text(DEVICE_TEXT, encoding="utf-8")
        self.servers = {"ACCEPTS": self.socket(), "REFUSES": self.socket()}
        self.servers["ACCEPTS"].listen(50)

    def socket(self):
        server = socket.socket()
        self.addCleanup(server.close)
        server.bind(("127.0.0.1", 0))
        return server

    def prepare(self, case):
        """The arguments and the environment of the case, whose file is written."""
        tool.remove_all()
        tool.write(APP, FILE | case.changes)
        names = {name: "{}:{}".format(*server.getsockname())
                 for name, server in self.servers.items()}
        environment = {"NO_COLOR": "", "LC_ALL": "C.UTF-8", "LANGUAGE": "",
                       "LD_PRELOAD": str(checking.surroundings()),
                       "SURROUNDINGS_CLOCK": "1000 1800000000",
                       "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "")
                       + ":verify_asan_link_order=0"} | case.environment
        return [names.get(word, word) for word in case.arguments], environment

    def masked(self, text):
        """Without what is different elsewhere, or the next time."""
        for pattern, mask in (
                (r"\d+\.\d ms", "TIME ms"),
                ("|".join(f":{server.getsockname()[1]}\\b" for server in self.servers.values()),
                 ":PORT"),
                (rf"\b{platform.machine()}\b", "PROCESSOR"),
                (r"( nmcli        )\S+, version \S+", r"\1PATH, version VERSION"),
                (r"( awk          )\S+", r"\1PATH"),
                (r"(NetworkManager cannot be asked: Error: )[^\"\n]*", r"\1ERROR"),
                (re.escape(str(GOLDEN)), "GOLDEN")):
            text = re.sub(pattern, mask, text)
        return text

    def on_terminal(self, case, *options, **changes):
        """What the terminal gets to see, masked."""
        arguments, environment = self.prepare(case)
        terminal = Terminal(*options, *arguments, environment=environment | changes)
        terminal.read_all()
        text = terminal.output.decode()
        self.assertEqual(case.status, terminal.status, text)
        # As the terminal's driver ends a line.
        return self.masked(text.replace("\r\n", "\n"))

    def through_pipe(self, case):
        """What comes out of a pipe, results and messages, masked."""
        arguments, environment = self.prepare(case)
        done = subprocess.run([*tool.COMMAND, *arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              env=os.environ | {"TERM": "xterm"} | environment, timeout=60,
                              check=False)
        self.assertEqual(case.status, done.returncode, done.stdout)
        return self.masked(done.stdout)

    def each(self, cases, check):
        """Calls the check with each case and its golden text."""
        for name, case in cases.items():
            with self.subTest(case.words):
                check(case, (GOLDEN / f"terminal-{name}.txt").read_text(encoding="utf-8"))


class Shown(TerminalCase):
    def test_golden_texts_with_their_colours(self):
        for name, case in (CASES | HELP).items():
            with self.subTest(case.words):
                shown = marked(self.on_terminal(case))
                self.assertEqual(golden(f"terminal-{name}.txt", shown), shown)

    def test_no_colours_with_NO_COLOR(self):
        self.each(CASES, lambda case, expected: self.assertEqual(
            without_marks(expected), self.on_terminal(case, NO_COLOR="1")))

    def test_no_colours_whatever_NO_COLOR_says(self):
        for value in ("0", "no", " "):
            self.assertNotIn("\x1b", self.on_terminal(CASES["plan"], NO_COLOR=value))

    def test_no_colours_on_a_dumb_terminal(self):
        self.each(CASES, lambda case, expected: self.assertEqual(
            without_marks(expected), self.on_terminal(case, TERM="dumb")))

    def test_no_colours_through_a_pipe(self):
        self.each(CASES | HELP, lambda case, expected: self.assertEqual(
            without_marks(expected), self.through_pipe(case)))

    def test_colours_are_for_people_only(self):
        def check(case, expected):
            if MARK.search(expected) and "hoplanectl: " not in expected:
                self.assertRegex(self.on_terminal(case, "--json"), r"\A(\{[ -~]*\}\n)+\Z")
        self.each(CASES, check)

    def test_every_style_is_seen(self):
        seen = set()
        self.each(CASES, lambda _, expected: seen.update(MARK.findall(expected)))
        self.assertEqual(set(MARKS.values()), seen)

    def test_help_fits_the_terminal(self):
        self.each(HELP, lambda _, expected: self.assertLessEqual(
            max(len(line) for line in expected.splitlines()), 80))

    def test_help_of_every_command(self):
        overview = (GOLDEN / "terminal-help.txt").read_text(encoding="utf-8")
        self.assertEqual(COMMANDS, re.findall(r"^  ([a-z]+) +[A-Z]", overview, re.MULTILINE))

    def test_no_golden_text_is_left_over(self):
        self.assertEqual({f"terminal-{name}.txt" for name in CASES | HELP},
                         {path.name for path in GOLDEN.glob("terminal-*")})


if __name__ == "__main__":
    tool.main()
