# SPDX-License-Identifier: MIT
"""Holds docs/integration.md to what it shows: its code compiles and does what the text says, its
commands and log lines are the tool's and the library's, the sample unit has the settings that it
explains, and the files and headings that it names are there.

Usage: integration.py SOURCE_FOLDER LIBRARY HOPLANECTL
"""

import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile
import threading
import unittest

HOPLANECTL, LIBRARY, ROOT = (pathlib.Path(sys.argv.pop()).resolve() for _ in range(3))
GUIDE = (ROOT / "docs/integration.md").read_text(encoding="utf-8")
SAMPLES = ROOT / "examples/device"
SANDBOX = str(ROOT / "script/sandbox")
HERE = pathlib.Path(__file__).resolve().parent


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", GUIDE, re.MULTILINE | re.DOTALL)


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          encoding="utf-8", check=False, **options)


class Client(unittest.TestCase):
    """The guide's code, as it stands and among the library's signals."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.code, = blocks("cpp")

    def build(self, name, code, *more):
        """Without a warning."""
        source = self.folder / f"{name}.cpp"
        source.write_text(code, encoding="utf-8")
        flags = run("pkg-config", "--cflags", "--libs", "Qt5Network", "Qt5Test").stdout.split()
        done = run("c++", "-std=c++17", "-fPIC", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
                   "-Werror", f"-I{ROOT / 'facade'}", str(source), *more, "-o",
                   str(self.folder / name), str(LIBRARY), f"-Wl,-rpath,{LIBRARY.parent}", *flags)
        self.assertEqual(done.returncode, 0, done.stdout)
        return str(self.folder / name)

    def build_rehearsal(self):
        code = self.code.replace("private:", "public:").replace("int main(", "int clientMain(")
        return self.build("rehearsal", code + (HERE / "client.cc").read_text(encoding="utf-8"),
                          str(ROOT / "tests/security/architecture.cpp"))

    def test_code_as_it_stands(self):
        """Its search looks for the configuration under its application's name."""
        program = self.build("client", self.code)
        with subprocess.Popen([SANDBOX, program], stderr=subprocess.PIPE, stdout=subprocess.DEVNULL,
                              encoding="utf-8") as client:
            # Without a search it would go on in silence. The sandbox's processes end with it.
            limit = threading.Timer(60, client.kill)
            limit.start()
            line = next((line for line in client.stderr if "loadConfig" in line), "")
            limit.cancel()
            client.kill()
        self.assertIn('"/sandbox/home/Documents/client/switch.ini" not exist', line)

    def test_among_the_signals(self):
        program = self.build_rehearsal()
        for architecture in ("arm64", "x86_64"):
            with self.subTest(architecture):
                done = run(SANDBOX, "env", f"ARCHITECTURE={architecture}", program,
                           str(int(self.longest_reaction() * 1000)))
                self.assertEqual(done.returncode, 0, done.stdout)

    def longest_reaction(self):
        """In seconds, by the table."""
        text = (ROOT / "docs/behaviour.md").read_text(encoding="utf-8")
        table = text[text.index("| selected network |"):]
        seconds = [float(number) for number in
                   re.findall(r"\| ([\d.]+) s<!-- = switch\w+ --> \|$", table, re.MULTILINE)]
        self.assertGreater(len(seconds), 5)
        return max(seconds)

    def test_levels(self):
        """With the sample's environment, each line has the level that the journal knows it by."""
        sample = (SAMPLES / "failover.env").read_text(encoding="utf-8")
        pattern, = re.findall(r'^QT_MESSAGE_PATTERN="(.*)"$', sample, re.MULTILINE)
        done = run(SANDBOX, "env", "ARCHITECTURE=arm64", f"QT_MESSAGE_PATTERN={pattern}",
                   self.build_rehearsal(), "levels")
        self.assertEqual(re.findall(r"^<\d>\w+$", done.stdout, re.MULTILINE),
                         ["<7>debug", "<6>info", "<4>warning", "<3>critical", "<2>fatal"])


class Guide(unittest.TestCase):
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
        """The guide's own commands, as the caller instead of the service's user."""
        commands, = [block for block in blocks("sh") if "configure() {" in block]
        stubs = 'runuser() { shift 3; "$@"; }; install() { :; }; systemctl() { :; }; set -eu\n'
        with tempfile.TemporaryDirectory() as home:
            done = run("sh", "-c", stubs + commands.replace("/var/lib/failover", home),
                       env={**os.environ, "PATH": f"{HOPLANECTL.parent}:{os.environ['PATH']}",
                            "XDG_CONFIG_HOME": home})
            self.assertEqual(done.returncode, 0, done.stdout)
            file = pathlib.Path(home) / "Documents/failover/switch.ini"
            stored = file.read_text(encoding="utf-8")
            self.assertEqual(stat.S_IMODE(file.stat().st_mode), 0o600)
            self.assertEqual(stat.S_IMODE(file.parent.stat().st_mode), 0o700)
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

    def test_restrictions(self):
        """The guide names all of the unit's, and no other."""
        unit = (SAMPLES / "failover.service").read_text(encoding="utf-8")
        part = unit[unit.index("\nCapabilityBoundingSet="):unit.index("[Install]")]
        told = GUIDE[GUIDE.index("The sample's are `"):GUIDE.index("`RestrictAddressFamilies=` w")]
        self.assertCountEqual(re.findall(r"^[A-Z]\w+=.*$", part, re.MULTILINE),
                              re.findall(r"`([A-Z]\w+=[^`]*)`", told))

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
